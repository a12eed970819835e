# The warnings of our own code, all of them errors: but for compilers that nobody here has tried. Linked privately, so that no
# installed target carries them.
option(NORV_WARNINGS_AS_ERRORS "Let no warning pass" ON)
add_library(norv_warnings INTERFACE)
target_compile_options(norv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(NORV_WARNINGS_AS_ERRORS)
  target_compile_options(norv_warnings INTERFACE -Werror)
endif()
# GCC 12 sees overlapping copies in plain string concatenation at -O3 (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(norv_warnings INTERFACE -Wno-restrict)
endif()
