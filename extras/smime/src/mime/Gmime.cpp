#include "Gmime.h"

#include <mutex>

namespace Norvane::Crypto::SMime::mime {

void startGmime() {
    static std::once_flag started;
    std::call_once(started, [] { g_mime_init(); });
}

} // namespace Norvane::Crypto::SMime::mime
