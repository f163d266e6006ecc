# What every target is built with against damage by hostile input: the loader binds everything at
# once and makes its tables read-only, and functions with buffers notice that their return address
# was overwritten. Binding at once also keeps the loader from spilling registers, keys among them, on
# the stack at a first call.
#
# Nothing is fortified, whatever the surrounding build asks for: formats that the library lets
# through, such as those with %n, would then end the process.
# What the preprocessor alone is given comes last and has to be taken back the same way.
if("${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "-Wp,[^ ]*_FORTIFY_SOURCE")
  add_compile_options(-Wp,-U_FORTIFY_SOURCE)
else()
  add_compile_options(-U_FORTIFY_SOURCE)
endif()
if(BV_STACK_PROTECTOR)
  add_compile_options(-fstack-protector-strong)
else()
  add_compile_options(-fno-stack-protector)
endif()
add_link_options(-Wl,-z,relro -Wl,-z,now)
