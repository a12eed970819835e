# The warnings of our own code, all of them errors. Linked privately, so that no installed target carries them.
add_library(norv_warnings INTERFACE)
target_compile_options(norv_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
