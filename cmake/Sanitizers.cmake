# Instrumentation of the whole tree: sanitizers and coverage.
if(NORV_SANITIZE)
  add_compile_options(-fsanitize=${NORV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${NORV_SANITIZE})
endif()
if(NORV_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
