# The driver is compiled twice from the same sources: as the shipped plug-in, which uses the
# absolute paths of the system, and as an object library for the tests, whose paths are relative
# ("./etc/…"), so that each test process works in a scratch folder of its own.

set(WRX_DRIVER_SOURCES "")
foreach(room base frame operations protocol transport upgrade)
  file(GLOB room_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${room}/*.cpp)
  list(APPEND WRX_DRIVER_SOURCES ${room_sources})
endforeach()

if(WRX_FRAMEWORK STREQUAL "system")
  pkg_check_modules(FRAMEWORK REQUIRED IMPORTED_TARGET ${WRX_FRAMEWORK_PKG})
  set(framework PkgConfig::FRAMEWORK)
  set(framework_header ${WRX_FRAMEWORK_HEADER})
else()
  set(framework biometric)
  set(framework_header libbiometric.h)
endif()

# wrx_driver_objects(NAME ROOT [KIND]): the driver's objects, or a library of another KIND, with ROOT
# put before every system path.
function(wrx_driver_objects name root)
  set(kind ${ARGN} OBJECT)
  list(GET kind 0 kind)
  add_library(${name} ${kind} ${WRX_DRIVER_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_compile_definitions(${name}
    PUBLIC WRX_FRAMEWORK_HEADER=<${framework_header}>
    PRIVATE WRX_ROOT="${root}")
  target_compile_options(${name} PRIVATE
    -fno-exceptions -fno-rtti -fvisibility=hidden -fvisibility-inlines-hidden)
  target_link_libraries(${name}
    PUBLIC ${framework} PkgConfig::GLIB PkgConfig::LIBUSB
    PRIVATE wrx_warnings)
endfunction()

# wrx_plugin(NAME ROOT): a loadable plug-in NAME.so.
function(wrx_plugin name root)
  wrx_driver_objects(${name}_objects "${root}")
  add_library(${name} MODULE)
  set_target_properties(${name} PROPERTIES PREFIX "" OUTPUT_NAME ${name}
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  target_link_libraries(${name} PRIVATE ${name}_objects)
  # The host may have symbols of our names; none of them may take a call or a record of the driver's.
  # Once loaded it stays: libusb's event thread would outlive its code.
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic -Wl,--as-needed -Wl,-z,nodelete)
  if(NOT WRX_SANITIZE)
    # The processor guards branches (BTI, IBT) only in a library whose every object has landing pads,
    # and the compiler's start files have none. A library needs them only to run the destructors of
    # static objects; the driver has no such object, and with one it would not link.
    target_link_options(${name} PRIVATE -Wl,-z,defs -nostartfiles)
  endif()
endfunction()

wrx_plugin(wrx5300 "")
# The same plug-in with its system paths below the build tree, for demonstrations that need
# configuration files and a firmware image without touching the machine's own.
wrx_plugin(wrx5300-scratch "${CMAKE_BINARY_DIR}/scratch")
if(WRX_MUTATE)
  # A library that can be replaced under the built tests; it calls its own functions, but for the one
  # that they watch.
  wrx_driver_objects(wrx_driver_for_tests "." SHARED)
  # Quick to build, and without a word when a change leaves something unused.
  target_compile_options(wrx_driver_for_tests PRIVATE -fvisibility=default -O0 -w)
  target_link_options(wrx_driver_for_tests PRIVATE -Wl,-Bsymbolic-functions,--wrap=fp_set_ctrlFlag -fuse-ld=gold)
  target_precompile_headers(wrx_driver_for_tests PRIVATE
    <algorithm> <array> <atomic> <cstring> <memory> <span> <glib.h> <libusb-1.0/libusb.h>)
else()
  wrx_driver_objects(wrx_driver_for_tests ".")
endif()

set(WRX_PLUGIN_DIR ${CMAKE_INSTALL_LIBDIR}/libbiometric/drivers CACHE STRING
    "where the framework looks for its drivers")
install(TARGETS wrx5300 LIBRARY DESTINATION ${WRX_PLUGIN_DIR})
