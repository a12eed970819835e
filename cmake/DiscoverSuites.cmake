# Run when a test program has been built: cmake -D PROGRAM=... -D FILE=... -D TIMEOUT=... -D LABELS=... -P DiscoverSuites.cmake
# Writes into FILE one ctest entry for each suite of the program.
include(${CMAKE_CURRENT_LIST_DIR}/Skipped.cmake)
execute_process(COMMAND ${PROGRAM} --gtest_list_tests OUTPUT_VARIABLE listed RESULT_VARIABLE result INPUT_FILE /dev/null)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} --gtest_list_tests: ${result}\n${listed}")
endif()
get_filename_component(program ${PROGRAM} NAME)
string(REGEX MATCHALL "\n[A-Za-z0-9_/]+\\." suites "\n${listed}")
if(NOT suites)
  message(FATAL_ERROR "${PROGRAM} has no tests:\n${listed}")
endif()
set(entries "")
foreach(suite IN LISTS suites)
  string(REGEX REPLACE "[\n.]" "" suite ${suite})
  string(APPEND entries "add_test([[${program}.${suite}]] [[${PROGRAM}]] [[--gtest_filter=${suite}.*]])\n"
                        "set_tests_properties([[${program}.${suite}]] PROPERTIES TIMEOUT ${TIMEOUT} LABELS [[${LABELS}]]\n"
                        "  SKIP_REGULAR_EXPRESSION [=[${NORV_SKIPPED}]=])\n")
endforeach()
file(WRITE ${FILE} "${entries}")
