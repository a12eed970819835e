#include "support/HandMadeSigners.h"

#include <openssl/objects.h>

using namespace cmstest;
namespace der = norvauthority::der;
using Crypto::Hasher;
using ::testing::Combine;
using ::testing::Values;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(5000);
    return content;
}

/// Expects a refusal with one log record under `event`.
void expectRefused(const Bytes& structure, const Bytes& content, const NVX509::RefCertificate& certificate,
                   unsigned int event) {
    const Received received(structure);
    const RecordedLog log;
    EXPECT_FALSE(received.accepts(content, certificate));
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().event, event);
    EXPECT_EQ(log.records().front().level, 0);
    EXPECT_EQ(log.records().front().format, "%s");
    EXPECT_EQ(log.records().front().fields, std::vector<std::string>{"s_signatureVerify"});
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

void expectAccepted(const Bytes& structure, const Bytes& content, const NVX509::RefCertificate& certificate) {
    const RecordedLog log;
    EXPECT_TRUE(Received(structure).accepts(content, certificate));
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

constexpr unsigned int anotherDigest = 0x300004E;
constexpr unsigned int noMessageDigest = 0x300004F;
constexpr unsigned int anotherBody = 0x3000050;
constexpr unsigned int noKey = 0x3000051;
constexpr unsigned int wrongSignature = 0x3000052;

class Sender : public ::testing::TestWithParam<std::tuple<const char*, const char*, unsigned int, unsigned int>> {
protected:
    [[nodiscard]] Bytes structure() const {
        const auto [kind, digest, attributes, shape] = GetParam();
        return signedByOpenssl(identityOf(kind), body(), digest, attributes | shape);
    }
    [[nodiscard]] NVX509::RefCertificate certificate() const {
        return certificateOf(identityOf(std::get<0>(GetParam())));
    }
    [[nodiscard]] bool hasAttributes() const { return std::get<2>(GetParam()) == 0; }
};

} // namespace

TEST_P(Sender, IsAcceptedForItsBodyAlone) {
    const Bytes made = structure();
    expectAccepted(made, body(), certificate());
    Bytes altered = body();
    altered[4321] ^= 1U;
    expectRefused(made, altered, certificate(), hasAttributes() ? anotherBody : wrongSignature);
    expectRefused(made, {}, certificate(), hasAttributes() ? anotherBody : wrongSignature);
}

TEST_P(Sender, IsAcceptedForTheBodyItCarries) {
    const Received received(structure());
    Norvane::MediaIn content = CMS::embeddedContent(received.verifier.contentInfo());
    EXPECT_EQ(content.isNull(), (std::get<3>(GetParam()) & CMS_DETACHED) != 0);
    if (!content.isNull()) {
        EXPECT_TRUE(received.verifier.isValid(content, received.signer(), certificate()));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Openssl, Sender,
    Combine(Values("rsa", "ec"), Values("SHA1", "SHA256", "SHA512"), Values(0U, static_cast<unsigned int>(CMS_NOATTR)),
            Values(0U, static_cast<unsigned int>(CMS_DETACHED), static_cast<unsigned int>(CMS_STREAM))));
INSTANTIATE_TEST_SUITE_P(
    OpensslDsa, Sender,
    Combine(Values("dsa"), Values("SHA1", "SHA256"), Values(0U, static_cast<unsigned int>(CMS_NOATTR)),
            Values(0U, static_cast<unsigned int>(CMS_DETACHED), static_cast<unsigned int>(CMS_STREAM))));

TEST(Verifier, TakesTheBodyInPieces) {
    const Received received(signedByStream(identities().rsa, body()));
    CMS::SignerInfo signer = received.signer();
    Crypto::VerifierMediaOut digested = received.verifier.verifierMediaOut(signer);
    for (std::size_t at = 0; at < body().size(); at += 777) {
        digested.write(body().data() + at, static_cast<unsigned int>(std::min<std::size_t>(777, body().size() - at)));
    }
    EXPECT_TRUE(received.verifier.isValid(digested, signer, certificateOf(identities().rsa)));
    EXPECT_TRUE(received.verifier.isValid(digested, signer, certificateOf(identities().rsa))) << "a second time";
    const RecordedLog log;
    EXPECT_FALSE(received.verifier.isValid(digested, signer, certificateOf(identities().otherRsa)));
    digested.write(body().data(), 1);
    EXPECT_FALSE(received.verifier.isValid(digested, signer, certificateOf(identities().rsa)));
}

TEST(Verifier, ASourceThatDeliversPiecesIsReadToItsEnd) {
    const Received received(signedByStream(identities().ec, body()));
    for (const std::size_t piece : {1U, 7U, 4096U}) {
        PiecewiseIn in(body(), piece);
        EXPECT_TRUE(received.verifier.isValid(in, received.signer(), certificateOf(identities().ec)));
        EXPECT_TRUE(in.atEnd());
    }
}

// A digest that was ended is consumed. The answer is no, and nothing is thrown.
TEST(Verifier, ABodyThatWasEndedIsNotAccepted) {
    for (const unsigned int attributes : {0U, static_cast<unsigned int>(CMS_NOATTR)}) {
        const Received received(signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED | attributes));
        Crypto::VerifierMediaOut digested = received.verifier.verifierMediaOut(received.signer());
        digested.write(bufferOf(body()));
        digested.end();
        const RecordedLog log;
        EXPECT_FALSE(received.verifier.isValid(digested, received.signer(), certificateOf(identities().rsa)));
    }
}

TEST(Verifier, AnotherCertificateIsRefusedNeverThrown) {
    for (const unsigned int attributes : {0U, static_cast<unsigned int>(CMS_NOATTR)}) {
        for (const char* kind : {"rsa", "dsa", "ec"}) {
            const Bytes structure = signedByOpenssl(identityOf(kind), body(), "SHA256", CMS_DETACHED | attributes);
            for (const Identity* other : {&identities().otherRsa, &identities().authority}) {
                expectRefused(structure, body(), certificateOf(*other), wrongSignature);
            }
        }
        const Bytes structure = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED | attributes);
        expectRefused(structure, body(), certificateOf(identities().dsa), wrongSignature);
        expectRefused(structure, body(), certificateOf(identities().ec), wrongSignature);
    }
}

// Deliberate: which certificate the signer names is not looked at.
TEST(Verifier, TakesTheCallersCertificateWhateverTheSignerNames) {
    const auto& ids = identities();
    const Identity renamed = norvauthority::issue(
        {.subject = {{"CN", "someone else"}}, .key = ids.rsa.key, .issuer = &ids.authority, .serial = "5e1f"});
    expectAccepted(signedByStream(ids.rsa, body()), body(), certificateOf(renamed));
}

TEST(Verifier, ABodyDigestedWithAnotherAlgorithmIsRefused) {
    const Received received(signedByStream(identities().rsa, body()));
    for (const auto type : {Hasher::SHA1, Hasher::SHA512, Hasher::BLAKE2B512}) {
        Crypto::VerifierMediaOut digested(type);
        digested.write(bufferOf(body()));
        const RecordedLog log;
        EXPECT_FALSE(received.verifier.isValid(digested, received.signer(), certificateOf(identities().rsa)));
        EXPECT_EQ(log.events(), std::vector<unsigned int>{anotherDigest});
        EXPECT_EQ(log.records().front().fields, std::vector<std::string>{"s_signatureVerify"});
    }
}

// BLAKE2 has no signature algorithm of RSA, whose number is then that of an unknown identifier.
TEST(Verifier, AnUnknownDigestMatchesNoDigestWithoutASignatureAlgorithm) {
    const Bytes structure = changed(signedByStream(identities().rsa, body()), [](PKCS7_SIGNER_INFO* signer) {
        X509_ALGOR_set0(signer->digest_alg, OBJ_txt2obj("1.2.3.4.5.6", 1), V_ASN1_NULL, nullptr);
    });
    const Received received(structure);
    for (const auto type : {Hasher::BLAKE2B512, Hasher::SHA256}) {
        Crypto::VerifierMediaOut digested(type);
        digested.write(bufferOf(body()));
        const RecordedLog log;
        EXPECT_FALSE(received.verifier.isValid(digested, received.signer(), certificateOf(identities().rsa)));
        EXPECT_EQ(log.events(), std::vector<unsigned int>{anotherDigest});
    }
}

TEST(Verifier, AnUnknownDigestThrowsWhatTheHasherThrows) {
    const Bytes structure = changed(signedByStream(identities().rsa, body()), [](PKCS7_SIGNER_INFO* signer) {
        X509_ALGOR_set0(signer->digest_alg, OBJ_txt2obj("1.2.3.4.5.6", 1), V_ASN1_NULL, nullptr);
    });
    const Received received(structure);
    PiecewiseIn in(body());
    for (const auto& failure :
         {caught([&] { static_cast<void>(received.verifier.verifierMediaOut(received.signer())); }),
          caught([&] { received.verifier.isValid(in, received.signer(), certificateOf(identities().rsa)); })}) {
        EXPECT_EQ(failure.where, "Crypto::Hasher");
        EXPECT_EQ(failure.code, 4);
        EXPECT_EQ(failure.details, std::vector<std::string>{"Unrecognized DigestType 0x0"});
    }
}

TEST(Verifier, ADigestNamedByItsSignatureAlgorithmIsUnderstood) {
    for (const unsigned int attributes : {0U, static_cast<unsigned int>(CMS_NOATTR)}) {
        const Bytes structure = changed(
            signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED | attributes),
            [](PKCS7_SIGNER_INFO* signer) {
                X509_ALGOR_set0(signer->digest_alg, OBJ_nid2obj(NID_sha256WithRSAEncryption), V_ASN1_NULL, nullptr);
            });
        const Received received(structure);
        EXPECT_EQ(received.signer().digestAlgorithm().asString(), "1.2.840.113549.1.1.11");
        Crypto::VerifierMediaOut digested(Hasher::SHA256);
        digested.write(bufferOf(body()));
        EXPECT_TRUE(received.verifier.isValid(digested, received.signer(), certificateOf(identities().rsa)));
        expectAccepted(structure, body(), certificateOf(identities().rsa));
    }
}

TEST(Verifier, AttributesWithoutAMessageDigestAreRefused) {
    const Bytes structure = signedAttributes(identities().rsa, [](PKCS7_SIGNER_INFO* signer) {
        EXPECT_EQ(PKCS7_add_attrib_content_type(signer, nullptr), 1);
    });
    expectRefused(structure, body(), certificateOf(identities().rsa), noMessageDigest);
}

TEST(Verifier, AMessageDigestThatIsNoOctetStringIsMissing) {
    const auto with = [](int type, void* value) {
        return signedAttributes(identities().rsa, [&](PKCS7_SIGNER_INFO* signer) {
            EXPECT_EQ(PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, type, value), 1);
        });
    };
    ASN1_INTEGER* number = ASN1_INTEGER_new();
    ASSERT_EQ(ASN1_INTEGER_set(number, 0x41414141), 1);
    ASN1_UTF8STRING* text = ASN1_UTF8STRING_new();
    const Bytes digest = digestOf(body());
    ASSERT_EQ(ASN1_STRING_set(text, digest.data(), static_cast<int>(digest.size())), 1);
    int nonNull = 1;
    const auto certificate = certificateOf(identities().rsa);
    expectRefused(with(V_ASN1_INTEGER, number), body(), certificate, noMessageDigest);
    expectRefused(with(V_ASN1_UTF8STRING, text), body(), certificate, noMessageDigest);
    expectRefused(with(V_ASN1_BOOLEAN, &nonNull), body(), certificate, noMessageDigest);
    expectRefused(with(V_ASN1_NULL, nullptr), body(), certificate, noMessageDigest);
    expectRefused(with(V_ASN1_OBJECT, OBJ_nid2obj(NID_pkcs7_data)), body(), certificate, noMessageDigest);
}

TEST(Verifier, AMessageDigestWithoutAValueIsMissing) {
    // The attribute's SET of values is emptied in the encoding, together with the lengths around it.
    const Bytes structure = signedAttributes(identities().rsa, [](PKCS7_SIGNER_INFO* signer) {
        X509_ATTRIBUTE* attribute = X509_ATTRIBUTE_new();
        ASSERT_EQ(X509_ATTRIBUTE_set1_object(attribute, OBJ_nid2obj(NID_pkcs9_messageDigest)), 1);
        signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
        ASSERT_GT(sk_X509_ATTRIBUTE_push(signer->auth_attr, attribute), 0);
    });
    expectRefused(structure, body(), certificateOf(identities().rsa), noMessageDigest);
}

TEST(Verifier, AMessageDigestOfAnotherBodyIsRefused) {
    const auto with = [](const Bytes& digest) {
        return signedAttributes(identities().rsa, [&](PKCS7_SIGNER_INFO* signer) {
            EXPECT_EQ(PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, octets(digest)),
                      1);
        });
    };
    const auto certificate = certificateOf(identities().rsa);
    expectAccepted(with(digestOf(body())), body(), certificate);
    Bytes lastByte = digestOf(body());
    lastByte.back() ^= 1U;
    expectRefused(with(lastByte), body(), certificate, anotherBody);
    Bytes shorter = digestOf(body());
    shorter.pop_back();
    expectRefused(with(shorter), body(), certificate, anotherBody);
    Bytes longer = digestOf(body());
    longer.push_back(0);
    expectRefused(with(longer), body(), certificate, anotherBody);
    expectRefused(with({}), body(), certificate, anotherBody);
    expectRefused(with(digestOf(body(), EVP_sha1())), body(), certificate, anotherBody);
}

TEST(Verifier, AnEmptyAttributeSetIsNone) {
    const Bytes structure = changed(signedByStream(identities().rsa, body()), [](PKCS7_SIGNER_INFO* signer) {
        signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
    });
    const Received received(structure);
    ASSERT_NE(static_cast<pkcs7_signer_info_st*>(received.signer())->auth_attr, nullptr) << "it is there, and empty";
    expectAccepted(structure, body(), certificateOf(identities().rsa));
}

TEST(Verifier, AHugeAttributeSetIsDigestedWhole) {
    const auto fill = [](PKCS7_SIGNER_INFO* signer) {
        EXPECT_EQ(
            PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, octets(digestOf(body()))),
            1);
        EXPECT_EQ(PKCS7_add_signed_attribute(signer, NID_pkcs9_challengePassword, V_ASN1_OCTET_STRING,
                                             octets(bodyOf(4 * 1024 * 1024))),
                  1);
    };
    const Bytes structure = signedAttributes(identities().rsa, fill);
    expectAccepted(structure, body(), certificateOf(identities().rsa));
    const Bytes altered = changed(structure, [](PKCS7_SIGNER_INFO* signer) {
        const ASN1_TYPE* value = PKCS7_get_signed_attribute(signer, NID_pkcs9_challengePassword);
        value->value.octet_string->data[3 * 1024 * 1024] ^= 1U;
    });
    expectRefused(altered, body(), certificateOf(identities().rsa), wrongSignature);
}

// The set is digested in the order in which it was sent, as that is what the sender had before it.
TEST(Verifier, AttributesAreDigestedInTheOrderReceived) {
    const auto reverse = [](PKCS7_SIGNER_INFO* signer) {
        STACK_OF(X509_ATTRIBUTE)* reversed = sk_X509_ATTRIBUTE_new_null();
        while (sk_X509_ATTRIBUTE_num(signer->auth_attr) > 0) {
            sk_X509_ATTRIBUTE_push(reversed, sk_X509_ATTRIBUTE_pop(signer->auth_attr));
        }
        sk_X509_ATTRIBUTE_free(signer->auth_attr);
        signer->auth_attr = reversed;
    };
    const auto sign = [](PKCS7_SIGNER_INFO* signer) {
        unsigned char* set = nullptr;
        const int length =
            ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(signer->auth_attr), &set, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
        ASSERT_GT(length, 0);
        std::size_t size = 256;
        Bytes signature(size);
        const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        ASSERT_EQ(EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, identities().rsa.key.get()), 1);
        ASSERT_EQ(EVP_DigestSign(context.get(), signature.data(), &size, set, static_cast<std::size_t>(length)), 1);
        OPENSSL_free(set);
        ASSERT_EQ(ASN1_OCTET_STRING_set(signer->enc_digest, signature.data(), static_cast<int>(size)), 1);
    };
    const auto certificate = certificateOf(identities().rsa);
    const Bytes sorted = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    const Bytes reversed = changed(sorted, reverse);
    ASSERT_NE(reversed, sorted);
    expectRefused(reversed, body(), certificate, wrongSignature);
    expectAccepted(changed(reversed, sign), body(), certificate);
}

TEST(Verifier, ACertificateWithoutAUsableKeyIsRefused) {
    const Bytes structure = signedByStream(identities().rsa, body());
    expectRefused(structure, body(), NVX509::RefCertificate(), noKey);
    Bytes certificate = identities().rsa.certificate.der;
    const Bytes algorithm{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
    const auto at = std::search(certificate.begin(), certificate.end(), algorithm.begin(), algorithm.end());
    ASSERT_NE(at, certificate.end());
    at[8] = 0x63; // no algorithm
    const auto unusable = NVX509::CertificateFactory().readDER(bufferOf(certificate));
    ASSERT_NE(static_cast<x509_st*>(unusable), nullptr);
    expectRefused(structure, body(), unusable, noKey);
}

// Which fault is told when there are several: the algorithm, then the attributes, then the key, then the signature.
TEST(Verifier, TheFirstFaultIsTold) {
    const NVX509::RefCertificate none;
    const Bytes structure = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    expectRefused(structure, bodyOf(1), none, anotherBody);
    expectRefused(structure, body(), none, noKey);
    const Received received(structure);
    Crypto::VerifierMediaOut digested(Hasher::SHA1);
    const RecordedLog log;
    EXPECT_FALSE(received.verifier.isValid(digested, received.signer(), none));
    EXPECT_EQ(log.events(), std::vector<unsigned int>{anotherDigest});
    const Bytes withoutDigest = signedAttributes(identities().rsa, [](PKCS7_SIGNER_INFO* signer) {
        EXPECT_EQ(PKCS7_add_attrib_content_type(signer, nullptr), 1);
    });
    expectRefused(withoutDigest, body(), none, noMessageDigest);
}

TEST(Verifier, ASignatureOfAnyLengthButItsOwnIsRefused) {
    const auto certificate = certificateOf(identities().rsa);
    const Bytes structure = signedByStream(identities().rsa, body());
    for (const std::size_t length : {0U, 1U, 255U, 257U, 1000000U}) {
        const Bytes altered = changed(structure, [&](PKCS7_SIGNER_INFO* signer) {
            Bytes signature(signer->enc_digest->data, signer->enc_digest->data + signer->enc_digest->length);
            signature.resize(length);
            ASSERT_EQ(ASN1_OCTET_STRING_set(signer->enc_digest, signature.data(), static_cast<int>(length)), 1);
        });
        expectRefused(altered, body(), certificate, wrongSignature);
    }
}

TEST(Verifier, EveryFlippedByteOfASignatureIsRefused) {
    for (const char* kind : {"rsa", "dsa", "ec"}) {
        const auto certificate = certificateOf(identityOf(kind));
        const Bytes structure = signedByOpenssl(identityOf(kind), {}, "SHA256", CMS_DETACHED | CMS_NOATTR);
        const std::size_t length = Received(structure).signer().signature().length();
        for (std::size_t at = 0; at < length; at += 3) {
            const Bytes altered =
                changed(structure, [&](PKCS7_SIGNER_INFO* signer) { signer->enc_digest->data[at] ^= 0x10U; });
            expectRefused(altered, {}, certificate, wrongSignature);
        }
    }
}

TEST(Verifier, SignersAreCheckedOneByOne) {
    const auto& ids = identities();
    const Pkcs7 structure(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    for (const Identity* identity : {&ids.rsa, &ids.ec}) {
        ASSERT_NE(
            PKCS7_add_signature(structure.get(), identity->certificate.x509().get(), identity->key.get(), EVP_sha256()),
            nullptr);
    }
    ASSERT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    const Bio content(PKCS7_dataInit(structure.get(), nullptr));
    ASSERT_EQ(BIO_write(content.get(), body().data(), static_cast<int>(body().size())), 5000);
    ASSERT_EQ(PKCS7_dataFinal(structure.get(), content.get()), 1);
    const Received received(derOf(structure.get()));
    const CMS::SignedData data = CMS::signedData(received.verifier.contentInfo());
    ASSERT_EQ(data.signerInfo().size(), 2U);
    const RecordedLog log;
    // A SET OF is sorted when it is encoded, so the signers are told apart by their serial numbers.
    for (const auto& signer : data.signerInfo()) {
        const bool isRsa = signer.issuerAndSerialNumber().serialNumber().asInt() == 0xA11CE;
        Crypto::VerifierMediaOut digested = received.verifier.verifierMediaOut(signer);
        digested.write(bufferOf(body()));
        EXPECT_EQ(received.verifier.isValid(digested, signer, certificateOf(ids.rsa)), isRsa);
        EXPECT_EQ(received.verifier.isValid(digested, signer, certificateOf(ids.ec)), !isRsa);
    }
}

TEST(Verifier, ASignerOverNullIsRefused) {
    const Received received(signedByStream(identities().rsa, body()));
    const CMS::SignerInfo none(nullptr);
    Crypto::VerifierMediaOut digested(Hasher::SHA256);
    const RecordedLog log;
    EXPECT_FALSE(received.verifier.isValid(digested, none, certificateOf(identities().rsa)));
    EXPECT_EQ(log.events(), std::vector<unsigned int>{anotherDigest});
    EXPECT_EQ(caught([&] { static_cast<void>(received.verifier.verifierMediaOut(none)); }).where, "Crypto::Hasher");
}

TEST(Verifier, LeavesOlderEntriesOfTheErrorQueueAlone) {
    const Received received(signedByStream(identities().rsa, body()));
    ERR_raise(ERR_LIB_USER, 77);
    const RecordedLog log;
    EXPECT_FALSE(received.accepts(body(), certificateOf(identities().otherRsa)));
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
    EXPECT_EQ(ERR_get_error(), 0UL);
}

TEST(Verifier, WhatTheBodysStreamThrowsPassesUnchanged) {
    const Received received(signedByStream(identities().rsa, body()));
    PiecewiseIn in(body(), 100, 2500);
    std::string what;
    try {
        static_cast<void>(received.verifier.isValid(in, received.signer(), certificateOf(identities().rsa)));
    } catch (const std::runtime_error& failure) {
        what = failure.what();
    }
    EXPECT_EQ(what, "the line went dead");
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(Verifier, UndecodableInputThrowsAsTheStructureDoes) {
    const RecordedLog log;
    PiecewiseIn in(bytesOf(std::string("no structure")));
    const Caught failure = caught([&] { const CMS::CMSVerifier verifier(in); });
    EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.line, 389U);
    EXPECT_EQ(log.events(), std::vector<unsigned int>{0x300005E});
}

TEST(Verifier, KeepsItsStructureForHandlesThatOutliveIt) {
    CMS::RefContentInfo content(false);
    {
        const Received received(signedByStream(identities().rsa, body()));
        content = received.verifier.contentInfo();
        EXPECT_EQ(content->referenceCount(), 2);
    }
    EXPECT_EQ(content->referenceCount(), 1);
    EXPECT_EQ(CMS::signedData(content).signerInfo().size(), 1U);
}
