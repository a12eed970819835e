// What judging costs, counted at OpenSSL: a stranger chooses how many signers, certificates and digests there are.
#include "support/HandMadeSigners.h"
#include "support/Interpose.h"

#include <norvcrypto/CMSVerification.h>

using namespace cmstest;
using CMS::SignatureReason;

namespace {

int s_verifications = 0;
int s_attributeEncodings = 0;
std::size_t s_digested = 0;
std::size_t s_comparisons = 0;
int s_failingCopies = 0;
int s_decoded = 0;         ///< certificates
bool s_withoutKey = false; ///< as if there had been no memory for that of the first certificate when it was decoded
const X509* s_first = nullptr;

} // namespace

extern "C" {

int EVP_PKEY_verify(EVP_PKEY_CTX* context, const unsigned char* signature, std::size_t signatureLength,
                    const unsigned char* digest, std::size_t digestLength) {
    ++s_verifications;
    return norvtest::next<&EVP_PKEY_verify>("EVP_PKEY_verify")(context, signature, signatureLength, digest,
                                                               digestLength);
}

int EVP_MD_CTX_copy_ex(EVP_MD_CTX* out, const EVP_MD_CTX* in) {
    return s_failingCopies > 0 && s_failingCopies-- > 0
               ? 0
               : norvtest::next<&EVP_MD_CTX_copy_ex>("EVP_MD_CTX_copy_ex")(out, in);
}

EVP_PKEY* X509_get0_pubkey(const X509* certificate) {
    if (s_withoutKey && s_first == nullptr) {
        s_first = certificate;
    }
    return s_withoutKey && certificate == s_first ? nullptr
                                                  : norvtest::next<&X509_get0_pubkey>("X509_get0_pubkey")(certificate);
}

X509* d2i_X509(X509** certificate, const unsigned char** in, long length) {
    ++s_decoded;
    return norvtest::next<&d2i_X509>("d2i_X509")(certificate, in, length);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t length) {
    s_digested += length;
    return norvtest::next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, data, length);
}

int ASN1_item_i2d(const ASN1_VALUE* value, unsigned char** out, const ASN1_ITEM* item) {
    s_attributeEncodings +=
        out != nullptr && item == ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY) ? 1 : 0; // not those that ask for the length
    return norvtest::next<&ASN1_item_i2d>("ASN1_item_i2d")(value, out, item);
}

int X509_NAME_cmp(const X509_NAME* one, const X509_NAME* other) {
    ++s_comparisons;
    return norvtest::next<&X509_NAME_cmp>("X509_NAME_cmp")(one, other);
}
}

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(100000);
    return content;
}

const Bytes& sound() {
    static const Bytes made = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    return made;
}

CMS::SignatureReport countedReport(const Bytes& structure) {
    PiecewiseIn in(structure);
    const CMS::RefContentInfo decoded(in);
    PiecewiseIn bodyIn(body(), 65536);
    s_verifications = 0;
    s_attributeEncodings = 0;
    s_digested = 0;
    s_comparisons = 0;
    s_decoded = 0;
    return CMS::verifySignatures(decoded, bodyIn);
}

/// Signers whose signatures are wrong, under 10 different certificates of their name.
Bytes hostile(int signers, const std::vector<Bytes>& certificates) {
    const Bytes wrong = changed(sound(), [](PKCS7_SIGNER_INFO* signer) { signer->enc_digest->data[7] ^= 1U; });
    return withCertificates(withSigners(wrong, signers), certificates);
}

} // namespace

TEST(VerificationWork, OneOperationForAGoodSigner) {
    EXPECT_TRUE(countedReport(sound()).allGood());
    EXPECT_EQ(s_verifications, 1);
    EXPECT_EQ(s_attributeEncodings, 1);
}

// The key of the certificate is a sound one: that OpenSSL does not have it is no fault of the signature, nor something unsupported.
TEST(VerificationWork, AKeyForWhichThereWasNoMemoryIsNoVerdict) {
    const Bytes& structure = sound();
    {
        const norvtest::During<bool> without(s_withoutKey, true);
        EXPECT_THROW(static_cast<void>(countedReport(structure)), std::bad_alloc);
    }
    EXPECT_TRUE(countedReport(structure).allGood());
}

// OpenSSL does not always say that it had no memory: a digest that it has is asked for once more before it counts as one that it has not.
TEST(VerificationWork, ADigestThatCannotBeBegunOnceIsNotUnsupported) {
    EXPECT_TRUE(countedReport(sound()).allGood()); // what is kept for the next one is there
    {
        const norvtest::During<int> failing(s_failingCopies, 1);
        EXPECT_TRUE(countedReport(sound()).allGood());
        EXPECT_EQ(s_failingCopies, 0);
    }
    const norvtest::During<int> failing(s_failingCopies, 2);
    EXPECT_EQ(countedReport(sound()).signers.front().reason, SignatureReason::digestAlgorithm);
}

// Whether there was no memory for a key is found out by decoding the certificate once more, which may be as long as the message.
TEST(VerificationWork, ACertificateWithoutAKeyIsDecodedOnceMoreForAllSigners) {
    Bytes withoutKey = identities().rsa.certificate.der;
    const Bytes algorithm{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
    const auto at = std::ranges::search(withoutKey, algorithm).begin();
    ASSERT_NE(at, withoutKey.end());
    at[8] = 0x63; // no algorithm
    static_cast<void>(countedReport(hostile(1, {withoutKey})));
    const int ofOne = s_decoded;
    EXPECT_GT(ofOne, 0);
    const auto report = countedReport(hostile(100, {withoutKey}));
    EXPECT_EQ(report.signers.back().reason, SignatureReason::keyAlgorithm);
    EXPECT_EQ(s_decoded, ofOne);
}

TEST(VerificationWork, CopiesOfACertificateAreOne) {
    const std::vector<Bytes> copies(500, identities().rsa.certificate.der);
    const auto report = countedReport(hostile(1, copies));
    EXPECT_EQ(report.signers.front().reason, SignatureReason::signatureWrong);
    EXPECT_EQ(s_verifications, 1);
}

TEST(VerificationWork, FewTriesForASigner) {
    std::vector<Bytes> alike;
    alike.reserve(50);
    for (int number = 0; number < 50; ++number) {
        alike.push_back(namedLikeRsa(identities().otherRsa.key, std::to_string(number)).certificate.der);
    }
    const auto report = countedReport(hostile(100, alike));
    EXPECT_EQ(report.signers.back().reason, SignatureReason::tooManyCertificates);
    EXPECT_EQ(s_verifications, 400) << "100 signers, 4 certificates each";
    EXPECT_EQ(s_attributeEncodings, 100);
}

TEST(VerificationWork, CertificatesAreNotComparedWithEverySigner) {
    std::vector<Bytes> certificates;
    for (int number = 0; number < 300; ++number) {
        certificates.push_back(identities().otherRsa.certificate.der);
    }
    static_cast<void>(countedReport(withCertificates(withSigners(sound(), 100), certificates)));
    EXPECT_LT(s_comparisons, 1000U);
}

TEST(VerificationWork, KeysWithHugeExponentsAreNotUsed) {
    std::vector<Bytes> certificates;
    for (const auto& [modulus, exponent] : {std::pair(3072, 3070), std::pair(2048, 2047), std::pair(16400, 17)}) {
        certificates.push_back(namedLikeRsa(publicRsa(modulus, exponent)).certificate.der);
    }
    const Bytes wrong = hostile(100, certificates);
    const auto report = countedReport(wrong);
    EXPECT_EQ(report.signers.front().reason, SignatureReason::keyTooLarge);
    EXPECT_EQ(s_verifications, 100) << "the sound certificate's key alone";
}

// 16384 bits and a 64-bit exponent are the most that one operation may cost; 30 of them are the most in a structure.
TEST(VerificationWork, TheSignersOfAStructureShareALimit) {
    const auto report = countedReport(hostile(100, {namedLikeRsa(publicRsa(16384, 64)).certificate.der}));
    EXPECT_EQ(report.signers.front().reason, SignatureReason::signatureWrong);
    EXPECT_EQ(report.signers.back().reason, SignatureReason::tooMuchWork);
    EXPECT_EQ(report.signers.back().verdict, CMS::SignatureVerdict::unsupported);
    EXPECT_LE(s_verifications, 130);
    EXPECT_GE(s_verifications, 30);
}

// bits^2 * exponent bits / 2^20: 68 for the sound certificate, 4932 or 4933 for the other one; a hundred times both is the limit, or
// a hundred above it.
TEST(VerificationWork, AllOfTheLimitMayBeSpent) {
    const auto all = countedReport(hostile(100, {namedLikeRsa(publicRsa(8990, 64)).certificate.der}));
    EXPECT_EQ(all.signers.back().reason, SignatureReason::signatureWrong);
    EXPECT_EQ(s_verifications, 200);
    const auto more = countedReport(hostile(100, {namedLikeRsa(publicRsa(8991, 64)).certificate.der}));
    EXPECT_EQ(more.signers.back().reason, SignatureReason::tooMuchWork);
    EXPECT_EQ(s_verifications, 199);
}

TEST(VerificationWork, AHundredUsualSignersAreWellBelowTheLimit) {
    EXPECT_TRUE(countedReport(withSigners(sound(), 100)).allGood());
    const Bytes ec = signedByOpenssl(identities().ec, body(), "SHA256", CMS_DETACHED);
    EXPECT_TRUE(countedReport(withSigners(ec, 100)).allGood());
}

TEST(VerificationWork, TheBodyIsDigestedOnceForEachAlgorithm) {
    EXPECT_TRUE(countedReport(withSigners(sound(), 100)).allGood());
    EXPECT_GE(s_digested, body().size());
    EXPECT_LT(s_digested, body().size() + body().size() / 2);
}

TEST(VerificationWork, TheNumberOfDigestAlgorithmsIsBounded) {
    // SHA-1, SHA-2, SHA-3, MD5: a signer for each.
    static constexpr const char* digests[]{"1.3.14.3.2.26",          "2.16.840.1.101.3.4.2.1", "2.16.840.1.101.3.4.2.2",
                                           "2.16.840.1.101.3.4.2.3", "2.16.840.1.101.3.4.2.4", "2.16.840.1.101.3.4.2.7",
                                           "2.16.840.1.101.3.4.2.8", "2.16.840.1.101.3.4.2.9", "1.2.840.113549.2.5"};
    const Bytes many = withSigners(sound(), static_cast<int>(std::size(digests)));
    const unsigned char* cursor = many.data();
    const Pkcs7 structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(many.size())));
    int at = 0;
    for (const char* digest : digests) {
        PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(structure->d.sign->signer_info, at++);
        X509_ALGOR_set0(signer->digest_alg, OBJ_txt2obj(digest, 1), V_ASN1_UNDEF, nullptr);
    }
    const auto report = countedReport(derOf(structure.get()));
    EXPECT_LT(s_digested, 4 * body().size() + body().size() / 2);
    EXPECT_EQ(std::count_if(report.signers.begin(), report.signers.end(),
                            [](const auto& signer) { return signer.reason == SignatureReason::tooManyDigests; }),
              5);
}
