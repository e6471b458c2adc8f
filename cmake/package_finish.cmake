# Run by CPack when a package is made. The archive is packed once more, so that
# the same commit gives the same bytes: sorted, everything root's, as old as the
# release, or as $SOURCE_DATE_EPOCH says. That takes GNU tar and gzip.
if(NOT CPACK_GENERATOR STREQUAL "TGZ")
  return()
endif()
cmake_policy(VERSION 3.18)

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(date "@$ENV{SOURCE_DATE_EPOCH}")
else()
  file(STRINGS ${CPACK_TOLVA_SOURCE_DIR}/debian/changelog date REGEX "^ -- "
       LIMIT_COUNT 1)
  string(REGEX REPLACE "^.*>  " "" date "${date}")
endif()

get_filename_component(above "${CPACK_TEMPORARY_INSTALL_DIRECTORY}" DIRECTORY)
get_filename_component(tree "${CPACK_TEMPORARY_INSTALL_DIRECTORY}" NAME)
foreach(package ${CPACK_PACKAGE_FILES})
  # The directory of the log is not for everybody, as in the other packages.
  execute_process(COMMAND chmod 750 "${above}/${tree}/var/log/tolva")
  # These two CPack has made, as the umask has it.
  execute_process(COMMAND chmod 755 "${above}/${tree}" "${above}/${tree}/usr")
  execute_process(
    COMMAND tar --create --file - --directory "${above}" --format gnu
            --sort name --owner root:0 --group root:0 --mtime "${date}"
            --transform "s,^${tree},${CPACK_PACKAGE_FILE_NAME},S"
            "${tree}"
    COMMAND gzip -9n
    OUTPUT_FILE "${package}"
    RESULTS_VARIABLE results)
  if(NOT results STREQUAL "0;0")
    message(FATAL_ERROR "the archive could not be packed: ${results}")
  endif()
endforeach()
