# Inside the tree a header is included by its folder, so that every include shows its layer. A user
# of the library has one flat folder instead. This writes that folder at configure time: a copy of
# each header, in which "Data Channel/ZPKDataChannel.h" has become "ZPKDataChannel.h".
#
#   zephalio_public_headers(<folder> <header>...)
#
# Configuring runs again when a header changes, and touches only the copies that come out different.
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
