# Included by the scripts that run at installation, with "source" and
# "work_dir" set. All permissions are set here, whatever the umask is.
cmake_policy(VERSION 3.18)

# absolute_dir(<variable> <directory>): what a directory of GNUInstallDirs is
# under the prefix of this very installation. Below /usr nothing may change,
# so what changes goes to /etc and /var. The unit sees /usr/local read-only as
# well, and leaves the settings there, but the log has to be written.
function(absolute_dir variable dir)
  if(IS_ABSOLUTE "${dir}")
    set(${variable} "${dir}" PARENT_SCOPE)
  elseif(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND dir MATCHES "^(etc|var)(/|$)")
    set(${variable} "/${dir}" PARENT_SCOPE)
  elseif(CMAKE_INSTALL_PREFIX MATCHES "^/usr/" AND dir MATCHES "^var(/|$)")
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

# adapt_script(<variable> <file>): sets <variable> to a copy in work_dir, with
# the directories of this installation.
function(adapt_script variable file)
  file(RELATIVE_PATH name "${source}" "${file}")
  set(copy "${work_dir}/${name}")
  if(IS_SYMLINK "${file}")
    set(copy "${file}")
  else()
    file(READ "${file}" text)
    string(REPLACE "/usr/share/tolva" "${shared}" text "${text}")
    string(REPLACE "/etc/tolva" "${home}" text "${text}")
    file(WRITE "${copy}" "${text}")
  endif()
  set(${variable} "${copy}" PARENT_SCOPE)
endfunction()

# make_dir(<directory>): with whatever is missing above it, for everybody to
# read. What is there stays as it is.
function(make_dir dir)
  if(IS_DIRECTORY "$ENV{DESTDIR}${dir}")
    return()
  endif()
  get_filename_component(above "${dir}" DIRECTORY)
  if(NOT above STREQUAL dir)
    make_dir("${above}")
  endif()
  execute_process(COMMAND mkdir -m 755 "$ENV{DESTDIR}${dir}"
                  RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "cannot make the directory $ENV{DESTDIR}${dir}")
  endif()
endfunction()

# permissions_of(<variable> <path>): what begins with "#!" is run.
function(permissions_of variable path)
  set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(READ "${path}" start LIMIT 2 HEX)
  if(start STREQUAL "2321")
    list(APPEND permissions OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  endif()
  set(${variable} ${permissions} PARENT_SCOPE)
endfunction()

# put(<directory> <file>...): installs files that are the package's own.
function(put dir)
  make_dir("${dir}")
  foreach(path ${ARGN})
    if(IS_SYMLINK "${path}")
      file(INSTALL DESTINATION "${dir}" TYPE FILE FILES "${path}")
    else()
      permissions_of(permissions "${path}")
      file(INSTALL DESTINATION "${dir}" TYPE FILE PERMISSIONS ${permissions}
           FILES "${path}")
    endif()
  endforeach()
endfunction()

# put_tree(<directory> <tree>): all files below <tree>.
function(put_tree dir tree)
  file(GLOB_RECURSE paths RELATIVE "${tree}" "${tree}/*")
  foreach(path ${paths})
    if(NOT path MATCHES "__pycache__")
      get_filename_component(below "/${path}" DIRECTORY)
      string(REGEX REPLACE "/$" "" below "${below}")
      put("${dir}${below}" "${tree}/${path}")
    endif()
  endforeach()
endfunction()

# put_scripts(<directory> <file>...): the same with adapted copies.
function(put_scripts dir)
  make_dir("${dir}")
  foreach(path ${ARGN})
    adapt_script(copy "${path}")
    put("${dir}" "${copy}")
  endforeach()
endfunction()

# put_kept(<directory> <file>...): installs files that the administrator
# edits. One that is there already stays as it is, and the new one goes beside
# it.
function(put_kept dir)
  make_dir("${dir}")
  foreach(path ${ARGN})
    get_filename_component(name "${path}" NAME)
    permissions_of(permissions "${path}")
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
absolute_dir(data_dir "${data_dir}")
set(home "${sysconf_dir}/tolva")
set(log_dir "${state_dir}/log/tolva")
set(shared "${data_dir}/tolva")
