// Sound structures whose content is no mail: of another type, or not there; and structures that nobody signed.
#include "Mails.h"

#include <openssl/objects.h>

namespace {

using namespace smimetest;
using interop::alice;
using interop::bob;

constexpr const char* signedEntity = "application/pkcs7-mime; smime-type=signed-data; name=smime.p7m";
constexpr const char* encryptedEntity = "application/pkcs7-mime; smime-type=enveloped-data; name=smime.p7m";

int encode(BIO* out, CMS_ContentInfo* structure) {
    return i2d_CMS_bio(out, structure);
}
int encode(BIO* out, PKCS7* structure) {
    return i2d_PKCS7_bio(out, structure);
}

template <class T> std::string encodingOf(T* structure) {
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(encode(out.get(), structure), 1);
    return textOf(out.get());
}

/// A structure as the whole body of a mail.
std::string mailWith(const std::string& structure, const char* type) {
    return fieldsOfAlice + "Content-Type: " + type + "\r\nContent-Transfer-Encoding: binary\r\n\r\n" + structure;
}
template <class T> std::string mailWith(T* structure, const char* type) {
    return mailWith(encodingOf(structure), type);
}

/// What alice signed, as a content of a type.
std::string signedAs(int type) {
    const Structure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY));
    EXPECT_EQ(CMS_set1_eContentType(structure.get(), OBJ_nid2obj(type)), 1);
    EXPECT_NE(CMS_add1_signer(structure.get(), alice().certificate.x509().get(), alice().key.get(), EVP_sha256(), 0),
              nullptr);
    EXPECT_EQ(CMS_final(structure.get(), sourceOf(plainEntity).get(), nullptr, CMS_BINARY), 1);
    return mailWith(structure.get(), signedEntity);
}

Structure encryptedForBob() {
    const std::unique_ptr<STACK_OF(X509), Freeing> people(sk_X509_new_null());
    const auto certificate = bob().certificate.x509();
    sk_X509_push(people.get(), certificate.get());
    return Structure(CMS_encrypt(people.get(), sourceOf(plainEntity).get(), EVP_aes_128_cbc(), CMS_BINARY));
}

void expectUnsupported(const Outcome& outcome, const std::string& why) {
    EXPECT_EQ(outcome.answer.verdict, Verdict::unsupported);
    EXPECT_EQ(outcome.content, "");
    ASSERT_EQ(outcome.answer.layers.size(), 1U);
    EXPECT_EQ(outcome.answer.layers.front().status, LayerStatus::unsupported);
    EXPECT_EQ(outcome.answer.layers.front().detail, why);
}

TEST(SMimeOtherContents, WhatIsSignedIsNoMail) {
    expectUnsupported(outcomeOf(signedAs(NID_id_smime_ct_TSTInfo)),
                      "what is signed is no MIME entity but 1.2.840.113549.1.9.16.1.4");
    // The same structure with a mail in it.
    EXPECT_EQ(outcomeOf(signedAs(NID_pkcs7_data)).content, plainEntity);
}

TEST(SMimeOtherContents, WhatIsEncryptedIsNoMail) {
    Structure structure = encryptedForBob();
    EXPECT_EQ(outcomeOf(mailWith(structure.get(), encryptedEntity)).content, plainEntity);
    EXPECT_EQ(CMS_set1_eContentType(structure.get(), OBJ_nid2obj(NID_pkcs7_signed)), 1);
    expectUnsupported(outcomeOf(mailWith(structure.get(), encryptedEntity)),
                      "what is encrypted is no MIME entity but 1.2.840.113549.1.7.2");
}

TEST(SMimeOtherContents, TheEncryptedContentIsSomewhereElse) {
    const Structure structure = encryptedForBob();
    ASN1_OCTET_STRING** const content = CMS_get0_content(structure.get());
    ASN1_OCTET_STRING_free(std::exchange(*content, nullptr));
    expectUnsupported(outcomeOf(mailWith(structure.get(), encryptedEntity)),
                      "the encrypted content is not in the message");
}

TEST(SMimeOtherContents, NobodySignedIt) {
    const std::unique_ptr<PKCS7, void (*)(PKCS7*)> structure(PKCS7_new(), PKCS7_free);
    ASSERT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    ASSERT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    ASSERT_EQ(ASN1_OCTET_STRING_set(structure->d.sign->contents->d.data,
                                    reinterpret_cast<const unsigned char*>(plainEntity.data()),
                                    static_cast<int>(plainEntity.size())),
              1);
    const Outcome outcome = outcomeOf(mailWith(structure.get(), signedEntity));
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
    ASSERT_EQ(outcome.answer.layers.size(), 1U);
    EXPECT_EQ(outcome.answer.layers.front().detail, "nobody signed it");
}

// A name is a sequence of sets (RFC 5280, 4.1.2.4); the first one of this signer's is no set. Whoever signed, the name is nobody's.
TEST(SMimeOtherContents, TheNameOfTheSignerDoesNotDecode) {
    const auto certificate = alice().certificate.x509();
    const Structure structure(
        CMS_sign(certificate.get(), alice().key.get(), nullptr, sourceOf(plainEntity).get(), CMS_BINARY | CMS_NOCERTS));
    std::string octets = encodingOf(structure.get());
    const auto name = interop::root().name.der();
    const std::size_t at = octets.rfind(std::string(name.begin(), name.end()));
    ASSERT_NE(at, std::string::npos);
    SMime::ReadOptions options;
    options.certificates = {x509testing::read(alice())};
    const Outcome named = outcomeOf(mailWith(octets, signedEntity), options);
    EXPECT_EQ(named.answer.verdict, Verdict::signatureGood);
    EXPECT_NE(named.answer.layers.at(0).signers.at(0).identifier, "");
    constexpr char set = '\x31';
    constexpr char integer = '\x02';
    ASSERT_EQ(octets.at(at + 2), set);
    octets.at(at + 2) = integer;
    const Outcome outcome = outcomeOf(mailWith(octets, signedEntity), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::refused) << outcome.answer.detail;
    ASSERT_EQ(outcome.answer.layers.at(0).signers.size(), 1U);
    EXPECT_EQ(outcome.answer.layers[0].signers[0].identifier, "");
    EXPECT_EQ(outcome.answer.layers[0].signers[0].result.reason, CMS::SignatureReason::certificateMissing);
}

} // namespace
