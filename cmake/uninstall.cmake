# SPDX-License-Identifier: ISC
# Removes what the last `cmake --install` of this build tree put somewhere, and the folders that are
# empty then. DESTDIR must be as it was.
if(NOT EXISTS install_manifest.txt)
  message(FATAL_ERROR "Nothing was installed from here: there is no install_manifest.txt")
endif()
file(STRINGS install_manifest.txt files)
set(folders "")
foreach(file IN LISTS files)
  set(file "$ENV{DESTDIR}${file}")
  if(EXISTS "${file}" OR IS_SYMLINK "${file}")
    message(STATUS "Removing ${file}")
    file(REMOVE "${file}")
    if(EXISTS "${file}" OR IS_SYMLINK "${file}")
      message(FATAL_ERROR "${file} could not be removed")
    endif()
  endif()
  get_filename_component(folder "${file}" DIRECTORY)
  while(folder MATCHES "bv") # the shared ones stay: bin, lib, man3 ...
    list(APPEND folders "${folder}")
    get_filename_component(folder "${folder}" DIRECTORY)
  endwhile()
endforeach()
list(REMOVE_DUPLICATES folders)
list(SORT folders ORDER DESCENDING) # the deepest first
foreach(folder IN LISTS folders)
  execute_process(COMMAND rmdir "${folder}" ERROR_QUIET)
endforeach()
file(REMOVE install_manifest.txt)
