# Builds for a machine of another kind with Debian's cross compiler. Scripts/check-machines passes both
# variables: ZEPHALIO_MACHINE is the machine's name as its compiler has it (s390x-linux-gnu),
# ZEPHALIO_MACHINE_ROOT a folder with the libraries that do not come with the compiler.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEPHALIO_MACHINE ZEPHALIO_MACHINE_ROOT)

string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${ZEPHALIO_MACHINE})
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${ZEPHALIO_MACHINE}-g++-12)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZEPHALIO_MACHINE})
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
  # Notes about a change of the binary interface in GCC 7, of which there are thousands.
  set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
endif()

# This machine's own libraries must not be found.
set(CMAKE_FIND_ROOT_PATH ${ZEPHALIO_MACHINE_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
