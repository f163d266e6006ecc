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
