#include "Gmime.h"

namespace Norvane::Crypto::SMime::mime {

void startGmime() {
    // No std::call_once: through its frame of C nothing can be thrown in a program that carries its own unwinder, as the
    // tool's stand-in for this function does where GMime is not installed.
    [[maybe_unused]] static const bool started = [] {
        g_mime_init();
        return true;
    }();
}

} // namespace Norvane::Crypto::SMime::mime
