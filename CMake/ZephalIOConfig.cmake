include("${CMAKE_CURRENT_LIST_DIR}/ZephalLoggingTargets.cmake")
include("${CMAKE_CURRENT_LIST_DIR}/ZephalIOTargets.cmake")
