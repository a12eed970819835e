// The tool's own start of OpenSSL, in the place of the library's.
#include "openssl/Start.h"
#include "Platform.h"
#include "Providers.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>
#include <cstring>

/// The random generator starts when something is drawn from it, which verifying and looking at things never do: starting it takes
/// a tenth of a short run.
int openssl_init_with_rng() {
    return Norvane::Crypto::platform::loadProviders() ? 1 : 0;
}

void norvcrypt::needOlderAlgorithms() {
    Norvane::Crypto::platform::loadProviders();
}

bool norvcrypt::mayNameLegacyDigest(const Norvane::Buffer& structure) {
    // Those that any release of OpenSSL 3 has there, and the signatures that mean one of them; nothing else of that provider
    // is asked for by a signature.
    static constexpr std::array digests{NID_md2,
                                        NID_md4,
                                        NID_mdc2,
                                        NID_ripemd160,
                                        NID_whirlpool,
                                        NID_md2WithRSAEncryption,
                                        NID_md4WithRSAEncryption,
                                        NID_mdc2WithRSA,
                                        NID_ripemd160WithRSA};
    return std::ranges::any_of(digests, [&](int nid) {
        const ASN1_OBJECT* const identifier = OBJ_nid2obj(nid);
        return memmem(structure.data(), structure.length(), OBJ_get0_data(identifier), OBJ_length(identifier)) !=
               nullptr;
    });
}

void norvcrypt::startFor(std::string_view command) {
    if (command == "sign" || command == "verify") {
        Norvane::Crypto::platform::loadDefaultProvider();
    } else {
        needAllAlgorithms();
    }
}
