bv_sources(
  sha256_block.cpp sha2.cpp pbkdf2.cpp digest.cpp
  aes.cpp aes_file.cpp
  crc.cpp random.cpp)

# The two inner loops are built alike whatever the build type: -Os would cost a third of their
# speed. Vectors of four words cost more to fill than they save in a chain of dependent rounds,
# and the gateway has no vector unit anyway.
set_source_files_properties(
  ${CMAKE_CURRENT_LIST_DIR}/sha256_block.cpp ${CMAKE_CURRENT_LIST_DIR}/crc.cpp
  PROPERTIES COMPILE_OPTIONS "-O2;-fno-tree-vectorize;-fno-tree-slp-vectorize")
# Saves GCC a few dozen register copies a block.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/sha256_block.cpp
    APPEND PROPERTY COMPILE_OPTIONS "-frename-registers")
endif()
