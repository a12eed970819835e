// Whether a key is what is needed.

#include "openssl/KeyComparison.h"
#include "openssl/Pointers.h"

#include <authority/Authority.h>

#include <gtest/gtest.h>

#include <openssl/err.h>

#include <algorithm>

namespace {

using norvauthority::Key;
using namespace Norvane::Crypto::openssl;

TEST(KeyComparison, CertificatesAndTheirKeys) {
    const auto identity = norvauthority::issue({.subject = {{"CN", "One"}}, .key = Key::ec()});
    const auto certificate = identity.certificate.x509();
    EXPECT_TRUE(keyMatchesCertificate(certificate.get(), identity.key.get()));
    EXPECT_FALSE(keyMatchesCertificate(certificate.get(), Key::ec().get()));
    EXPECT_FALSE(keyMatchesCertificate(certificate.get(), nullptr));
    EXPECT_FALSE(keyMatchesCertificate(nullptr, identity.key.get()));
    EXPECT_FALSE(keyMatchesCertificate(nullptr, nullptr));
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(KeyComparison, TypesOfKeys) {
    EXPECT_TRUE(isOfType(Key::ec().get(), "EC"));
    EXPECT_FALSE(isOfType(Key::ec().get(), "RSA"));
    EXPECT_FALSE(isOfType(Key::ec().get(), "no type"));
    EXPECT_FALSE(isOfType(nullptr, "EC"));
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(KeyComparison, KeysThatDecode) {
    const auto identity = norvauthority::issue({.subject = {{"CN", "One"}}, .key = Key::ec()});
    const auto certificate = identity.certificate.x509();
    EXPECT_TRUE(keyDecodesNow(certificate.get()));
    norvauthority::Bytes der = identity.certificate.der;
    const auto point = std::ranges::search(der, identity.key.publicDer()).begin();
    ASSERT_NE(point, der.end());
    point[static_cast<std::ptrdiff_t>(identity.key.publicDer().size()) - 1] ^= 1U; // no point of the curve any more
    const unsigned char* at = der.data();
    const CertificatePtr changed(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
    ASSERT_NE(changed, nullptr);
    EXPECT_EQ(X509_get0_pubkey(changed.get()), nullptr);
    ERR_clear_error();
    EXPECT_FALSE(keyDecodesNow(changed.get()));
    EXPECT_EQ(ERR_peek_error(), 0U);
}

} // namespace
