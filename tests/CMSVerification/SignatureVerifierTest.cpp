#include "support/HandMadeSigners.h"

#include <norvcrypto/CMSVerification.h>

#include <gmock/gmock.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include <set>

using namespace cmstest;
namespace der = norvauthority::der;
using CMS::SignatureReason;
using CMS::SignatureReport;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using ::testing::Combine;
using ::testing::Values;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(5000);
    return content;
}

CMS::RefContentInfo decoded(const Bytes& structure) {
    PiecewiseIn in(structure);
    return CMS::RefContentInfo(in);
}

SignatureReport reportOn(const Bytes& structure, const Bytes& content = body()) {
    PiecewiseIn in(content, 999);
    ERR_clear_error(); // what making the structure left
    const RecordedLog log;
    SignatureReport report = CMS::verifySignatures(decoded(structure), in);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(report.bodyLength, content.size());
    return report;
}

SignatureResult only(const SignatureReport& report) {
    EXPECT_EQ(report.signers.size(), 1U);
    return report.signers.empty() ? SignatureResult{} : report.signers.front();
}

void expectRefused(SignatureReason reason, const SignatureReport& report) {
    EXPECT_EQ(only(report).verdict, SignatureVerdict::refused) << CMS::textOf(only(report).reason);
    EXPECT_EQ(only(report).reason, reason) << CMS::textOf(only(report).reason);
    EXPECT_FALSE(report.allGood());
}

void expectUnsupported(SignatureReason reason, const std::string& algorithm, const SignatureReport& report) {
    EXPECT_EQ(only(report).verdict, SignatureVerdict::unsupported) << CMS::textOf(only(report).reason);
    EXPECT_EQ(only(report).reason, reason) << CMS::textOf(only(report).reason);
    EXPECT_EQ(only(report).algorithm, algorithm);
    EXPECT_FALSE(report.allGood());
}

void expectGood(const Identity& identity, const SignatureReport& report) {
    EXPECT_EQ(only(report).verdict, SignatureVerdict::good) << CMS::textOf(only(report).reason);
    EXPECT_EQ(only(report).reason, SignatureReason::none);
    EXPECT_TRUE(only(report).certificate == certificateOf(identity));
    EXPECT_TRUE(report.allGood());
}

/// One detached signer with these attributes beside a right message digest.
template <class Fill> Bytes withAttributes(Fill fill) {
    return withCertificates(signedAttributes(identities().rsa, fill), {identities().rsa.certificate.der});
}
void addContentType(PKCS7_SIGNER_INFO* signer, int type = NID_pkcs7_data) {
    EXPECT_EQ(PKCS7_add_attrib_content_type(signer, OBJ_nid2obj(type)), 1);
}
void addMessageDigest(PKCS7_SIGNER_INFO* signer, const Bytes& content = body()) {
    EXPECT_EQ(
        PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, octets(digestOf(content))), 1);
}
/// An attribute with values of its own, behind those that are there: OpenSSL's own call would replace one of its type.
void push(PKCS7_SIGNER_INFO* signer, int nid, const std::vector<std::pair<int, const void*>>& values) {
    X509_ATTRIBUTE* attribute = X509_ATTRIBUTE_new();
    ASSERT_EQ(X509_ATTRIBUTE_set1_object(attribute, OBJ_nid2obj(nid)), 1);
    for (const auto& [type, value] : values) {
        ASSERT_EQ(X509_ATTRIBUTE_set1_data(attribute, type, value, -1), 1);
    }
    if (signer->auth_attr == nullptr) {
        signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
    }
    ASSERT_GT(sk_X509_ATTRIBUTE_push(signer->auth_attr, attribute), 0);
}
void pushDigests(PKCS7_SIGNER_INFO* signer, const std::vector<Bytes>& digests) {
    X509_ATTRIBUTE* attribute = X509_ATTRIBUTE_new();
    ASSERT_EQ(X509_ATTRIBUTE_set1_object(attribute, OBJ_nid2obj(NID_pkcs9_messageDigest)), 1);
    for (const Bytes& digest : digests) {
        ASSERT_EQ(
            X509_ATTRIBUTE_set1_data(attribute, V_ASN1_OCTET_STRING, digest.data(), static_cast<int>(digest.size())),
            1);
    }
    if (signer->auth_attr == nullptr) {
        signer->auth_attr = sk_X509_ATTRIBUTE_new_null();
    }
    ASSERT_GT(sk_X509_ATTRIBUTE_push(signer->auth_attr, attribute), 0);
}

/// A structure by OpenSSL with RSASSA-PSS, or whatever else `prepare` asks of the signer.
template <class Prepare>
Bytes signedWith(const Identity& identity, unsigned int flags, Prepare prepare, const EVP_MD* digest = EVP_sha256()) {
    flags |= CMS_BINARY | CMS_DETACHED;
    const Bio content(BIO_new_mem_buf(body().data(), static_cast<int>(body().size())));
    const CmsStructure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
    CMS_SignerInfo* signer = CMS_add1_signer(structure.get(), identity.certificate.x509().get(), identity.key.get(),
                                             digest, flags | CMS_KEY_PARAM);
    EXPECT_NE(signer, nullptr);
    prepare(signer);
    EXPECT_EQ(CMS_final(structure.get(), content.get(), nullptr, flags), 1);
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
    return contentOf(out.get());
}
Bytes signedWithPss(unsigned int flags = 0) {
    return signedWith(identities().rsa, flags, [](CMS_SignerInfo* signer) {
        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(CMS_SignerInfo_get0_pkey_ctx(signer), RSA_PKCS1_PSS_PADDING), 1);
    });
}

class Senders : public ::testing::TestWithParam<std::tuple<const char*, const char*, unsigned int, unsigned int>> {};

} // namespace

TEST_P(Senders, AreGoodForTheirBodyAlone) {
    const auto [name, digest, attributes, shape] = GetParam();
    const Bytes made = signedByOpenssl(identityOf(name), body(), digest, attributes | shape);
    const SignatureReport report = reportOn(made);
    expectGood(identityOf(name), report);
    EXPECT_EQ(report.body, CMS::JudgedBody::given);
    Bytes altered = body();
    altered[4321] ^= 1U;
    Bytes shorter = body();
    shorter.pop_back();
    Bytes longer = body();
    longer.push_back(0);
    const bool detached = (shape & CMS_DETACHED) != 0;
    const SignatureReason reason = !detached                        ? SignatureReason::contentDiffers
                                   : (attributes & CMS_NOATTR) != 0 ? SignatureReason::signatureWrong
                                                                    : SignatureReason::bodyDiffers;
    for (const Bytes& other : {altered, shorter, longer, Bytes{}}) {
        expectRefused(reason, reportOn(made, other));
    }
    if (detached) {
        EXPECT_EQ(CMS::carriedContent(decoded(made)), CMS::CarriedContent::none);
        const Caught failure = caught([&] { static_cast<void>(CMS::verifyEmbeddedSignatures(decoded(made))); });
        EXPECT_EQ(failure.where, "CMS::verifyEmbeddedSignatures");
        EXPECT_EQ(failure.code, 4);
        EXPECT_EQ(failure.file, "CMSVerification");
        EXPECT_EQ(failure.details, std::vector<std::string>{"the structure carries no content"});
    } else {
        EXPECT_EQ(CMS::carriedContent(decoded(made)), CMS::CarriedContent::octets);
        const SignatureReport embedded = CMS::verifyEmbeddedSignatures(decoded(made));
        expectGood(identityOf(name), embedded);
        EXPECT_EQ(embedded.body, CMS::JudgedBody::embedded);
        EXPECT_EQ(embedded.bodyLength, body().size());
    }
}

constexpr unsigned int noAttributes = CMS_NOATTR;
constexpr unsigned int detached = CMS_DETACHED;
constexpr unsigned int streamed = CMS_STREAM;
INSTANTIATE_TEST_SUITE_P(Openssl, Senders,
                         Combine(Values("rsa", "ec"), Values("SHA1", "SHA256", "SHA512"), Values(0U, noAttributes),
                                 Values(0U, detached, streamed)));
INSTANTIATE_TEST_SUITE_P(OpensslDsa, Senders,
                         Combine(Values("dsa"), Values("SHA1", "SHA256"), Values(0U, noAttributes),
                                 Values(0U, detached)));

TEST(SignatureVerifier, TakesTheBodyInPiecesAndReportsAgain) {
    CMS::SignatureVerifier first(decoded(signedByStream(identities().rsa, body())));
    for (std::size_t at = 0; at < body().size(); at += 777) {
        first.write(body().data() + at, std::min<std::size_t>(777, body().size() - at));
    }
    CMS::SignatureVerifier verifier(std::move(first));
    expectGood(identities().rsa, verifier.report());
    expectGood(identities().rsa, verifier.report({certificateOf(identities().rsa)}));
    verifier.write(nullptr, 0);
    expectGood(identities().rsa, verifier.report());
    verifier.write(body().data(), 1);
    expectRefused(SignatureReason::signatureWrong, verifier.report());
    EXPECT_EQ(verifier.report().bodyLength, body().size() + 1);
}

TEST(SignatureVerifier, AnEmptyBodyIsABody) {
    expectGood(identities().rsa, reportOn(signedByStream(identities().rsa, {}), {}));
    const SignatureReport embedded =
        CMS::verifyEmbeddedSignatures(decoded(signedByOpenssl(identities().rsa, {}, "SHA256", 0)));
    expectGood(identities().rsa, embedded);
    EXPECT_EQ(embedded.bodyLength, 0U);
}

TEST(SignatureVerifier, UsesTheCertificatesGiven) {
    const Bytes bare = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED | CMS_NOCERTS);
    expectRefused(SignatureReason::certificateMissing, reportOn(bare));
    EXPECT_EQ(static_cast<x509_st*>(only(reportOn(bare)).certificate), nullptr);
    PiecewiseIn in(body());
    expectGood(identities().rsa, CMS::verifySignatures(decoded(bare), in,
                                                       {NVX509::RefCertificate(), certificateOf(identities().otherRsa),
                                                        certificateOf(identities().rsa)}));
    PiecewiseIn again(body());
    const Bytes with = signedByStream(identities().rsa, body());
    expectRefused(SignatureReason::certificateMissing,
                  CMS::verifySignatures(decoded(with), again, {certificateOf(identities().otherRsa)}));
}

TEST(SignatureVerifier, AnotherKeyUnderTheSameNameIsRefused) {
    const Identity alike = namedLikeRsa(identities().otherRsa.key);
    PiecewiseIn in(body());
    const SignatureReport report =
        CMS::verifySignatures(decoded(signedByStream(identities().rsa, body())), in, {certificateOf(alike)});
    expectRefused(SignatureReason::signatureWrong, report);
    EXPECT_TRUE(only(report).certificate == certificateOf(alike));
    PiecewiseIn again(body());
    expectRefused(SignatureReason::algorithmDiffers,
                  CMS::verifySignatures(decoded(signedByStream(identities().rsa, body())), again,
                                        {certificateOf(namedLikeRsa(identities().ec.key))}));
}

TEST(SignatureVerifier, FindsTheRightOneAmongCertificatesOfOneName) {
    std::vector<Bytes> alike;
    for (const char* subject : {"one", "two", "three"}) {
        alike.push_back(namedLikeRsa(identities().otherRsa.key, subject).certificate.der);
    }
    const Bytes made = signedByStream(identities().rsa, body());
    expectGood(identities().rsa, reportOn(withCertificates(made, alike)));
    alike.push_back(namedLikeRsa(identities().otherRsa.key, "four").certificate.der);
    expectUnsupported(SignatureReason::tooManyCertificates, "", reportOn(withCertificates(made, alike)));
}

TEST(SignatureVerifier, TheCertificateOutlivesTheStructure) {
    NVX509::RefCertificate certificate;
    { certificate = only(reportOn(signedByStream(identities().rsa, body()))).certificate; }
    EXPECT_TRUE(certificate == certificateOf(identities().rsa));
}

// RFC 5652, 5.3, 11.1, 11.2 and 11.3.
TEST(SignatureVerifier, AttributesThatTheStandardForbidsAreRefused) {
    const ASN1_OBJECT* data = OBJ_nid2obj(NID_pkcs7_data);
    const ASN1_OBJECT* other = OBJ_nid2obj(NID_pkcs7_enveloped);
    expectGood(identities().rsa, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                   addContentType(signer);
                   addMessageDigest(signer);
               })));
    expectRefused(SignatureReason::contentTypeMissing,
                  reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) { addMessageDigest(signer); })));
    expectRefused(SignatureReason::contentTypeDiffers, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                      addContentType(signer, NID_pkcs7_enveloped);
                      addMessageDigest(signer);
                  })));
    for (const ASN1_OBJECT* second : {data, other}) {
        expectRefused(SignatureReason::contentTypeRepeated, reportOn(withAttributes([&](PKCS7_SIGNER_INFO* signer) {
                          addContentType(signer);
                          addMessageDigest(signer);
                          push(signer, NID_pkcs9_contentType, {{V_ASN1_OBJECT, second}});
                      })));
        expectRefused(SignatureReason::contentTypeRepeated, reportOn(withAttributes([&](PKCS7_SIGNER_INFO* signer) {
                          addMessageDigest(signer);
                          push(signer, NID_pkcs9_contentType, {{V_ASN1_OBJECT, data}, {V_ASN1_OBJECT, second}});
                      })));
    }
    expectRefused(SignatureReason::contentTypeRepeated, reportOn(withAttributes([&](PKCS7_SIGNER_INFO* signer) {
                      addMessageDigest(signer);
                      push(signer, NID_pkcs9_contentType, {});
                  })));
    expectRefused(SignatureReason::messageDigestMissing,
                  reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) { addContentType(signer); })));
    for (const Bytes& second : {digestOf(body()), digestOf({})}) {
        expectRefused(SignatureReason::messageDigestRepeated, reportOn(withAttributes([&](PKCS7_SIGNER_INFO* signer) {
                          addContentType(signer);
                          addMessageDigest(signer);
                          pushDigests(signer, {second});
                      })));
        expectRefused(SignatureReason::messageDigestRepeated, reportOn(withAttributes([&](PKCS7_SIGNER_INFO* signer) {
                          addContentType(signer);
                          pushDigests(signer, {digestOf(body()), second});
                      })));
    }
    expectRefused(SignatureReason::messageDigestRepeated, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                      addContentType(signer);
                      pushDigests(signer, {});
                  })));
    expectRefused(SignatureReason::bodyDiffers, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                      addContentType(signer);
                      addMessageDigest(signer, {});
                  })));
    expectRefused(SignatureReason::signingTimeRepeated, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                      addContentType(signer);
                      addMessageDigest(signer);
                      EXPECT_EQ(PKCS7_add0_attrib_signing_time(signer, nullptr), 1);
                      push(signer, NID_pkcs9_signingTime, {});
                  })));
}

TEST(SignatureVerifier, AMessageDigestThatIsNoOctetStringIsMissing) {
    expectRefused(SignatureReason::messageDigestMissing, reportOn(withAttributes([](PKCS7_SIGNER_INFO* signer) {
                      addContentType(signer);
                      EXPECT_EQ(PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, V_ASN1_OBJECT,
                                                           OBJ_nid2obj(NID_pkcs7_data)),
                                1);
                  })));
}

// The prescribed verifier compares the message digest alone; programs depend on it.
TEST(SignatureVerifier, DeliberatelyThePrescribedVerifierAcceptsSuchAttributes) {
    const Received twice(withAttributes([](PKCS7_SIGNER_INFO* signer) {
        addContentType(signer, NID_pkcs7_enveloped);
        addMessageDigest(signer);
        pushDigests(signer, {digestOf({})});
    }));
    EXPECT_TRUE(twice.accepts(body(), certificateOf(identities().rsa)));
}

TEST(SignatureVerifier, AContentOfAnotherTypeNeedsAttributes) {
    const auto ofType = [](unsigned int flags) {
        const Bio content(BIO_new_mem_buf(body().data(), static_cast<int>(body().size())));
        flags |= CMS_BINARY;
        const CmsStructure structure(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags | CMS_PARTIAL));
        EXPECT_EQ(CMS_set1_eContentType(structure.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)), 1);
        EXPECT_NE(CMS_add1_signer(structure.get(), identities().rsa.certificate.x509().get(),
                                  identities().rsa.key.get(), EVP_sha256(), flags),
                  nullptr);
        EXPECT_EQ(CMS_final(structure.get(), content.get(), nullptr, flags), 1);
        const Bio out(BIO_new(BIO_s_mem()));
        EXPECT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
        return contentOf(out.get());
    };
    expectGood(identities().rsa, CMS::verifyEmbeddedSignatures(decoded(ofType(0))));
    expectRefused(SignatureReason::attributesMissing, CMS::verifyEmbeddedSignatures(decoded(ofType(CMS_NOATTR))));
}

// One key signs a body, or the encoding of attributes, and the signature does not tell which.
TEST(SignatureVerifier, ABodyThatIsASetOfAttributesIsRefusedWithoutAttributes) {
    const Bytes with = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    Bytes attributes;
    const Bytes without = changed(with, [&](PKCS7_SIGNER_INFO* signer) {
        unsigned char* set = nullptr;
        const int length =
            ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(signer->auth_attr), &set, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
        ASSERT_GT(length, 0);
        attributes.assign(set, set + length);
        OPENSSL_free(set);
        sk_X509_ATTRIBUTE_pop_free(signer->auth_attr, X509_ATTRIBUTE_free);
        signer->auth_attr = nullptr;
    });
    expectGood(identities().rsa, reportOn(with));
    EXPECT_TRUE(Received(without).accepts(attributes, certificateOf(identities().rsa))) << "what it is about";
    expectRefused(SignatureReason::bodyIsAttributes, reportOn(without, attributes));
    // With attributes it is clear what was signed.
    expectGood(identities().rsa,
               reportOn(signedByOpenssl(identities().rsa, attributes, "SHA256", CMS_DETACHED), attributes));
}

TEST(SignatureVerifier, NamesWhatItDoesNotSupport) {
    const auto& ids = identities();
    expectUnsupported(SignatureReason::signatureAlgorithm, "RSASSA-PSS", reportOn(signedWithPss()));
    expectUnsupported(SignatureReason::signatureAlgorithm, "RSASSA-PSS", reportOn(signedWithPss(CMS_NOATTR)));
    EXPECT_TRUE(only(reportOn(signedWithPss())).certificate == certificateOf(ids.rsa)) << "whom it would be about";
    const Bytes made = signedByOpenssl(ids.rsa, body(), "SHA256", CMS_DETACHED);
    expectUnsupported(SignatureReason::signatureAlgorithm, "Ed25519",
                      reportOn(withAlgorithms(made, nullptr, "1.3.101.112")));
    expectUnsupported(SignatureReason::signatureAlgorithm, "1.2.3.4.5.6",
                      reportOn(withAlgorithms(made, nullptr, "1.2.3.4.5.6")));
    expectUnsupported(SignatureReason::digestAlgorithm, "1.2.3.4.5.6",
                      reportOn(withAlgorithms(made, "1.2.3.4.5.6", nullptr)));
    expectUnsupported(SignatureReason::digestAlgorithm, "shake256",
                      reportOn(withAlgorithms(made, "2.16.840.1.101.3.4.2.12", nullptr)));
    // What the digest tells of the body is told all the same.
    expectRefused(SignatureReason::bodyDiffers, reportOn(signedWithPss(), {}));
}

TEST(SignatureVerifier, KeysOfOtherKindsAreUnsupported) {
    const Bytes made = signedByStream(identities().rsa, body());
    const auto with = [&](const Identity& identity) {
        PiecewiseIn in(body());
        return CMS::verifySignatures(decoded(made), in, {certificateOf(identity)});
    };
    expectUnsupported(SignatureReason::keyAlgorithm, "Ed25519", with(namedLikeRsa(norvauthority::Key::ed25519())));
    expectUnsupported(SignatureReason::keyTooLarge, "rsaEncryption", with(namedLikeRsa(publicRsa(2048, 65))));
    expectUnsupported(SignatureReason::keyTooLarge, "rsaEncryption", with(namedLikeRsa(publicRsa(16400, 64))));
    expectRefused(SignatureReason::signatureWrong, with(namedLikeRsa(publicRsa(2048, 64))));
}

TEST(SignatureVerifier, JudgesSha3) {
    const Bytes made = signedWith(
        identities().rsa, 0, [](CMS_SignerInfo*) {}, EVP_sha3_256());
    expectGood(identities().rsa, reportOn(made));
    expectRefused(SignatureReason::bodyDiffers, reportOn(made, {}));
}

TEST(SignatureVerifier, UnderstandsADigestNamedByItsSignatureAlgorithm) {
    expectGood(identities().rsa,
               reportOn(withAlgorithms(signedByStream(identities().rsa, body()), "1.2.840.113549.1.1.11", nullptr)));
}

TEST(SignatureVerifier, OneBadSignerIsEnough) {
    const Bytes one = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    const Bytes two = withSigners(one, 2);
    EXPECT_TRUE(reportOn(two).allGood());
    const SignatureReport report =
        reportOn(changed(two, [](PKCS7_SIGNER_INFO* signer) { signer->enc_digest->data[7] ^= 1U; }));
    ASSERT_EQ(report.signers.size(), 2U);
    EXPECT_FALSE(report.allGood());
    EXPECT_EQ(std::count_if(report.signers.begin(), report.signers.end(),
                            [](const auto& signer) { return signer.verdict == SignatureVerdict::good; }),
              1);
}

TEST(SignatureVerifier, NoSignerIsNoSignature) {
    const Bytes made = withSigners(signedByStream(identities().rsa, body()), 0);
    EXPECT_TRUE(reportOn(made).signers.empty());
    EXPECT_FALSE(reportOn(made).allGood());
}

TEST(SignatureVerifier, JudgesAHundredSignersAndNotOneMore) {
    const Bytes made = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    const SignatureReport report = reportOn(withSigners(made, 100));
    EXPECT_EQ(report.signers.size(), 100U);
    EXPECT_TRUE(report.allGood());
    const Caught failure = caught([&] { const CMS::SignatureVerifier none(decoded(withSigners(made, 101))); });
    EXPECT_EQ(failure.where, "CMS::SignatureVerifier::SignatureVerifier");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSVerification");
    EXPECT_EQ(failure.details, std::vector<std::string>{"more than 100 signers"});
}

TEST(SignatureVerifier, OtherStructuresAreNoSignedData) {
    const Bytes plain = der::sequence({der::oid("1.2.840.113549.1.7.1"), der::element(0xA0, der::element(4, body()))});
    for (const CMS::RefContentInfo& structure :
         {decoded(plain), CMS::RefContentInfo(false), CMS::RefContentInfo(true)}) {
        const Caught failure = caught([&] { const CMS::SignatureVerifier none(structure); });
        EXPECT_EQ(failure.where, "CMS::SignatureVerifier::SignatureVerifier");
        EXPECT_EQ(failure.details, std::vector<std::string>{"no signed data"});
    }
}

// PKCS#7 1.5 may have any structure in the place of the content's bytes.
TEST(SignatureVerifier, AStructureInThePlaceOfBytesIsRefused) {
    const auto part = [](const std::string& type, const Bytes& content) {
        return der::sequence({der::oid(type), der::element(0xA0, content)});
    };
    const Bytes structure =
        part("1.2.840.113549.1.7.2",
             der::sequence({der::integer("1"), der::set({}), part("1.2.3.4", der::sequence({})), der::set({})}));
    EXPECT_EQ(CMS::carriedContent(decoded(structure)), CMS::CarriedContent::other);
    EXPECT_EQ(caught([&] { const CMS::SignatureVerifier none(decoded(structure)); }).details,
              std::vector<std::string>{"the content is a structure, not bytes"});
}

TEST(SignatureVerifier, EveryReasonHasAText) {
    std::set<std::string> texts;
    for (int reason = 0; reason <= 14; ++reason) {
        texts.insert(CMS::textOf(static_cast<SignatureReason>(reason)));
    }
    for (int reason = 101; reason <= 107; ++reason) {
        texts.insert(CMS::textOf(static_cast<SignatureReason>(reason)));
    }
    EXPECT_EQ(texts.size(), 22U);
    EXPECT_EQ(texts.count(""), 0U);
}

TEST(SignatureVerifier, AnEmbeddedBodyWithTheCertificatesGiven) {
    const Bytes made = signedByOpenssl(identities().rsa, bodyOf(50), "SHA256", CMS_NOCERTS);
    EXPECT_EQ(CMS::verifyEmbeddedSignatures(decoded(made)).signers.front().reason, SignatureReason::certificateMissing);
    const SignatureReport report = CMS::verifyEmbeddedSignatures(
        decoded(made), {certificateOf(identities().otherRsa), certificateOf(identities().rsa)});
    EXPECT_TRUE(report.allGood());
    EXPECT_TRUE(report.signers.front().certificate == certificateOf(identities().rsa));
    const SignatureReport wrong = CMS::verifyEmbeddedSignatures(decoded(made), {certificateOf(identities().otherRsa)});
    EXPECT_EQ(wrong.signers.front().reason, SignatureReason::certificateMissing);
}

TEST(SignatureVerifier, ACertificateWithANegativeSerialNumberIsFound) {
    // RFC 5280, 4.1.2.2 forbids it, and asks of programs that they cope with it.
    for (const char* serial : {"-1f", "-80", "-1234567890abcdef1234"}) {
        const Identity person = norvauthority::issue({.subject = {{"CN", "below"}},
                                                      .key = identities().rsa.key,
                                                      .issuer = &identities().authority,
                                                      .serial = serial});
        const Bytes made = signedByOpenssl(person, bodyOf(50), "SHA256", 0);
        EXPECT_TRUE(CMS::verifyEmbeddedSignatures(decoded(made)).allGood()) << serial;
    }
}

TEST(SignatureVerifier, MovedOnesGoOn) {
    const Bytes made = signedByOpenssl(identities().rsa, bodyOf(50), "SHA256", CMS_DETACHED);
    CMS::SignatureVerifier verifier(decoded(made));
    CMS::SignatureVerifier other(decoded(signedByOpenssl(identities().ec, bodyOf(3), "SHA256", CMS_DETACHED)));
    verifier.write(bodyOf(50).data(), 20);
    other = std::move(verifier);
    other.write(bodyOf(50).data() + 20, 30);
    EXPECT_TRUE(other.report().allGood());
}

TEST(SignatureVerifier, EachReasonIsOneSentenceOfItsOwn) {
    std::set<std::string> texts;
    const auto expectSentences = [&](SignatureReason first, SignatureReason last) {
        for (int number = static_cast<int>(first); number <= static_cast<int>(last); ++number) {
            const std::string text = textOf(static_cast<SignatureReason>(number));
            EXPECT_THAT(text, testing::MatchesRegex("[a-z][ -~]*[a-zR]")) << number;
            EXPECT_TRUE(texts.insert(text).second) << text;
        }
    };
    expectSentences(SignatureReason::none, SignatureReason::receiptRequestRepeated);
    expectSentences(SignatureReason::digestAlgorithm, SignatureReason::certificateRefused);
    EXPECT_EQ(texts.size(), 33U); // as many as the header names
    EXPECT_STREQ(textOf(SignatureReason::bodyDiffers), "the body is not the one that was signed");
    for (const int unknown : {-1, 22, 100, 112}) {
        EXPECT_STREQ(textOf(static_cast<SignatureReason>(unknown)), "") << unknown;
    }
}
