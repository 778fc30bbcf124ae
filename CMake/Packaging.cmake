# The exported package, find_package(ZephalIO), and the pkg-config files.
include(CMakePackageConfigHelpers)

set(zephalio_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ZephalIO)

# The prefix as seen from the pkg-config file, so that an installed tree can be moved.
set(pkgconfig_folder /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(zephalio_prefix_from_pc /prefix)
cmake_path(RELATIVE_PATH zephalio_prefix_from_pc BASE_DIRECTORY ${pkgconfig_folder})

function(zephalio_install_pkgconfig name description)
  string(REPLACE ";" " " requires "${ARGN}")
  configure_file(${PROJECT_SOURCE_DIR}/CMake/Library.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

function(zephalio_install_package)
  install(EXPORT ZephalLoggingTargets NAMESPACE ZephalLogging::
          DESTINATION ${zephalio_package_folder})
  install(EXPORT ZephalIOTargets NAMESPACE ZephalIO:: DESTINATION ${zephalio_package_folder})
  write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/ZephalIOConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_SOURCE_DIR}/CMake/ZephalIOConfig.cmake
                ${PROJECT_BINARY_DIR}/ZephalIOConfigVersion.cmake
          DESTINATION ${zephalio_package_folder})
endfunction()
