# 32-bit Intel: cmake --toolchain cmake/toolchains/i386.cmake
set(CMAKE_SYSTEM_PROCESSOR i686)
set(triplet i686-linux-gnu)
set(emulator qemu-i386-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
