# Within the tree, headers are included with their folder, so that every include shows its layer.
# Users of the library have a single flat folder instead. This function writes that folder at
# configure time: a copy of each header, in which "Data Channel/ZPKDataChannel.h" becomes
# "ZPKDataChannel.h".
#
#   zephalio_public_headers(<folder> <header>...)
#
# A changed header makes CMake configure again, which rewrites only the copies that differ.
function(zephalio_public_headers folder)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ARGN})
  file(GLOB stale "${folder}/*.h")
  foreach(header IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH header OUTPUT_VARIABLE source)
    cmake_path(GET header FILENAME name)
    file(READ "${source}" text)
    string(REGEX REPLACE "#include \"[^\"\n]*/([^/\"\n]+)\"" "#include \"\\1\"" text "${text}")
    set(present "")
    if(EXISTS "${folder}/${name}")
      file(READ "${folder}/${name}" present)
    endif()
    if(NOT text STREQUAL present)
      file(WRITE "${folder}/${name}" "${text}")
    endif()
    list(REMOVE_ITEM stale "${folder}/${name}")
  endforeach()
  if(stale)
    file(REMOVE ${stale})
  endif()
endfunction()
