# Compiler settings that every target of the tree shares, and the options a builder may turn.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

set(WRX_FRAMEWORK "stand-in" CACHE STRING
    "framework the plug-in is built for: 'stand-in' (host/) or 'system' (found by pkg-config)")
set_property(CACHE WRX_FRAMEWORK PROPERTY STRINGS stand-in system)
set(WRX_FRAMEWORK_PKG "libbiometric" CACHE STRING "pkg-config name of the system's framework")
set(WRX_FRAMEWORK_HEADER "libbiometric.h" CACHE STRING "the system framework's public header")
option(WRX_PUBLIC_FRAMEWORK
  "install the stand-in framework for other programs too: among the public libraries, with its header" OFF)
option(WRX_WERROR "take the compiler's warnings for errors" OFF)
set(WRX_SANITIZE "" CACHE STRING "sanitizers to build with, e.g. address,undefined or thread")
option(WRX_BENCH "build the benchmarks" OFF)
option(WRX_FUZZ "build the fuzzers (clang)" OFF)
option(WRX_MUTATE "link the tests with the driver as a shared library, for tests/mutate" OFF)

add_library(wrx_warnings INTERFACE)
target_compile_options(wrx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${WRX_WERROR}>:-Werror>)

# Where the stand-in framework is installed: out of the way of a framework that the machine has, in a
# folder that only the programs of this tree look into.
set(WRX_FRAMEWORK_DIR ${CMAKE_INSTALL_LIBDIR}/wrx5300)
if(WRX_PUBLIC_FRAMEWORK)
  set(WRX_FRAMEWORK_DIR ${CMAKE_INSTALL_LIBDIR})
endif()

# Hardening belongs to every object that ships; the sanitizers bring their own checks instead.
if(WRX_SANITIZE)
  add_compile_options(-fsanitize=${WRX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${WRX_SANITIZE})
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")  # it checks nothing without optimisation
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack,-z,text)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    # Atomic operations in line: the compiler's functions for them have no landing pads.
    add_compile_options(-mbranch-protection=standard -mno-outline-atomics)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
    add_compile_options(-fcf-protection)
  endif()
endif()
include(CheckPIESupported)
check_pie_supported()

# The same files from any folder: no path of the source or the build gets into them.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/= -ffile-prefix-map=${CMAKE_BINARY_DIR}/=)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
