# IBM Z, the big-endian one: cmake --toolchain cmake/toolchains/s390x.cmake
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triplet s390x-linux-gnu)
set(emulator qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
