include(CheckLinkerFlag)

# Makes a shared library export only what its version script names. Hidden visibility is not enough:
# weak symbols of the standard library, such as instantiated templates, keep the default visibility
# of their headers.
#
# The script names the major version as @PROJECT_VERSION_MAJOR@.
function(zephalio_export_only target script)
  if(zephalio_library_type STREQUAL "STATIC")
    return()
  endif()
  set(versioned ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  configure_file(${script} ${versioned} @ONLY)
  check_linker_flag(CXX "LINKER:--version-script=${versioned}" ZEPHALIO_HAS_VERSION_SCRIPTS)
  if(NOT ZEPHALIO_HAS_VERSION_SCRIPTS)
    return()
  endif()
  target_link_options(${target} PRIVATE "LINKER:--version-script=${versioned}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${versioned})
endfunction()
