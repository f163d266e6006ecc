# Where tools/target/setup keeps compilers and sysroots; the same rule as in tools/target/cache.sh.
if(NOT BV_TARGET_CACHE)
  if(DEFINED ENV{BV_TARGET_CACHE})
    set(BV_TARGET_CACHE "$ENV{BV_TARGET_CACHE}")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(BV_TARGET_CACHE "$ENV{XDG_CACHE_HOME}/libbv-target")
  else()
    set(BV_TARGET_CACHE "$ENV{HOME}/.cache/libbv-target")
  endif()
endif()
# try_compile() runs the toolchain file again in a project of its own: hand the variable on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BV_TARGET_CACHE)
