# 32-bit Intel: cmake --toolchain cmake/toolchains/i386.cmake
set(CMAKE_SYSTEM_PROCESSOR i686)
set(triplet i686-linux-gnu)
set(emulator qemu-i386-static)
# Most 64-bit kernels run its programs, with the cross compiler's C library.
set(loader /usr/${triplet}/lib/ld-linux.so.2)
execute_process(COMMAND ${loader} --version RESULT_VARIABLE failure
                OUTPUT_QUIET ERROR_QUIET)
if(NOT failure)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      ${loader} --library-path /usr/${triplet}/lib)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
