# Included by the scripts that run at installation, with "source" and
# "work_dir" set.
cmake_policy(VERSION 3.18)

# absolute_dir(<variable> <directory>): what a directory of GNUInstallDirs is
# under the prefix of this very installation. Below /usr nothing may change,
# so what changes goes to /etc and /var.
function(absolute_dir variable dir)
  if(IS_ABSOLUTE "${dir}")
    set(${variable} "${dir}" PARENT_SCOPE)
  elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND dir MATCHES "^(etc|var)(/|$)")
    set(${variable} "/${dir}" PARENT_SCOPE)
  else()
    set(${variable} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

# adapt(<file> [<from> <to>]...): a copy of <file> in work_dir, with the paths
# of this installation. Each <from> must be there.
function(adapt file)
  file(READ "${source}/${file}" text)
  set(pairs ${ARGN})
  while(pairs)
    list(POP_FRONT pairs from to)
    string(FIND "${text}" "${from}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "${file} does not contain \"${from}\"")
    endif()
    string(REPLACE "${from}" "${to}" text "${text}")
  endwhile()
  get_filename_component(name "${file}" NAME)
  file(WRITE "${work_dir}/${name}" "${text}")
endfunction()

# install_kept(<directory> <mode> <file>...): installs files that the
# administrator edits. One that is there already stays as it is, and the new
# one goes beside it.
function(install_kept dir mode)
  set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  if(mode STREQUAL "program")
    list(APPEND permissions OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  endif()
  foreach(path ${ARGN})
    get_filename_component(name "${path}" NAME)
    set(there "$ENV{DESTDIR}${dir}/${name}")
    set(options)
    if(EXISTS "${there}")
      file(READ "${path}" new HEX)
      file(READ "${there}" old HEX)
      if(NOT new STREQUAL old)
        message(STATUS "Kept: ${there}; the new one is ${name}.new")
        set(options RENAME "${name}.new")
      endif()
    endif()
    file(INSTALL DESTINATION "${dir}" TYPE FILE PERMISSIONS ${permissions}
         ${options} FILES "${path}")
  endforeach()
endfunction()

absolute_dir(sysconf_dir "${sysconf_dir}")
absolute_dir(state_dir "${state_dir}")
absolute_dir(bin_dir "${bin_dir}")
set(home "${sysconf_dir}/tolva")
set(log_dir "${state_dir}/log/tolva")
