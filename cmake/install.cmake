# What "cmake --install" puts where. The directories are those of
# GNUInstallDirs; TOLVA_SYSTEMD_UNIT_DIR is one more.
include(GNUInstallDirs)
set(TOLVA_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
    "Where the systemd unit goes; empty: nowhere")

# Two components, since not every host has a use for the sysv script.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tolva)

# Most of it depends on the prefix, which may be another one at installation.
# It comes first, since it makes the directories.
configure_file(${CMAKE_CURRENT_LIST_DIR}/install_home.cmake.in
               ${PROJECT_BINARY_DIR}/install_home.cmake @ONLY)
install(SCRIPT ${PROJECT_BINARY_DIR}/install_home.cmake COMPONENT tolva)
configure_file(${CMAKE_CURRENT_LIST_DIR}/install_sysv.cmake.in
               ${PROJECT_BINARY_DIR}/install_sysv.cmake @ONLY)
install(SCRIPT ${PROJECT_BINARY_DIR}/install_sysv.cmake COMPONENT tolva_sysv)

# Every program that this build has: the others are links to tolva or scripts.
foreach(program tolva tolva-checkconf tolva-fleet)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
install(FILES $<TARGET_FILE_DIR:tolva>/sendtolva
              $<TARGET_FILE_DIR:tolva>/listentolva
        DESTINATION ${CMAKE_INSTALL_BINDIR})
