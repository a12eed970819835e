# What compiler and linker do against the use of a defect that nobody found yet. Not beside sanitizers, which look for the
# defects themselves and do not go together with some of it. scripts/check-hardening looks for all of it in what was built.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

if(NOT NORV_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  # A check of sizes wherever the compiler knows them, in our code and in what it calls; it needs an optimised build.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS)
  # Returns into a stack that was overwritten, stacks that grow into other memory, calls and returns to where none lead.
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection=full -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "NORV_HAS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      add_compile_options(${flag})
    endif()
  endforeach()
  # Tables of functions are filled in at the start and read-only from then on; no stack holds code.
  add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
