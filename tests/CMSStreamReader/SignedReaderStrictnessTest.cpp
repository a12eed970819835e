// What OpenSSL's decoder refuses in a signer is refused by the reader that takes messages apart itself.
#include "support/SignedMessages.h"

namespace {

using namespace cmstest;

bool decodes(const Bytes& message) {
    const unsigned char* at = message.data();
    const CmsStructure decoded(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(message.size())));
    ERR_clear_error();
    return decoded != nullptr;
}

bool isGood(const Bytes& message) {
    try {
        Norvane::MemoryMediaIn in(bufferOf(message));
        CMS::SignedReader reader(in);
        Norvane::NullMediaOut out;
        reader.write(out);
        return reader.report().allGood();
    } catch (const Norvane::Exception&) {
        return false;
    }
}

TEST(SignedReaderStrictness, RefusesSerialNumbersWithPadding) {
    HandMadeSigner signer;
    const Bytes body = bodyOf(50);
    EXPECT_TRUE(isGood(attachedBy(signer, body)));
    signer.name = der::sequence({identities().authority.name.der(), Bytes{0x02, 0x04, 0x00, 0x0A, 0x11, 0xCE}});
    EXPECT_FALSE(decodes(attachedBy(signer, body)));
    EXPECT_FALSE(isGood(attachedBy(signer, body)));
}

TEST(SignedReaderStrictness, RefusesMaskAlgorithmsThatDoNotDecode) {
    const auto schemeWith = [](const Bytes& null) {
        const Bytes sha256 = der::sequence({der::oid("SHA256"), der::null()});
        const Bytes mask = der::sequence({der::oid("1.2.840.113549.1.1.8"), der::sequence({der::oid("SHA256"), null})});
        return der::sequence(
            {der::oid("1.2.840.113549.1.1.10"), der::sequence({der::element(0xA0, sha256), der::element(0xA1, mask),
                                                               der::element(0xA2, der::integer("20"))})});
    };
    const Bytes body = bodyOf(50);
    const Bytes good = [&] {
        const Bytes made = signedMessage({&identities().rsa}, {"SHA256"}, body, CMS_NOATTR, [](CMS_SignerInfo* signer) {
            EVP_PKEY_CTX_set_rsa_padding(CMS_SignerInfo_get0_pkey_ctx(signer), RSA_PKCS1_PSS_PADDING);
            EVP_PKEY_CTX_set_rsa_pss_saltlen(CMS_SignerInfo_get0_pkey_ctx(signer), 32);
        });
        return made;
    }();
    EXPECT_TRUE(isGood(good));
    const Bytes sound = schemeWith(der::null());
    const Bytes damaged = schemeWith({0x25, 0x00});
    Bytes changed = good;
    const auto found = std::search(changed.begin(), changed.end(), sound.begin(), sound.end());
    ASSERT_NE(found, changed.end());
    std::copy(damaged.begin(), damaged.end(), found);
    EXPECT_FALSE(isGood(changed));
}

} // namespace
