# Run by CPack on the tree that becomes the package: what only Debian wants.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
set(tree ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
set(doc ${tree}/usr/share/doc/tolva)
set(packaging ${CPACK_TOLVA_SOURCE_DIR}/packaging/deb)
find_program(GZIP_PROGRAM gzip)
if(NOT GZIP_PROGRAM)
  message(FATAL_ERROR "a .deb takes gzip")
endif()

function(compress)
  execute_process(COMMAND ${GZIP_PROGRAM} -9nf ${ARGN}
                  RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "gzip: ${result}")
  endif()
endfunction()

# Units stand below /lib there.
file(MAKE_DIRECTORY ${tree}/lib)
file(RENAME ${tree}/usr/lib/systemd ${tree}/lib/systemd)
file(REMOVE_RECURSE ${tree}/usr/lib)

# The licence is in "copyright".
file(REMOVE ${doc}/LICENSE)
file(COPY ${packaging}/copyright DESTINATION ${doc})
file(RENAME ${doc}/CHANGELOG.md ${doc}/NEWS)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${packaging}/changelog.in ${doc}/changelog @ONLY)
compress(${doc}/NEWS ${doc}/changelog)

file(GLOB_RECURSE pages ${tree}/usr/share/man/*.[1-9])
foreach(page ${pages})
  if(IS_SYMLINK ${page})
    file(READ_SYMLINK ${page} target)
    file(REMOVE ${page})
    file(CREATE_LINK ${target}.gz ${page}.gz SYMBOLIC)
  else()
    compress(${page})
  endif()
endforeach()

# Whatever is below /etc is the administrator's.
file(GLOB_RECURSE conffiles RELATIVE ${tree} ${tree}/etc/*)
list(TRANSFORM conffiles PREPEND "/")
list(JOIN conffiles "\n" conffiles)
file(WRITE ${CPACK_TOLVA_BINARY_DIR}/package/conffiles "${conffiles}\n")
