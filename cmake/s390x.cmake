# Toolchain file: s390x, for the sake of its byte order, with Debian's packages unpacked into
# build/s390x/packages by tests/big-endian.sh.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(triplet s390x-linux-gnu)
get_filename_component(packages ${CMAKE_CURRENT_LIST_DIR}/../build/s390x/packages ABSOLUTE)
set(libraries ${packages}/usr/lib/${triplet})
set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-s390x-static -L /usr/${triplet} -E LD_LIBRARY_PATH=${libraries})
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${libraries})
set(CMAKE_SHARED_LINKER_FLAGS_INIT -Wl,-rpath-link,${libraries})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${packages})
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
