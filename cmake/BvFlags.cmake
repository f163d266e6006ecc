# SPDX-License-Identifier: ISC
# Definitions, warnings and hardening of every target of this tree, and C++ without its run-time library.

# 64-bit file offsets and times with every C library: musl, the target's, has nothing else, and a
# 32-bit glibc build would otherwise disagree with its callers about struct stat and timeval. Where
# a long has 64 bits the defines would only turn open() into open64() and so on, and a program that
# interposes open() would no longer see the library's calls.
add_compile_definitions(_GNU_SOURCE)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
add_compile_options(-Wall -Wextra -Wshadow -Wconversion)
if(BV_WERROR)
  add_compile_options(-Werror)
endif()

# Against hostile input: the loader binds everything at once and makes its tables read-only, and
# functions with buffers notice that their return address was overwritten. Binding at once also keeps
# the loader from spilling registers, keys among them, on the stack at a first call.
if(BV_STACK_PROTECTOR)
  add_compile_options(-fstack-protector-strong)
else()
  add_compile_options(-fno-stack-protector)
endif()
add_link_options(-Wl,-z,relro -Wl,-z,now)

# Nothing is fortified, whatever the surrounding build asks for: formats that the library lets
# through, such as those with %n, would end the process. A definition given to the preprocessor alone
# comes last and has to be taken back the same way.
if("${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "-Wp,[^ ]*_FORTIFY_SOURCE")
  add_compile_options(-Wp,-U_FORTIFY_SOURCE)
else()
  add_compile_options(-U_FORTIFY_SOURCE)
endif()

# C++ that needs no C++ run-time library, which the gateway does not ship.
#
# CMake must not add that library by itself; C++ programs (the tests) get it from their own driver.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# bv_without_cxx_runtime(TARGET): has the C driver link the target. Nothing is initialised at run
# time, so -fno-threadsafe-statics leaves out no guard that is needed.
function(bv_without_cxx_runtime target)
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
endfunction()

# bv_small(TARGET): for code that waits for people and files, so that only its size counts. MIPS16
# instructions, which OpenWrt uses for the packages of machines that have them, save a third. They
# have few registers, which gcc's expensive optimisations fill with values that then go to the stack.
# Everything is bound at the start, so the stubs that MIPS has for binding later are left out.
function(bv_small target)
  target_compile_options(${target} PRIVATE -Os -ffunction-sections -fdata-sections)
  target_link_options(${target} PRIVATE -Wl,--gc-sections)
  if(BV_MIPS16)
    target_compile_options(${target} PRIVATE -mips16
      $<$<CXX_COMPILER_ID:GNU>:-fno-expensive-optimizations>)
  endif()
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
    target_link_options(${target} PRIVATE "-Wl,-T,${PROJECT_SOURCE_DIR}/cmake/no-lazy-stubs.ld")
  endif()
endfunction()
