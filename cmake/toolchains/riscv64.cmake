# 64-bit RISC-V: cmake --toolchain cmake/toolchains/riscv64.cmake
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(triplet riscv64-linux-gnu)
set(emulator qemu-riscv64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
