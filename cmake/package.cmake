# "cpack -G RPM" and "cpack -G TGZ" in the build directory. Both hold the same
# tree below /usr, /etc and /var. Debian's package comes from debian/.
set(CPACK_PACKAGE_CONTACT "tolva authors <maintainers@tolva.example>"
    CACHE STRING "Who answers for the packages built here")
set(CPACK_PACKAGE_VENDOR "tolva authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "listener and sender of shutdown requests from a UPS")
set(CPACK_PACKAGE_DESCRIPTION
"A small daemon for hosts that hang on an uninterruptible power supply (UPS).
Over the network, the UPS management server tells the host to shut down or to
run a prepared action, and gets the exit status back.
.
The same program is the sender, so any script can do what the server does. It
watches the UPS servers too, and can hold a shutdown back until enough of them
ask for it.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_GENERATOR RPM TGZ)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The tree is that of the prefix /usr, whatever this build's own prefix is.
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_config.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/package_finish.cmake)
set(CPACK_TOLVA_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_TOLVA_BINARY_DIR ${PROJECT_BINARY_DIR})
set(CPACK_TOLVA_HOME "${TOLVA_HOME}")
set(CPACK_TOLVA_MACHINE ${CMAKE_SYSTEM_PROCESSOR})

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE MIT)
string(REPLACE "\n.\n" "\n\n" CPACK_RPM_PACKAGE_DESCRIPTION
       "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_RPM_PACKAGE_SUMMARY
    "Listener and sender of shutdown requests from a UPS")
set(CPACK_RPM_SPEC_MORE_DEFINE "%define _build_id_links none")
set(CPACK_RPM_PACKAGE_GROUP "System Environment/Daemons")
set(CPACK_RPM_POST_INSTALL_SCRIPT_FILE
    ${PROJECT_SOURCE_DIR}/packaging/rpm/post)
set(CPACK_RPM_PRE_UNINSTALL_SCRIPT_FILE
    ${PROJECT_SOURCE_DIR}/packaging/rpm/preun)
set(CPACK_RPM_POST_UNINSTALL_SCRIPT_FILE
    ${PROJECT_SOURCE_DIR}/packaging/rpm/postun)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /etc /usr/lib/systemd /usr/lib/systemd/system /usr/share/bash-completion
    /usr/share/bash-completion/completions
    /usr/share/man /usr/share/man/man5 /usr/share/man/man7 /usr/share/man/man8 /var /var/log)
set(CPACK_RPM_USER_FILELIST
    "%config(noreplace) /etc/tolva/tolva.cfg"
    "%config(noreplace) /etc/tolva/messages.dat")
file(GLOB scripts RELATIVE ${PROJECT_SOURCE_DIR}/share/scripts
     CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/share/scripts/*.sh)
foreach(script ${scripts})
  list(APPEND CPACK_RPM_USER_FILELIST
       "%config(noreplace) /etc/tolva/${script}")
endforeach()
if(EXISTS ${PROJECT_SOURCE_DIR}/share/actions/cancel-shutdown)
  list(APPEND CPACK_RPM_USER_FILELIST
       "%config(noreplace) /etc/tolva/actions.d/cancel-shutdown")
endif()
list(APPEND CPACK_RPM_USER_FILELIST "%attr(0750, root, root) %dir /var/log/tolva")

include(CPack)
