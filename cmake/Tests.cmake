include(${CMAKE_CURRENT_LIST_DIR}/Skipped.cmake)

# The test programs that have concurrency tests: what the ThreadSanitizer run builds.
add_custom_target(concurrency_tests)

# The code of the tests is checked for memory errors; undefined behaviour is looked for in the libraries and the tool
# alone: instrumenting the tests for it doubles what compiling them takes. Lines and functions are what a report of a sanitizer
# names; the debugger's knowledge of each variable would be a third of what is written for the tests.
set(NORV_TEST_OPTIONS -fno-sanitize=undefined -g1)
if(NORV_MUTANTS)
  list(APPEND NORV_TEST_OPTIONS -w) # some compile sources of the libraries, which are no longer as anyone wrote them
endif()

# What nearly every test includes, compiled once. A program, since the header has to be compiled as programs are.
add_executable(norvtest_precompiled ${PROJECT_SOURCE_DIR}/tests/support/Precompiled.cpp)
set_target_properties(norvtest_precompiled PROPERTIES CXX_VISIBILITY_PRESET default VISIBILITY_INLINES_HIDDEN OFF)
target_link_libraries(norvtest_precompiled PRIVATE norv_warnings norvcmsg GTest::gmock GTest::gtest)
target_compile_options(norvtest_precompiled PRIVATE ${NORV_TEST_OPTIONS})
target_precompile_headers(norvtest_precompiled PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/Precompiled.h)

# Where the checkout and the programs are: the one source that knows.
add_library(norvtest_places STATIC ${PROJECT_SOURCE_DIR}/tests/support/Places.cpp)
target_include_directories(norvtest_places PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(norvtest_places PRIVATE norv_warnings)
target_compile_definitions(norvtest_places PRIVATE NORV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                                   NORV_PROGRAM_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")

# norv_test(NAME SOURCES... [LIBRARIES ...] [LABELS ...] [WHOLE]): one test executable, its suites discovered when it is built and
# run in a process each: a process for each test would spend half the time on starting sanitized programs. WHOLE runs all in
# one process, for suites that share what takes long to make.
# Tests are run without a terminal and with standard input closed (scripts/test sees to it), so that nothing can prompt.
function(norv_test name)
  cmake_parse_arguments(ARG "WHOLE" "" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  # Functions that a test defines to stand in for a library's must be seen by the libraries.
  set_target_properties(${name} PROPERTIES CXX_VISIBILITY_PRESET default VISIBILITY_INLINES_HIDDEN OFF)
  if(NORV_MUTANTS) # begins each mutant in a process of its own
    set(main norvmutants_main)
  else()
    set(main GTest::gtest_main)
  endif()
  target_link_libraries(${name} PRIVATE norv_warnings norvtest_places ${ARG_LIBRARIES} GTest::gmock GTest::gtest ${main})
  target_compile_options(${name} PRIVATE ${NORV_TEST_OPTIONS})
  target_precompile_headers(${name} REUSE_FROM norvtest_precompiled)
  foreach(source IN LISTS ARG_SOURCES)
    file(STRINGS ${source} concurrency REGEX "TEST.*Concurrency" LIMIT_COUNT 1)
    if(concurrency)
      add_dependencies(concurrency_tests ${name})
    endif()
  endforeach()
  if(ARG_WHOLE)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 600 COST 60 LABELS "${ARG_LABELS}" # long ones begin first
                                    SKIP_REGULAR_EXPRESSION "${NORV_SKIPPED}")
  else()
    set(suites ${CMAKE_CURRENT_BINARY_DIR}/${name}_suites.cmake)
    add_custom_command(TARGET ${name} POST_BUILD VERBATIM BYPRODUCTS ${suites}
                       COMMAND ${CMAKE_COMMAND} -D PROGRAM=$<TARGET_FILE:${name}> -D FILE=${suites} -D TIMEOUT=600
                               -D "LABELS=${ARG_LABELS}"
                               -P ${PROJECT_SOURCE_DIR}/cmake/DiscoverSuites.cmake)
    # A program that was not built yet is a test that fails, so that it is missed.
    file(WRITE ${suites}.include "if(EXISTS [[${suites}]])\n  include([[${suites}]])\nelse()\n"
                                 "  add_test([[${name}_NOT_BUILT]] [[${name}_NOT_BUILT]])\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${suites}.include)
  endif()
endfunction()

# norv_test_folder(NAME FOLDER [LIBRARIES ...] [LABELS ...] [PREFIX ...] [WHOLE ...]): the test files of a folder as one program,
# and each file of its folder "alone" as a program of its own: files that stand in for functions of a library, need a
# process in which nothing has started, or run threads under ThreadSanitizer. WHOLE names those of them that run in one process.
function(norv_test_folder name folder)
  cmake_parse_arguments(ARG "" "PREFIX" "LIBRARIES;LABELS;WHOLE" ${ARGN})
  file(GLOB together CONFIGURE_DEPENDS ${folder}/*Test.cpp)
  file(GLOB alone CONFIGURE_DEPENDS ${folder}/alone/*Test.cpp)
  if(together)
    norv_test(${name} SOURCES ${together} LIBRARIES ${ARG_LIBRARIES} LABELS ${ARG_LABELS})
  endif()
  foreach(source IN LISTS alone)
    get_filename_component(stem ${source} NAME_WE)
    set(whole "")
    if(stem IN_LIST ARG_WHOLE)
      set(whole WHOLE)
    endif()
    norv_test(${ARG_PREFIX}${stem} SOURCES ${source} LIBRARIES ${ARG_LIBRARIES} LABELS ${ARG_LABELS} ${whole})
  endforeach()
endfunction()
