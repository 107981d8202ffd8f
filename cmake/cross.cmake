# Included by the toolchain files: cross-building for Linux on another processor with Debian's compiler
# for `triplet` and the packages of that architecture below `packages` (empty: below /). Programs of
# the build, the tests among them, run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# Only headers and CMake packages without machine code may come from the folders that all
# architectures share.
set(CMAKE_FIND_ROOT_PATH ${packages} /usr/${triplet} /usr/lib/${triplet} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} ${packages}/usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
