# What Debian's cross compilers have in common; the files beside this one set
# "triplet" and CMAKE_SYSTEM_PROCESSOR and include it. Programs run here under
# an emulator, with the C library of the cross compiler.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L /usr/${triplet})
endif()
