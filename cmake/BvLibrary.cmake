# The library itself. Each folder names its files in <folder>/sources.cmake with
#   bv_sources(first.cpp second.cpp ...)

set(BV_SOURCES "")
macro(bv_sources)
  foreach(file ${ARGN})
    list(APPEND BV_SOURCES "${CMAKE_CURRENT_LIST_DIR}/${file}")
  endforeach()
endmacro()

foreach(folder os debug core db bus dev crypto)
  include(${CMAKE_SOURCE_DIR}/${folder}/sources.cmake)
endforeach()

add_library(bv SHARED ${BV_SOURCES})
add_library(bv::bv ALIAS bv)
set_target_properties(bv PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINKER_LANGUAGE C
  C_VISIBILITY_PRESET hidden
  CXX_VISIBILITY_PRESET hidden)
target_include_directories(bv
  PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE ${CMAKE_SOURCE_DIR})
# -fno-threadsafe-statics: there are no run-time initialised statics, and their guards would need
# the C++ run-time library.
target_compile_options(bv PRIVATE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -fno-semantic-interposition -fno-plt)
# Calls between our own exported functions are bound here, at link time; libc's and the other
# libraries' stay interposable. -z defs: an unresolved name (a stray C++ run-time call) is an
# error. -z nodelete: threads of the library run until the process ends, so closing a handle from
# dlopen() must not take its code away.
target_link_options(bv PRIVATE "LINKER:--version-script=${CMAKE_SOURCE_DIR}/cmake/start-files.map"
  -Wl,-Bsymbolic-functions -Wl,-z,defs -Wl,-z,nodelete
  -Wl,--as-needed)
target_link_libraries(bv
  PUBLIC ubus::ubus ubox::ubox json-c::json-c
  PRIVATE boundscheck::boundscheck OpenSSL::Crypto Threads::Threads)
