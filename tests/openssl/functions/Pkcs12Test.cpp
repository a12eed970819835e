// What openPkcs12 leaves behind in OpenSSL's error queue and on the certificate.
#include "openssl/Pkcs12.h"

#include "support/Pkcs12.h"

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;

const norvauthority::Identity& identity() {
    static const norvauthority::Identity made =
        norvauthority::issue({.subject = {{"CN", "Owner"}}, .key = norvauthority::Key::ec()});
    return made;
}

Pkcs12Ptr decoded(const Bytes& octets) {
    const unsigned char* at = octets.data();
    Pkcs12Ptr structure(d2i_PKCS12(nullptr, &at, static_cast<long>(octets.size())));
    EXPECT_NE(structure, nullptr);
    return structure;
}

/// A certificate and its key, not encrypted, under a friendlyName.
Pkcs12Ptr named(const std::optional<std::string>& name) {
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    const auto certificate = identity().certificate.x509();
    PKCS12_SAFEBAG* bag = PKCS12_add_cert(&bags, certificate.get());
    if (name) {
        EXPECT_EQ(PKCS12_add_friendlyname_utf8(bag, name->c_str(), static_cast<int>(name->size())), 1);
    }
    EXPECT_NE(PKCS12_add_key(&bags, identity().key.get(), 0, 1, -1, nullptr), nullptr);
    STACK_OF(PKCS7)* safes = nullptr;
    EXPECT_EQ(PKCS12_add_safe(&safes, bags, -1, 0, nullptr), 1);
    Pkcs12Ptr structure(PKCS12_add_safes(safes, 0));
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
    sk_PKCS7_pop_free(safes, PKCS7_free);
    return structure;
}

/// Opens with an entry in the error queue that has to stay, and the one mark that was set at it.
Pkcs12Opening opened(const PKCS12_st* structure, const std::string& password) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 1);
    ERR_set_mark();
    DerivationWork work;
    Pkcs12Opening opening = openPkcs12(structure, &password, work);
    EXPECT_EQ(ERR_clear_last_mark(), 1);
    EXPECT_EQ(ERR_clear_last_mark(), 0) << "a mark was left behind";
    return opening;
}

TEST(Pkcs12Functions, CertificatesHaveTheNamesOfTheirBags) {
    for (const std::optional<std::string>& name :
         {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("A"),
          std::optional<std::string>("\xC3\xA4")}) {
        const Pkcs12Opening opening = opened(named(name).get(), "");
        ASSERT_TRUE(opening.succeeded);
        ASSERT_NE(opening.found.certificate, nullptr);
        int length = -1;
        const unsigned char* alias = X509_alias_get0(opening.found.certificate.get(), &length);
        ASSERT_EQ(alias != nullptr, name.has_value());
        if (name) {
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(alias), static_cast<std::size_t>(length)), *name);
        }
    }
    ERR_clear_error();
}

TEST(Pkcs12Functions, WhatWasQueuedBeforeStaysAloneWhereItOpens) {
    const Pkcs12Opening opening =
        opened(decoded(norvtest::pkcs12({.key = &identity(), .certificate = &identity()})).get(), "secret");
    EXPECT_TRUE(opening.succeeded);
    EXPECT_EQ(opening.refusal, "");
    EXPECT_NE(opening.found.key, nullptr);
    EXPECT_EQ(ERR_GET_LIB(ERR_get_error()), ERR_LIB_USER);
    EXPECT_EQ(ERR_get_error(), 0UL);
}

TEST(Pkcs12Functions, AFailureEndsWithTheReasonOfOpensslsOwn) {
    // Another password opens neither part. (In one case of 65536 the padding is right; then the contents do not decode.)
    const Pkcs12Opening opening =
        opened(decoded(norvtest::pkcs12({.key = &identity(), .certificate = &identity()})).get(), "other");
    EXPECT_FALSE(opening.succeeded);
    EXPECT_EQ(opening.refusal, "");
    EXPECT_EQ(ERR_GET_LIB(ERR_peek_last_error()), ERR_LIB_PKCS12);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), PKCS12_R_PARSE_ERROR);
    EXPECT_EQ(ERR_GET_LIB(ERR_peek_error()), ERR_LIB_USER);
    ERR_clear_error();
}

// PKCS12_parse adds nothing to what says that a scheme is not there.
TEST(Pkcs12Functions, AnUnsupportedSchemeIsTheLastReason) {
    using namespace norvauthority;
    const Bytes scheme = der::sequence({der::oid("1.2.3.4"), der::null()});
    const Bytes encrypted = der::sequence(
        {der::integer("0"),
         der::sequence({der::oid("1.2.840.113549.1.7.1"), scheme, der::element(der::context(0), Bytes(16, 1))})});
    const Bytes safe =
        der::sequence({der::oid("1.2.840.113549.1.7.6"), der::element(der::contextConstructed(0), encrypted)});
    const Bytes octets = der::sequence(
        {der::integer("3"),
         der::sequence({der::oid("1.2.840.113549.1.7.1"),
                        der::element(der::contextConstructed(0), der::octetString(der::sequence({safe})))})});
    const Pkcs12Opening opening = opened(decoded(octets).get(), "secret");
    EXPECT_FALSE(opening.succeeded);
    EXPECT_NE(ERR_GET_REASON(ERR_peek_last_error()), PKCS12_R_PARSE_ERROR);
    EXPECT_NE(ERR_GET_LIB(ERR_peek_last_error()), ERR_LIB_USER);
    ERR_clear_error();
}

TEST(Pkcs12Functions, ARefusedPartIsNoSuccess) {
    const Pkcs12Ptr structure = decoded(norvtest::pkcs12({.key = &identity(),
                                                          .certificate = &identity(),
                                                          .keyCipher = -1,
                                                          .certificateCipher = NID_aes_256_cbc,
                                                          .mac = false}));
    DerivationWork work;
    const Owned<X509_ALGOR, X509_ALGOR_free> digest(X509_ALGOR_new());
    ASSERT_EQ(X509_ALGOR_set0(digest.get(), OBJ_nid2obj(NID_sha256), V_ASN1_NULL, nullptr), 1);
    const IntegerPtr most(ASN1_INTEGER_new());
    ASSERT_EQ(ASN1_INTEGER_set_int64(most.get(), mostHashes), 1);
    work.addMac(digest.get(), most.get());
    const std::string password = "secret";
    const Pkcs12Opening opening = openPkcs12(structure.get(), &password, work);
    EXPECT_FALSE(opening.succeeded);
    EXPECT_EQ(opening.refusal, "The PKCS#12 structure asks for more than 50000000 hash computations");
    EXPECT_EQ(opening.found.key, nullptr);
}

} // namespace
