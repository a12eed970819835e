// Whether a key is what is needed.

#include "openssl/KeyComparison.h"

#include <authority/Authority.h>

#include <gtest/gtest.h>

#include <openssl/err.h>

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

} // namespace
