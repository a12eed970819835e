// Recipients and ciphers that the encrypting stream refuses at construction.
#include "support/Envelope.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

using namespace cmstest;
using Crypto::Cipher;

namespace {

Caught constructionFailure(const std::list<NVX509::RefCertificate>& recipients) {
    const Caught failure = caught([&] { const CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, recipients); });
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSEncryptionMedia");
    EXPECT_EQ(failure.details.size(), 1U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return failure;
}

void expectRefused(const std::list<NVX509::RefCertificate>& recipients) {
    const Caught failure = constructionFailure(recipients);
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::addCertificate");
    EXPECT_EQ(failure.line, 96U);
    ASSERT_EQ(failure.details.size(), 1U);
    EXPECT_EQ(failure.details.front().substr(0, 2), "0x");
}

} // namespace

TEST(EncrypterRefusal, ARecipientWithoutACertificateIsRefused) {
    expectRefused({NVX509::RefCertificate()});
    expectRefused({certificateOf(alice()), NVX509::RefCertificate(), certificateOf(bob())});
}

TEST(EncrypterRefusal, ARecipientWithoutAnRsaKeyIsRefused) {
    expectRefused({certificateOf(identities().ec)});
    expectRefused({certificateOf(identities().dsa)});
    expectRefused({certificateOf(alice()), certificateOf(identities().ec)});
    const Identity edwards = norvauthority::issue({.subject = {{"CN", "Ed"}}, .key = norvauthority::Key::ed25519()});
    expectRefused({certificateOf(edwards)});
}

TEST(EncrypterRefusal, NobodyIsAddedOnceTheContentKeyIsEncrypted) {
    const CMS::EncrypterMediaOutImpl body(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    const Caught failure = caught([&] { body.addCertificate(certificateOf(bob())); });
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::addCertificate");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.line, 96U);
    ASSERT_EQ(failure.details.size(), 1U);
    EXPECT_NE(failure.details.front().find("called a function you should not call"), std::string::npos)
        << failure.details.front();
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(EncrypterRefusal, AKeyTooShortForTheContentKeyIsRefusedAtTheStart) {
    // 256 bits hold 21 bytes beside the padding: enough for a key of 16, not for one of 32.
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr), EVP_PKEY_CTX_free);
    Bytes modulus(32, 0xC1); // little endian on this interface, odd and of full length
    unsigned int exponent = 65537;
    OSSL_PARAM parameters[]{OSSL_PARAM_construct_BN("n", modulus.data(), modulus.size()),
                            OSSL_PARAM_construct_uint("e", &exponent), OSSL_PARAM_construct_end()};
    EVP_PKEY* key = nullptr;
    ASSERT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters), 1);
    const Identity small = norvauthority::issue(
        {.subject = {{"CN", "small"}}, .key = norvauthority::Key::of(key), .issuer = &identities().authority});
    EVP_PKEY_free(key);
    const std::list<NVX509::RefCertificate> recipients{certificateOf(small)};
    EXPECT_FALSE(CMS::EncrypterMediaOut(Crypto::AES_128_CBC, recipients).isNull());
    const Caught failure = caught([&] { const CMS::EncrypterMediaOut made(Crypto::AES_256_CBC, recipients); });
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::EncrypterMediaOutImpl");
    EXPECT_EQ(failure.line, 74U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(EncrypterRefusal, AnUnknownCipherIsRefused) {
    for (const int value : {0, 32, 418, -1}) {
        const Caught failure = caught([&] { const CMS::EncrypterMediaOut encrypter(static_cast<Cipher>(value), {}); });
        EXPECT_EQ(failure.where, "const EVP_CIPHER* Norvane::Crypto::initializeCipher(Norvane::Crypto::Cipher)");
        EXPECT_EQ(failure.line, 81U);
        EXPECT_EQ(failure.details, std::vector<std::string>{"Unsupported CIPHER value " + std::to_string(value)});
    }
}

TEST(EncrypterRefusal, ACipherThatDoesNotStartIsRefused) {
    const auto recipients = certificatesOf({&alice()});
    ASSERT_EQ(EVP_set_default_properties(nullptr, "fips=yes"), 1);
    const Caught failure = constructionFailure(recipients);
    ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::EncrypterMediaOutImpl");
    EXPECT_EQ(failure.line, 74U);
}
