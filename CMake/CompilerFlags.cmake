# What our targets are compiled and linked with; users of the library do not inherit it.
include(CheckLinkerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# Every target. The presets make warnings errors (CMAKE_COMPILE_WARNING_AS_ERROR); without that, a
# newer compiler in somebody else's tree may warn about more without breaking the build.
add_library(zephalio_warnings INTERFACE)
target_compile_features(zephalio_warnings INTERFACE cxx_std_20)
target_compile_options(zephalio_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
  # With optimisation, g++ 12 raises these two in its own <string> and <functional>, where nothing
  # is wrong.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized -Wno-restrict>)

# What a user runs: the libraries and the programs. Executables become position-independent.
add_library(zephalio_shipped INTERFACE)
set_property(TARGET zephalio_shipped PROPERTY INTERFACE_POSITION_INDEPENDENT_CODE ON)

# The tests are compiled as in any build, so that ccache knows their objects.
if(ZEPHALIO_COUNT_COVERAGE)
  target_compile_options(zephalio_shipped INTERFACE --coverage -fprofile-update=atomic -O0)
  # A test's child process, which does not return from main, writes its counts itself.
  add_link_options(--coverage LINKER:--undefined=__gcov_dump)
endif()

# A build without a type is optimised, unless its flags set a level.
if(NOT CMAKE_CXX_FLAGS MATCHES "-O")
  target_compile_options(zephalio_shipped INTERFACE $<$<CONFIG:>:-O2>)
endif()

# The same bytes from every folder. A debugger needs the real path, so Debug keeps it.
target_compile_options(zephalio_shipped INTERFACE
  "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>"
  "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=.>")

# Hardened as a distribution's own packages are. FORTIFY would hide errors from the sanitizers, and
# without optimisation it does nothing but warn.
if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  target_compile_options(zephalio_shipped INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-fstack-protector-strong>)
  if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE|-O0" AND NOT ZEPHALIO_COUNT_COVERAGE)
    target_compile_options(zephalio_shipped INTERFACE
      "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  endif()
  check_linker_flag(CXX "LINKER:-z,relro,-z,now" ZEPHALIO_HAS_RELRO)
endif()

# Goes with zephalio_shipped, which cannot contain it: a static library would pass it on to its
# users' programs.
function(zephalio_harden_linking target)
  get_target_property(type ${target} TYPE)
  if(ZEPHALIO_HAS_RELRO AND NOT type STREQUAL "STATIC_LIBRARY")
    target_link_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:LINKER:-z,relro,-z,now>)
  endif()
endfunction()
