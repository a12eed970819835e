// What keys and signers are, and what verifying costs: in squarings of a 1024-bit number, modulus squared times exponent.
#include "openssl/Signers.h"

#include "openssl/Pkcs7.h"

#include "support/Interpose.h"
#include "support/SmallRsa.h"

#include <openssl/err.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>

namespace {

int s_numbersAsked = 0;

} // namespace

extern "C" int EVP_PKEY_get_bn_param(const EVP_PKEY* key, const char* name, BIGNUM** value) {
    ++s_numbersAsked;
    return norvtest::next<&EVP_PKEY_get_bn_param>("EVP_PKEY_get_bn_param")(key, name, value);
}

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Key;
using norvtest::keyOfType;
using norvtest::number;
using norvtest::numberOfBits;
using norvtest::publicRsa;

namespace {

constexpr std::uint64_t s_unknown = ~std::uint64_t{0};

std::uint64_t rsaWork(const std::string& modulus, const std::string& exponent) {
    return verificationWork(publicRsa(number(modulus), number(exponent)).get());
}
std::uint64_t rsaWork(int bits, int exponentBits) {
    return verificationWork(publicRsa(numberOfBits(bits), numberOfBits(exponentBits)).get());
}

std::uint64_t dsaWork(int pBits, int qBits) {
    const auto p = numberOfBits(pBits);
    const auto q = numberOfBits(qBits);
    const auto g = number("2");
    const Key key = norvtest::keyOf("DSA", EVP_PKEY_PUBLIC_KEY,
                                    {{OSSL_PKEY_PARAM_FFC_P, p.get()},
                                     {OSSL_PKEY_PARAM_FFC_Q, q.get()},
                                     {OSSL_PKEY_PARAM_FFC_G, g.get()},
                                     {OSSL_PKEY_PARAM_PUB_KEY, g.get()}});
    return verificationWork(key.get());
}

norvauthority::X509Ptr certificateOf(const Key& key) {
    static const auto issuer = norvauthority::issue({.subject = {{"CN", "Issuer"}}, .key = Key::ec(), .ca = true});
    return norvauthority::issue({.subject = {{"CN", "Subject"}}, .key = key, .issuer = &issuer}).certificate.x509();
}

using SignerPtr = Owned<PKCS7_SIGNER_INFO, PKCS7_SIGNER_INFO_free>;
using Attributes = STACK_OF(X509_ATTRIBUTE) *;

void add(Attributes& to, int nid, int values = 1) {
    if (to == nullptr) {
        to = sk_X509_ATTRIBUTE_new_null();
    }
    X509_ATTRIBUTE* attribute = X509_ATTRIBUTE_new();
    X509_ATTRIBUTE_set1_object(attribute, OBJ_nid2obj(nid));
    for (int i = 0; i < values; ++i) {
        const auto octet = static_cast<unsigned char>(i);
        X509_ATTRIBUTE_set1_data(attribute, V_ASN1_OCTET_STRING, &octet, 1);
    }
    sk_X509_ATTRIBUTE_push(to, attribute);
}

} // namespace

TEST(VerificationWork, OfRsa) {
    EXPECT_EQ(rsaWork(1024, 1), 1U);
    EXPECT_EQ(rsaWork(1024, 17), 17U);
    EXPECT_EQ(rsaWork(2048, 17), 68U);
    EXPECT_EQ(rsaWork(16384, 64), 256U * 64U);
    EXPECT_EQ(rsaWork(16385, 64), s_unknown) << "more than OpenSSL computes with";
    EXPECT_EQ(rsaWork(2048, 65), s_unknown);
    EXPECT_EQ(rsaWork(512, 65), s_unknown);
    EXPECT_EQ(rsaWork("1", "3"), 1U) << "the least there is";
    EXPECT_EQ(rsaWork("3", "1"), 1U);
    EXPECT_EQ(rsaWork("ff", "3"), 1U);
    EXPECT_EQ(rsaWork("0", "3"), s_unknown);
    EXPECT_EQ(rsaWork("ff", "0"), s_unknown);
}

TEST(VerificationWork, OfDsaAndCurves) {
    EXPECT_EQ(dsaWork(2048, 256), 4U * 256U * 3U / 2U) << "two powers with one run of squarings";
    EXPECT_EQ(dsaWork(65536, 256), 4096U * 256U * 3U / 2U);
    EXPECT_EQ(dsaWork(65537, 256), s_unknown);
    EXPECT_EQ(dsaWork(2048, 65536), 4U * 65536U * 3U / 2U);
    EXPECT_EQ(dsaWork(2048, 65537), s_unknown);
    // A doubling of a point is taken for 64 squarings of numbers of its field.
    EXPECT_EQ(verificationWork(Key::ec("P-256").get()), 256U * 256U * 256U >> 14U);
    EXPECT_EQ(verificationWork(Key::ec("P-521").get()), 521U * 521U * 521U >> 14U);
    EXPECT_EQ(verificationWork(keyOfType("ED25519").get()), 256U * 256U * 256U >> 14U);
    EXPECT_EQ(verificationWork(keyOfType("ED448").get()), 456U * 456U * 456U >> 14U);
    EXPECT_EQ(verificationWork(keyOfType("X25519").get()), s_unknown);
    const KeyPtr none(EVP_PKEY_new());
    EXPECT_EQ(verificationWork(none.get()), s_unknown);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

// Of the certificates of a message each is asked: copying numbers out of keys would take longer than all the rest.
TEST(VerificationWork, OfCertificatesWithRsaKeysAsksForNoNumbers) {
    for (const char* exponent : {"1", "3", "7f", "80", "ff", "100", "10001", "80000001", "ffffffffffffffff"}) {
        const Key key = publicRsa(numberOfBits(2048), number(exponent));
        const auto certificate = certificateOf(key);
        s_numbersAsked = 0;
        const std::uint64_t work = verificationWork(certificate.get());
        EXPECT_EQ(s_numbersAsked, 0) << exponent;
        EXPECT_EQ(work, verificationWork(key.get())) << exponent;
    }
    EXPECT_EQ(verificationWork(certificateOf(publicRsa(numberOfBits(2048), number("1ffffffffffffffff"))).get()),
              s_unknown);
    EXPECT_EQ(verificationWork(certificateOf(publicRsa(numberOfBits(16385), number("3"))).get()), s_unknown);
    EXPECT_EQ(verificationWork(certificateOf(publicRsa(number("0"), number("3"))).get()), s_unknown);
    EXPECT_EQ(verificationWork(certificateOf(publicRsa(number("ff"), number("0"))).get()), s_unknown);
    EXPECT_EQ(verificationWork(certificateOf(Key::ec()).get()), 256U * 256U * 256U >> 14U);
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(Signers, AlgorithmsOfKeys) {
    const auto rsa = certificateOf(Key::rsa(1024));
    const auto curve = certificateOf(Key::ec());
    EXPECT_EQ(OBJ_obj2nid(publicKeyAlgorithm(rsa.get())), NID_rsaEncryption);
    EXPECT_EQ(OBJ_obj2nid(publicKeyAlgorithm(curve.get())), NID_X9_62_id_ecPublicKey);
    EXPECT_TRUE(alwaysDecodes(OBJ_nid2obj(NID_rsaEncryption)));
    EXPECT_FALSE(alwaysDecodes(OBJ_nid2obj(NID_X9_62_id_ecPublicKey)));
    EXPECT_FALSE(alwaysDecodes(nullptr));
    EXPECT_EQ(usableDigest(NID_undef), nullptr);
    EXPECT_EQ(usableDigest(NID_commonName), nullptr);
    EXPECT_EQ(usableDigest(NID_shake128), nullptr);
    EXPECT_EQ(usableDigest(NID_shake256), nullptr);
    EXPECT_EQ(usableDigest(NID_sha256), EVP_get_digestbyname("SHA256"));
}

TEST(Signers, AnAttributeHasAValueThatStandsAlone) {
    const SignerPtr signer(PKCS7_SIGNER_INFO_new());
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_contentType).count, 0);
    add(signer->auth_attr, NID_pkcs9_contentType);
    add(signer->auth_attr, NID_pkcs9_messageDigest, 2);
    add(signer->auth_attr, NID_pkcs9_signingTime);
    add(signer->auth_attr, NID_pkcs9_signingTime);
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_contentType).count, 1);
    EXPECT_NE(signedAttribute(signer.get(), NID_pkcs9_contentType).value, nullptr);
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_messageDigest).count, 1);
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_messageDigest).value, nullptr) << "two values";
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_signingTime).count, 2);
    EXPECT_EQ(signedAttribute(signer.get(), NID_pkcs9_signingTime).value, nullptr) << "two attributes";
}

// RFC 5652, 11.1 to 11.4: countersignatures are not signed, all the others are.
TEST(Signers, AttributesInTheWrongPlace) {
    const auto misplaced = [](int nid, bool isSigned, bool behind) {
        const SignerPtr signer(PKCS7_SIGNER_INFO_new());
        Attributes& among = isSigned ? signer->auth_attr : signer->unauth_attr;
        if (behind) {
            add(among, NID_pkcs9_emailAddress);
        }
        add(among, nid);
        return hasMisplacedAttribute(signer.get());
    };
    for (const bool behind : {false, true}) {
        for (const int nid : {NID_pkcs9_contentType, NID_pkcs9_messageDigest, NID_pkcs9_signingTime,
                              NID_id_smime_aa_signingCertificate}) {
            EXPECT_TRUE(misplaced(nid, false, behind)) << nid;
            EXPECT_FALSE(misplaced(nid, true, behind)) << nid;
        }
        EXPECT_TRUE(misplaced(NID_pkcs9_countersignature, true, behind));
        EXPECT_FALSE(misplaced(NID_pkcs9_countersignature, false, behind));
    }
    const SignerPtr none(PKCS7_SIGNER_INFO_new());
    EXPECT_FALSE(hasMisplacedAttribute(none.get()));
}

TEST(Pkcs7, WhatIsNotThereIsNull) {
    EXPECT_EQ(signedContent(nullptr), nullptr);
    EXPECT_EQ(envelopedContent(nullptr), nullptr);
    EXPECT_EQ(encryptedContent(nullptr), nullptr);
    EXPECT_EQ(dataOctets(nullptr), nullptr);
    const Pkcs7Ptr untyped(PKCS7_new());
    ASN1_OBJECT* const type = untyped->type;
    untyped->type = nullptr;
    EXPECT_EQ(signedContent(untyped.get()), nullptr);
    EXPECT_EQ(dataOctets(untyped.get()), nullptr);
    untyped->type = type;
    const auto identity = norvauthority::issue({.subject = {{"CN", "One"}}, .key = Key::ec(), .serial = "5"});
    const auto certificate = identity.certificate.x509();
    EXPECT_FALSE(namesCertificate(nullptr, nullptr));
    EXPECT_FALSE(namesCertificate(nullptr, certificate.get()));
    using IssuerAndSerialPtr = Owned<PKCS7_ISSUER_AND_SERIAL, PKCS7_ISSUER_AND_SERIAL_free>;
    const IssuerAndSerialPtr name(PKCS7_ISSUER_AND_SERIAL_new());
    EXPECT_FALSE(namesCertificate(name.get(), nullptr));
    EXPECT_FALSE(namesRecipient(certificate.get(), nullptr));
    using RecipientPtr = Owned<PKCS7_RECIP_INFO, PKCS7_RECIP_INFO_free>;
    const RecipientPtr one(PKCS7_RECIP_INFO_new());
    const RecipientPtr other(PKCS7_RECIP_INFO_new());
    ASSERT_EQ(PKCS7_RECIP_INFO_set(one.get(), certificateOf(Key::rsa(1024)).get()), 1);
    ASSERT_EQ(PKCS7_RECIP_INFO_set(other.get(), certificateOf(Key::rsa(1024)).get()), 1);
    EXPECT_TRUE(haveOneName(one.get(), other.get()));
    EXPECT_FALSE(haveOneName(one.get(), nullptr));
    EXPECT_FALSE(haveOneName(nullptr, one.get()));
    EXPECT_FALSE(haveOneName(nullptr, nullptr));
    ERR_clear_error();
}

TEST(Pkcs7, SignedAttributesAreThoseThatAreThere) {
    EXPECT_FALSE(hasSignedAttributes(nullptr));
    const SignerPtr signer(PKCS7_SIGNER_INFO_new());
    EXPECT_FALSE(hasSignedAttributes(signer.get()));
    signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
    EXPECT_FALSE(hasSignedAttributes(signer.get()));
    EXPECT_EQ(messageDigest(signer.get()), nullptr);
    add(signer->auth_attr, NID_pkcs9_messageDigest);
    EXPECT_TRUE(hasSignedAttributes(signer.get()));
    EXPECT_NE(messageDigest(signer.get()), nullptr);
}

// The content of the types that OpenSSL decodes is a structure: it is not taken for the value of a type that it does not know.
TEST(Pkcs7, OctetsOfDataAndOfUnknownTypesOnly) {
    for (const int nid : {NID_pkcs7_signed, NID_pkcs7_enveloped, NID_pkcs7_signedAndEnveloped, NID_pkcs7_digest,
                          NID_pkcs7_encrypted, NID_id_smime_ct_TSTInfo}) {
        const Pkcs7Ptr structure(PKCS7_new());
        ASN1_OBJECT* const type = structure->type;
        ASN1_TYPE* value = ASN1_TYPE_new();
        ASN1_TYPE_set(value, V_ASN1_OCTET_STRING, ASN1_OCTET_STRING_new());
        structure->type = OBJ_nid2obj(nid);
        structure->d.other = value;
        EXPECT_EQ(dataOctets(structure.get()) != nullptr, nid == NID_id_smime_ct_TSTInfo);
        structure->type = type;
        structure->d.other = nullptr;
        ASN1_TYPE_free(value);
    }
}

TEST(Pkcs7, HeadsOfWhatOpensslCounts) {
    const Pkcs7Ptr structure(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_data), 1);
    const std::size_t headers = encodeHead(structure.get(), 0x7FFF0000).size();
    ASSERT_NE(headers, 0U);
    EXPECT_EQ(encodeHead(structure.get(), INT_MAX - headers).size(), headers);
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_TRUE(encodeHead(structure.get(), INT_MAX - headers + 1).empty());
    EXPECT_NE(ERR_peek_error(), 0U);
    ERR_clear_error();
}
