# The warnings of our own code, all of them errors. Linked privately, so that no installed target carries them.
add_library(norv_warnings INTERFACE)
target_compile_options(norv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
# GCC 12 sees overlapping copies in plain string concatenation at -O3 (its bug 105651).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(norv_warnings INTERFACE -Wno-restrict)
endif()
