# SPDX-License-Identifier: ISC
# The static library: one object file in which only the published names are global, so that a
# service may have functions of the same names as the library's inner ones.

# bv_add_static_library(NAME NAMES-FILE SOURCE...): NAME is the library, NAME_objects compiles it.
# Functions keep sections of their own: --gc-sections leaves out of a program what it does not use. objcopy
# cannot make names local in an object for link-time optimisation.
function(bv_add_static_library name names)
  add_library(${name}_objects OBJECT ${ARGN})
  target_compile_options(${name}_objects PRIVATE -ffunction-sections -fdata-sections -fno-lto)
  set(object "${CMAKE_CURRENT_BINARY_DIR}/${name}.o")
  add_custom_command(OUTPUT "${object}"
    COMMAND ${CMAKE_C_COMPILER} -r -nostdlib -Wl,--force-group-allocation -o "${object}"
            "$<TARGET_OBJECTS:${name}_objects>"
    COMMAND ${CMAKE_OBJCOPY} "--keep-global-symbols=${names}" "${object}"
    DEPENDS ${name}_objects "$<TARGET_OBJECTS:${name}_objects>" "${names}"
    COMMAND_EXPAND_LISTS VERBATIM)
  add_library(${name} STATIC "${object}")
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE C)
endfunction()
