# Read by CPack before each kind of package.
set(components ALL)
if(CPACK_GENERATOR STREQUAL "RPM")
  # There every host has systemd, and /etc/init.d belongs to someone else.
  set(components tolva)
endif()
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CPACK_TOLVA_BINARY_DIR};tolva;${components};/")
if(CPACK_GENERATOR STREQUAL "TGZ")
  set(CPACK_PACKAGE_FILE_NAME
      "tolva-${CPACK_PACKAGE_VERSION}-Linux-${CPACK_TOLVA_MACHINE}")
endif()

# What is installed there and started without a word looks for its settings
# where the package has them.
if(NOT CPACK_TOLVA_HOME STREQUAL "/etc/tolva")
  message(FATAL_ERROR "a package takes a build with -DTOLVA_HOME=/etc/tolva")
endif()
