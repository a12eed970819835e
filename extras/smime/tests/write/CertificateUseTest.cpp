// Whether a certificate may be used, and the digest that suits its key.

#include "write/CertificateUse.h"
#include "Writing.h"

#include <algorithm>

namespace {

using namespace smimetest;
using SMime::writing::hasRsaKey;
using SMime::writing::requireUsable;
using SMime::writing::suitableDigest;
using SMime::writing::Use;

norvauthority::Key generated(const char* type) {
    struct ContextFreeing {
        void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    };
    const std::unique_ptr<EVP_PKEY_CTX, ContextFreeing> context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* made = nullptr;
    EXPECT_EQ(EVP_PKEY_keygen_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_generate(context.get(), &made), 1) << type;
    const std::unique_ptr<EVP_PKEY, norvauthority::Freeing> freed(made);
    return norvauthority::Key::of(made);
}

/// A certificate, and one whose key is of an algorithm that nobody has heard of.
NVX509::RefCertificate certified(const norvauthority::CertificateRequest& request) {
    return certificateOf(norvauthority::issue(request));
}
NVX509::RefCertificate withUnknownKey() {
    norvauthority::Identity identity =
        norvauthority::issue({.subject = {{"CN", "odd"}}, .key = norvauthority::Key::ec(), .issuer = &root()});
    norvauthority::Bytes& der = identity.certificate.der;
    const norvauthority::Bytes publicKey{0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01}; // id-ecPublicKey (RFC 5480, 2.1.1)
    const auto found = std::ranges::search(der, publicKey);
    EXPECT_FALSE(found.empty());
    found.back() = 0x7f;
    return certificateOf(identity);
}

std::string refusalOf(const NVX509::RefCertificate& certificate, Use use, std::time_t at = std::time(nullptr)) {
    return refusal([&] { requireUsable(certificate, use, at); });
}

TEST(SmimeCertificateUseTest, CertificatesAreValidFromTheirFirstSecondToTheirLast) {
    const auto certificate = certified({.subject = {{"CN", "short"}},
                                        .key = norvauthority::Key::ec(),
                                        .notBefore = norvauthority::Time::at(1767225600),
                                        .notAfter = norvauthority::Time::at(1767225601)});
    EXPECT_NO_THROW(requireUsable(certificate, Use::signing, 1767225600));
    EXPECT_NO_THROW(requireUsable(certificate, Use::signing, 1767225601));
    EXPECT_EQ(refusalOf(certificate, Use::signing, 1767225599),
              "the certificate of CN=short is not valid before 2026-01-01T00:00:00Z");
    EXPECT_EQ(refusalOf(certificate, Use::signing, 1767225602),
              "the certificate of CN=short expired on 2026-01-01T00:00:01Z");
}

TEST(SmimeCertificateUseTest, TimesThatCannotBeReadAreNotNow) {
    const auto never = certified({.subject = {{"CN", "never"}},
                                  .key = norvauthority::Key::ec(),
                                  .notBefore = norvauthority::Time::utc("26xx01000000Z")});
    EXPECT_EQ(refusalOf(never, Use::signing),
              "the certificate of CN=never is not valid before a time that cannot be read");
    const auto ever = certified(
        {.subject = {{"CN", "ever"}}, .key = norvauthority::Key::ec(), .notAfter = norvauthority::Time::utc("9")});
    EXPECT_EQ(refusalOf(ever, Use::encryption), "the certificate of CN=ever expired on a time that cannot be read");
}

TEST(SmimeCertificateUseTest, CertificatesMayHaveNoName) {
    const auto certificate = certified(
        {.key = norvauthority::Key::ec(), .issuer = &root(), .notAfter = norvauthority::Time::at(1767225600)});
    EXPECT_EQ(refusalOf(certificate, Use::signing), "a certificate without a name expired on 2026-01-01T00:00:00Z");
}

// RFC 5280, 4.2.1.3; RFC 8550, 4.4.2.
TEST(SmimeCertificateUseTest, KeyUsagesAllowWhatTheySay) {
    constexpr unsigned int digitalSignature = 0x80;
    constexpr unsigned int nonRepudiation = 0x40;
    constexpr unsigned int keyEncipherment = 0x20;
    constexpr unsigned int dataEncipherment = 0x10;
    constexpr unsigned int keyAgreement = 0x08;
    const norvauthority::Key rsa = norvauthority::Key::fromPem(norvtest::storedKeyPem("bob"));
    const norvauthority::Key pss = generated("RSA-PSS");
    const norvauthority::Key curve = norvauthority::Key::ec();
    for (const norvauthority::Key& key : {rsa, pss, curve}) {
        const bool isRsa = EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_EC;
        const unsigned int encrypts = isRsa ? keyEncipherment : keyAgreement;
        for (const unsigned int usage : {digitalSignature, nonRepudiation, keyEncipherment, dataEncipherment,
                                         keyAgreement, digitalSignature | encrypts}) {
            const auto certificate =
                certified({.subject = {{"CN", "x"}}, .key = key, .issuer = &root(), .keyUsage = usage});
            if ((usage & (digitalSignature | nonRepudiation)) != 0) {
                EXPECT_NO_THROW(requireUsable(certificate, Use::signing, std::time(nullptr))) << usage;
            } else {
                EXPECT_EQ(refusalOf(certificate, Use::signing),
                          "the certificate of CN=x does not allow signing: its key usage has neither digitalSignature "
                          "nor nonRepudiation")
                    << usage;
            }
            if ((usage & encrypts) != 0) {
                EXPECT_NO_THROW(requireUsable(certificate, Use::encryption, std::time(nullptr))) << usage;
            } else {
                EXPECT_EQ(refusalOf(certificate, Use::encryption),
                          std::string("the certificate of CN=x does not allow encryption: its key usage has no ") +
                              (isRsa ? "keyEncipherment" : "keyAgreement"))
                    << usage;
            }
        }
        const auto any = certified({.subject = {{"CN", "x"}}, .key = key, .issuer = &root()});
        EXPECT_EQ(hasRsaKey(any), isRsa);
        EXPECT_NO_THROW(requireUsable(any, Use::signing, std::time(nullptr)));
        EXPECT_NO_THROW(requireUsable(any, Use::encryption, std::time(nullptr)));
    }
}

TEST(SmimeCertificateUseTest, DigestsSuitTheirKeys) {
    const auto digestOf = [](const norvauthority::Key& key) {
        return suitableDigest(certified({.subject = {{"CN", "x"}}, .key = key, .issuer = &root()}));
    };
    using norvauthority::Key;
    EXPECT_EQ(digestOf(Key::fromPem(norvtest::storedKeyPem("bob"))), Hasher::SHA256);
    EXPECT_EQ(digestOf(Key::ec("P-224")), Hasher::SHA256);
    EXPECT_EQ(digestOf(Key::ec("P-256")), Hasher::SHA256);
    EXPECT_EQ(digestOf(Key::ec("brainpoolP320r1")), Hasher::SHA384);
    EXPECT_EQ(digestOf(Key::ec("P-384")), Hasher::SHA384);
    EXPECT_EQ(digestOf(Key::ec("brainpoolP512r1")), Hasher::SHA512);
    EXPECT_EQ(digestOf(Key::ec("P-521")), Hasher::SHA512);
    EXPECT_EQ(digestOf(Key::ed25519()), Hasher::SHA512);   // RFC 8419, 3.1
    EXPECT_EQ(digestOf(generated("ED448")), std::nullopt); // likewise: SHAKE256, which has no number
    EXPECT_EQ(suitableDigest(withUnknownKey()), std::nullopt);
}

/// What OpenSSL says meanwhile is not left for others to find, and what it said before is.
TEST(SmimeCertificateUseTest, ErrorsOfOthersStay) {
    const NVX509::RefCertificate odd = withUnknownKey();
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    const unsigned long before = ERR_peek_error();
    EXPECT_EQ(suitableDigest(odd), std::nullopt);
    EXPECT_FALSE(hasRsaKey(odd));
    EXPECT_NO_THROW(requireUsable(odd, Use::encryption, std::time(nullptr)));
    EXPECT_EQ(ERR_peek_error(), before);
    EXPECT_EQ(ERR_peek_last_error(), before);
    EXPECT_EQ(ERR_get_error(), before);
    EXPECT_EQ(ERR_get_error(), 0U);
}

TEST(SmimeCertificateUseTest, AnEmptyHandleIsRefused) {
    EXPECT_EQ(refusalOf(NVX509::RefCertificate(), Use::signing), "a certificate cannot be read");
}

} // namespace
