# One static file that runs on any Linux of this machine's kind, with Debian's
# musl-dev and musl-tools: cmake --toolchain cmake/toolchains/musl.cmake
# With -DMUSL_SHARED=ON it takes musl's library from the system: for tests.
#
# There is no C++ library for musl, and the program links none: its headers
# are those that were made for glibc here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(musl /usr/include/x86_64-linux-musl)
file(GLOB library /usr/include/c++/[0-9]*)
list(SORT library COMPARE NATURAL)
list(GET library -1 library)
get_filename_component(version ${library} NAME)
set(CMAKE_CXX_FLAGS_INIT
    "-nostdinc -isystem ${library} -isystem /usr/include/x86_64-linux-gnu/c++/${version} -isystem ${library}/backward -isystem ${musl} -isystem /usr/lib/gcc/x86_64-linux-gnu/${version}/include")
string(APPEND CMAKE_CXX_FLAGS_INIT
       " -include ${CMAKE_CURRENT_LIST_DIR}/musl_library.h")

set(linking -static)
if(MUSL_SHARED)
  set(linking)
endif()
# The driver for C, since that for C++ would link its library.
set(CMAKE_CXX_LINK_EXECUTABLE
    "musl-gcc ${linking} <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
