# Toolchain file: 64-bit Arm, with Debian's multiarch packages (dpkg --add-architecture arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
set(triplet aarch64-linux-gnu)
set(packages "")
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
