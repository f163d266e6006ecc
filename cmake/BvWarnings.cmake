# Warnings and definitions that every target of this tree is built with.
#
# 64-bit file offsets and times on every C library: musl, the target's, has nothing else, and a
# 32-bit glibc build would otherwise disagree with its callers about struct stat and timeval. Where
# a long has 64 bits the defines would only turn open() into open64() and so on, and whoever puts
# an open() of his own in front of the library's would wait for its calls in vain.
add_compile_definitions(_GNU_SOURCE)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
add_compile_options(-Wall -Wextra -Wshadow -Wconversion)
if(BV_WERROR)
  add_compile_options(-Werror)
endif()
