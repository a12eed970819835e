// The tool's own start of OpenSSL, in the place of the library's.
#include "openssl/Start.h"
#include "Platform.h"
#include "Providers.h"

/// The random generator starts when something is drawn from it, which verifying and looking at things never do: starting it takes
/// a tenth of a short run.
int openssl_init_with_rng() {
    return Norvane::Crypto::platform::loadProviders() ? 1 : 0;
}

void norvcrypt::startFor(std::string_view command) {
    if (command == "sign") {
        Norvane::Crypto::platform::loadDefaultProvider();
    } else if (command == "verify") {
        Norvane::Crypto::platform::loadProviders();
    } else {
        needAllAlgorithms();
    }
}
