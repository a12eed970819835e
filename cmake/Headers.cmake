# Programs that use the library may be written in C++17 and know nothing of OpenSSL: every public header compiles for them
# on its own, twice over.
set(NORV_HEADER_SOURCES)
foreach(folder include2:norvcrypto common/include:norvcmsg extras/keystore/include:norvcrypto-keystore
               extras/trust/include:norvcrypto-trust extras/smime/include:norvcrypto-smime)
  string(REPLACE ":" ";" folder ${folder})
  list(GET folder 0 from)
  list(GET folder 1 spelled)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}/${from}" "${PROJECT_SOURCE_DIR}/${from}/*")
  foreach(header IN LISTS headers)
    set(source "${PROJECT_BINARY_DIR}/headers/${spelled}/${header}.cpp")
    file(CONFIGURE OUTPUT "${source}" @ONLY
         CONTENT "#include <@spelled@/@header@>\n#include <@spelled@/@header@> // NOLINT: a second time\n")
    list(APPEND NORV_HEADER_SOURCES "${source}")
  endforeach()
endforeach()
add_library(norv_headers OBJECT ${NORV_HEADER_SOURCES})
target_link_libraries(norv_headers PRIVATE norvcrypto norvcrypto-keystore norvcrypto-smime)
# Nothing of it is ever run: no instrumentation, no debug information.
target_compile_options(norv_headers PRIVATE -Wall -Wextra -Wpedantic -Werror -fno-sanitize=all -g0)
set_target_properties(norv_headers PROPERTIES CXX_STANDARD 17 CXX_EXTENSIONS OFF)
