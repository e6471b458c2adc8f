# What "cmake --install" puts where. The directories are those of
# GNUInstallDirs; TOLVA_SYSTEMD_UNIT_DIR is one more.
include(GNUInstallDirs)
set(TOLVA_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
    "Where the systemd unit goes; empty: nowhere")

# Two components, since not every host has a use for the sysv script.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tolva)

install(TARGETS tolva tolva-checkconf tolva-fleet
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS ${PROJECT_SOURCE_DIR}/share/bin/tolva-staged
        DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES $<TARGET_FILE_DIR:tolva>/sendtolva
              $<TARGET_FILE_DIR:tolva>/listentolva
        DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/packaging/bash-completion/
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

install(FILES README.md CHANGELOG.md LICENSE
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md"
        PATTERN source-tour.md EXCLUDE)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        USE_SOURCE_PERMISSIONS
        PATTERN __pycache__ EXCLUDE)

# The rest depends on the prefix, which may be another one at installation.
configure_file(${CMAKE_CURRENT_LIST_DIR}/install_home.cmake.in
               ${PROJECT_BINARY_DIR}/install_home.cmake @ONLY)
install(SCRIPT ${PROJECT_BINARY_DIR}/install_home.cmake COMPONENT tolva)
configure_file(${CMAKE_CURRENT_LIST_DIR}/install_sysv.cmake.in
               ${PROJECT_BINARY_DIR}/install_sysv.cmake @ONLY)
install(SCRIPT ${PROJECT_BINARY_DIR}/install_sysv.cmake COMPONENT tolva_sysv)
