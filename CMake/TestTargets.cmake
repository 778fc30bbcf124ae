# How programs that only test are compiled. What they test is compiled as it ships.

# Nearly all tests need these.
set(zephalio_test_headers <gmock/gmock.h> <gtest/gtest.h>
  <algorithm> <chrono> <filesystem> <functional> <future> <random> <sstream> <thread>)

# The tests themselves compile in half the time without optimisation, and without the false alarms
# that g++ 12's optimiser raises in its own headers.
set(zephalio_test_options -O0)
# The library is what must have no undefined behaviour. To look for it in the tests too, mostly in
# templates of GoogleTest, would take half as long again to compile.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=[a-z,]*undefined")
  list(APPEND zephalio_test_options -fno-sanitize=undefined)
endif()

function(zephalio_compile_tests target)
  target_compile_options(${target} PRIVATE ${zephalio_test_options})
  zephalio_precompile(${target} ${zephalio_test_headers})
endfunction()

# Compiles eight sources as one where the libraries' headers are precompiled too, in half the time.
# Elsewhere one source that changes would take seven others with it.
function(zephalio_join_sources target)
  if(ZEPHALIO_PRECOMPILE)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
  endif()
endfunction()
