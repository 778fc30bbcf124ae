# The exported package, find_package(ZephalIO), and the pkg-config files.
include(CMakePackageConfigHelpers)

set(zephalio_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ZephalIO)

# The prefix relative to the pkg-config file, so that an installed tree can be moved.
set(pkgconfig_folder /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(zephalio_prefix_from_pc /prefix)
cmake_path(RELATIVE_PATH zephalio_prefix_from_pc BASE_DIRECTORY ${pkgconfig_folder})

# `pkg-config --static` needs the names of the libraries that static ones depend on. Shared ones
# have linked these themselves, and their users need not have them installed for development.
#
# LIBRARY is the library's name if it is not that of the file, LIBS is what its users always link.
function(zephalio_install_pkgconfig name description)
  cmake_parse_arguments(PARSE_ARGV 2 "" "" "LIBRARY;LIBS;REQUIRES;STATIC_REQUIRES" "")
  set(library ${name})
  if(_LIBRARY)
    set(library ${_LIBRARY})
  endif()
  set(libs "${_LIBS}")
  set(requires "${_REQUIRES}")
  set(private_requires "")
  set(private_libs "")
  if("STATIC" IN_LIST zephalio_installed_types)
    set(private_requires "${_STATIC_REQUIRES}")
    set(private_libs "-pthread")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/CMake/Library.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

function(zephalio_install_exports library namespace)
  foreach(type IN LISTS zephalio_installed_types)
    string(TOLOWER ${type} component)
    install(EXPORT ${library}${type} NAMESPACE ${namespace}::
            FILE ${library}-${component}.cmake DESTINATION ${zephalio_package_folder})
  endforeach()
endfunction()

function(zephalio_install_package)
  zephalio_install_exports(ZephalLogging ZephalLogging)
  zephalio_install_exports(ZephalIO ZephalIO)
  if(TARGET ZephalConsole)
    zephalio_install_exports(ZephalConsole ZephalIO)
  endif()
  if(TARGET ZephalSimulator)
    install(EXPORT ZephalSimulator NAMESPACE ZephalIO::
            FILE ZephalSimulator.cmake DESTINATION ${zephalio_package_folder})
  endif()
  string(TOLOWER "${zephalio_installed_types}" zephalio_components)
  write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/ZephalIOConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  configure_file(${PROJECT_SOURCE_DIR}/CMake/ZephalIOConfig.cmake.in
                 ${PROJECT_BINARY_DIR}/ZephalIOConfig.cmake @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/ZephalIOConfig.cmake
                ${PROJECT_BINARY_DIR}/ZephalIOConfigVersion.cmake
          DESTINATION ${zephalio_package_folder})
endfunction()
