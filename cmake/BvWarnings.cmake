# Warnings and definitions that every target of this tree is built with.
#
# 64-bit file offsets and times on every C library: musl, the target's, has nothing else, and a
# 32-bit glibc build would otherwise disagree with its callers about struct stat and timeval.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
add_compile_options(-Wall -Wextra -Wshadow -Wconversion)
if(BV_WERROR)
  add_compile_options(-Werror)
endif()
