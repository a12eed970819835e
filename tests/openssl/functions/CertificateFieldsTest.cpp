// Usages and what a certificate says of authority, where its other extensions are damaged and OpenSSL keeps its answers to itself.
#include "openssl/CertificateFields.h"

#include <authority/Authority.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace norvauthority;
namespace openssl = Norvane::Crypto::openssl;

const Key& key() {
    static const Key shared = Key::ec();
    return shared;
}

/// A certificate with these extensions and one that does not decode.
X509Ptr damaged(std::vector<Extension> extensions) {
    extensions.push_back({.oid = "2.5.29.19", .value = fromHex("0500")});
    return issue({.subject = {{"CN", "Damaged"}}, .key = key(), .extensions = extensions}).certificate.x509();
}

Extension usage(const char* bits) {
    return {.oid = "2.5.29.15", .value = fromHex(bits)};
}

// RFC 5280, 4.2.1.3: bit 0 is the highest of the first octet; decipherOnly stands in the second one.
TEST(CertificateFields, KeyUsageIsReadBesideDamage) {
    struct Row {
        const char* bits;
        unsigned long expected;
    };
    for (const Row& row : {Row{"030100", 0}, Row{"03020780", 0x80}, Row{"03020001", 0x01}, Row{"0303070080", 0x8000},
                           Row{"030307A280", 0x80A2}}) {
        const X509Ptr certificate = damaged({usage(row.bits)});
        ASSERT_NE(X509_get_extension_flags(certificate.get()) & EXFLAG_INVALID, 0U);
        ERR_clear_error();
        EXPECT_EQ(openssl::keyUsageBits(certificate.get()), row.expected) << row.bits;
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
    EXPECT_EQ(openssl::keyUsageBits(damaged({}).get()), 0U);
    EXPECT_EQ(openssl::keyUsageBits(nullptr), 0U);
}

TEST(CertificateFields, ExtendedKeyUsageIsReadBesideDamage) {
    const auto purposes = [](const std::vector<std::string>& identifiers) {
        std::vector<Bytes> parts;
        for (const std::string& identifier : identifiers) {
            parts.push_back(der::oid(identifier));
        }
        return Extension{.oid = "2.5.29.37", .value = der::sequence(parts)};
    };
    EXPECT_EQ(openssl::extendedKeyUsageBits(damaged({purposes({"1.2.3.4"})}).get()), 0U);
    EXPECT_EQ(openssl::extendedKeyUsageBits(damaged({purposes({"serverAuth"})}).get()), XKU_SSL_SERVER);
    EXPECT_EQ(openssl::extendedKeyUsageBits(
                  damaged({purposes({"1.2.3.4", "emailProtection", "1.2.3.5", "clientAuth"})}).get()),
              XKU_SMIME | XKU_SSL_CLIENT);
    EXPECT_EQ(openssl::extendedKeyUsageBits(damaged({purposes({"codeSigning", "msSGC"})}).get()),
              XKU_CODE_SIGN | XKU_SGC);
    EXPECT_EQ(openssl::extendedKeyUsageBits(
                  damaged({purposes({"nsSGC", "OCSPSigning", "timeStamping", "DVCS", "anyExtendedKeyUsage"})}).get()),
              XKU_SGC | XKU_OCSP_SIGN | XKU_TIMESTAMP | XKU_DVCS | XKU_ANYEKU);
    EXPECT_EQ(openssl::extendedKeyUsageBits(damaged({}).get()), 0U);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(CertificateFields, WhatACertificateSaysOfAuthority) {
    const auto facts = [](const CertificateRequest& request) {
        return openssl::authorityFacts(issue(request).certificate.x509().get());
    };
    struct Row {
        std::optional<bool> ca;
        std::optional<unsigned int> usage;
    };
    for (const Row& row :
         {Row{{}, {}}, Row{false, {}}, Row{true, {}}, Row{{}, 0x80U}, Row{false, 0x80U}, Row{true, 0x06U}}) {
        const auto found = facts({.subject = {{"CN", "Authority"}}, .key = key(), .ca = row.ca, .keyUsage = row.usage});
        const auto [constraints, authority, restricted] = found;
        EXPECT_EQ(constraints, row.ca.has_value());
        EXPECT_EQ(authority, row.ca.value_or(false));
        EXPECT_EQ(restricted, row.usage.has_value());
    }
    const auto [constraints, authority, restricted] = openssl::authorityFacts(nullptr);
    EXPECT_FALSE(constraints || authority || restricted);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

} // namespace
