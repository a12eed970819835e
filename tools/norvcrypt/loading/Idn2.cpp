// The functions of libidn2 that libnorvcrypto-trust calls.

#include "loading/Library.h"

#include <idn2.h>

namespace {
constexpr norvcrypt::Library idn2("libidn2.so.0");
} // namespace

extern "C" {

NORV_LOADED(idn2, int, idn2_to_ascii_8z, (const char* text, char** out, int flags), (text, out, flags))
NORV_LOADED(idn2, void, idn2_free, (void* memory), (memory))

} // extern "C"
