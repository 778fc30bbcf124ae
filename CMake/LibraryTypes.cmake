# The library is built in each of zephalio_installed_types from one list of sources. Its target has
# the library's own name; if static ones are built too, theirs is <name>Static. Only this tree sees
# that name: installed, both kinds have the same one, and a program asks for a kind by a component of
# find_package.
#
#   zephalio_library_targets(<variable> <name>)  puts the targets into <variable>
function(zephalio_library_targets variable name)
  set(targets ${name})
  if("SHARED" IN_LIST zephalio_installed_types AND "STATIC" IN_LIST zephalio_installed_types)
    list(APPEND targets ${name}Static)
  endif()
  set(${variable} ${targets} PARENT_SCOPE)
endfunction()

# Adds the targets and names what they produce. Programs link the library as <alias>, which is
# <namespace>::<exported name>.
function(zephalio_add_library name alias)
  add_library(${name} ${zephalio_library_type} ${ARGN})
  add_library(${alias} ALIAS ${name})
  zephalio_library_targets(targets ${name})
  if(${name}Static IN_LIST targets)
    add_library(${name}Static STATIC ${ARGN})
  endif()
  string(REGEX REPLACE ".*::" "" exported ${alias})
  set_target_properties(${targets} PROPERTIES EXPORT_NAME ${exported} OUTPUT_NAME ${name})
endfunction()

# Each kind has an export set of its own, named after the kind.
function(zephalio_install_library name)
  zephalio_library_targets(targets ${name})
  foreach(target type IN ZIP_LISTS targets zephalio_installed_types)
    install(TARGETS ${target} EXPORT ${name}${type})
  endforeach()
  install(DIRECTORY ${PROJECT_BINARY_DIR}/include/${name} TYPE INCLUDE)
endfunction()
