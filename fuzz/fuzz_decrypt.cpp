// Enveloped structures: outlined, decoded from a stream and decrypted with one key for whoever is named, so that
// mutations reach the cipher. The corpus is encrypted for that key.
#include "Driver.h"
#include "EnvelopeKey.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeOutline.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// Answers every question with one pair.
class OneKey : public NVX509::KeyStorePlugin {
public:
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/,
                                    const ASN1::Integer& /*serial*/) override {
        return m_pair;
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& /*address*/) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& /*address*/) override { return m_pair; }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override { return m_pair; }

private:
    static NVX509::KeyCertificatePair pair() {
        const norvauthority::Identity identity = fuzz::envelopeIdentity();
        return {RefKey(new PrivateKey(identity.key.newReference())),
                NVX509::CertificateFactory()(identity.certificate.x509().release(), true)};
    }
    NVX509::KeyCertificatePair m_pair = pair();
};

NVX509::RefKeyStore makeStore() {
    NVX509::RefKeyStore store(true);
    store->add(NVX509::RefKeyStorePlugin(new OneKey));
    return store;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::start();
    static const NVX509::RefKeyStore keys = makeStore();
    return fuzz::run(data, size, [](const Buffer& input) {
        const CMS::EnvelopeOutline outline(input);
        const Buffer readable = outline.readable(input);
        if (outline.isReadable() != (readable.length() != 0) ||
            (outline.kind() == CMS::EnvelopeOutline::Damaged && !outline.unsupported().empty())) {
            std::abort();
        }
        MemoryMediaIn source(outline.isReadable() ? readable : input);
        CMS::DecrypterMediaIn decrypter(source, keys);
        NullMediaOut out;
        decrypter.write(out);
        if (decrypter.succeeded().size() > 1 || decrypter.decryptionSucceeded() == decrypter.succeeded().empty()) {
            std::abort();
        }
        for (const auto& failed : decrypter.failed()) {
            static_cast<void>(failed.issuer()->asString());
            static_cast<void>(failed.serialNumber()->hex());
        }
    });
}
