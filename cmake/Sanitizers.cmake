# Instrumentation: sanitizers for the whole tree, coverage for the libraries.
if(NORV_SANITIZE)
  add_compile_options(-fsanitize=${NORV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NORV_SANITIZE})
endif()
if(NOT "${NORV_COVERAGE}" STREQUAL OFF)
  add_link_options(--coverage)
endif()

# norv_measured(TARGET...): what scripts/coverage measures and scripts/mutate changes. Under scripts/coverage tests are compiled as in
# the test build, where a compiler cache has them; sanitizers are kept out of these, since each of their checks would count as a branch.
# NORV_COVERAGE may be a regular expression, too: sources that it does not fit are left as in the test build, and so are the sanitizers.
function(norv_measured)
  foreach(target IN LISTS ARGN)
    if(NORV_MUTANTS)
      target_compile_options(${target} PRIVATE -w)
      target_link_libraries(${target} PUBLIC norvmutants)
    elseif("${NORV_COVERAGE}" STREQUAL ON)
      target_compile_options(${target} PRIVATE -g0 --coverage -fprofile-update=atomic -fno-sanitize=all)
    elseif(NOT "${NORV_COVERAGE}" STREQUAL OFF)
      get_target_property(sources ${target} SOURCES)
      list(FILTER sources INCLUDE REGEX "${PROJECT_SOURCE_DIR}/(${NORV_COVERAGE})")
      set_property(SOURCE ${sources} APPEND PROPERTY COMPILE_OPTIONS --coverage -fprofile-update=atomic)
    endif()
  endforeach()
endfunction()

# norv_measured_sources(SOURCES...): likewise for sources of the libraries that a test compiles into itself.
function(norv_measured_sources)
  if("${NORV_COVERAGE}" STREQUAL ON)
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -g0 --coverage -fprofile-update=atomic -fno-sanitize=all)
    set_property(SOURCE ${ARGN} PROPERTY SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()
