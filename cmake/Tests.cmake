include(GoogleTest)

# The test programs that have concurrency tests: what the ThreadSanitizer run builds.
add_custom_target(concurrency_tests)

# norv_test(NAME SOURCES... [LIBRARIES ...] [LABELS ...] [WHOLE]): one test executable, its cases discovered when it is
# built. WHOLE runs them in one process, for suites that share what takes long to make.
# Tests are run without a terminal and with standard input closed (scripts/test sees to it), so that nothing can prompt.
function(norv_test name)
  cmake_parse_arguments(ARG "WHOLE" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  # Functions that a test defines to stand in for a library's must be seen by the libraries.
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET default VISIBILITY_INLINES_HIDDEN OFF)
  target_link_libraries(${name} PRIVATE norv_warnings ${ARG_LIBRARIES} GTest::gmock GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE NORV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                             NORV_BINARY_DIR="${PROJECT_BINARY_DIR}")
  foreach(source IN LISTS ARG_SOURCES)
    file(STRINGS ${source} concurrency REGEX "TEST.*Concurrency" LIMIT_COUNT 1)
    if(concurrency)
      add_dependencies(concurrency_tests ${name})
    endif()
  endforeach()
  if(ARG_WHOLE)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS "${ARG_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 PROPERTIES TIMEOUT 300 LABELS "${ARG_LABELS}")
  endif()
endfunction()
