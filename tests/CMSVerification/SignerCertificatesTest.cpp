// Which of the certificates offered are those that a signer names.
#include "support/HandMadeSigners.h"

#include <norvcrypto/CMSVerification.h>

#include <openssl/objects.h>

using namespace cmstest;
namespace der = norvauthority::der;
using CMS::SignatureReason;
using CMS::SignatureReport;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

SignatureReport reportOn(const Bytes& structure, const Bytes& content = body()) {
    PiecewiseIn in(structure);
    PiecewiseIn bodyIn(content, 1); // an octet at a time
    return CMS::verifySignatures(CMS::RefContentInfo(in), bodyIn);
}
SignatureReason reasonFor(const Bytes& structure, const Bytes& content = body()) {
    const SignatureReport report = reportOn(structure, content);
    EXPECT_EQ(report.signers.size(), 1U);
    return report.signers.front().reason;
}
const Bytes& signedByAlice() {
    static const Bytes made = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED);
    return made;
}
const Bytes& withoutCertificates() {
    static const Bytes made = signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED | CMS_NOCERTS);
    return made;
}

} // namespace

TEST(SignerCertificates, OfEverySerialNumber) {
    for (const char* serial : {"0", "1", "7f", "80", "ff", "0100", "8000", "ff00", "-1", "-80", "-81", "-100"}) {
        SCOPED_TRACE(serial);
        const Identity person = norvauthority::issue({.subject = {{"CN", "somebody"}},
                                                      .key = identities().rsa.key,
                                                      .issuer = &identities().authority,
                                                      .serial = serial});
        EXPECT_EQ(reasonFor(signedByOpenssl(person, body(), "SHA256", CMS_DETACHED)), SignatureReason::none);
    }
}

TEST(SignerCertificates, OfAnotherIssuerWithTheSameSerialNumber) {
    const Identity other = norvauthority::issue({.subject = {{"CN", "somebody"}},
                                                 .key = identities().rsa.key,
                                                 .issuer = &identities().otherRsa,
                                                 .serial = identities().rsa.serial});
    EXPECT_EQ(reasonFor(withCertificates(withoutCertificates(), {other.certificate.der})),
              SignatureReason::certificateMissing);
    EXPECT_EQ(reasonFor(withCertificates(signedByAlice(), {other.certificate.der})), SignatureReason::none);
}

TEST(SignerCertificates, CopiesCountOnce) {
    const Bytes wrong = namedLikeRsa(identities().otherRsa.key).certificate.der;
    EXPECT_EQ(reasonFor(withCertificates(signedByAlice(), std::vector<Bytes>(20, wrong))), SignatureReason::none);
    std::vector<Bytes> different;
    for (const char* subject : {"1", "2", "3", "4"}) {
        different.push_back(namedLikeRsa(identities().otherRsa.key, subject).certificate.der);
    }
    EXPECT_EQ(reasonFor(withCertificates(withoutCertificates(), different)), SignatureReason::signatureWrong);
    different.push_back(namedLikeRsa(identities().otherRsa.key, "5").certificate.der);
    EXPECT_EQ(reasonFor(withCertificates(withoutCertificates(), different)), SignatureReason::tooManyCertificates);
}

// Who builds structures with OpenSSL's calls may leave out what no decoder does.
TEST(SignerCertificates, OfASignerWithoutAName) {
    for (const int part : {0, 1, 2}) {
        const unsigned char* cursor = signedByAlice().data();
        const Pkcs7 structure(d2i_PKCS7(nullptr, &cursor, static_cast<long>(signedByAlice().size())));
        ASSERT_NE(structure, nullptr);
        PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(structure->d.sign->signer_info, 0);
        PKCS7_ISSUER_AND_SERIAL* name = signer->issuer_and_serial;
        if (part == 0) {
            PKCS7_ISSUER_AND_SERIAL_free(name);
            signer->issuer_and_serial = nullptr;
        } else if (part == 1) {
            X509_NAME_free(name->issuer);
            name->issuer = nullptr;
        } else {
            ASN1_INTEGER_free(name->serial);
            name->serial = nullptr;
        }
        PiecewiseIn in(body());
        const SignatureReport report = CMS::verifySignatures(CMS::RefContentInfo(structure.get()), in);
        ASSERT_EQ(report.signers.size(), 1U);
        EXPECT_EQ(report.signers.front().reason, SignatureReason::certificateMissing);
    }
}

TEST(SignerCertificates, BodiesThatAreNotTheContent) {
    const Bytes attached = signedByOpenssl(identities().rsa, body(), "SHA256", 0);
    EXPECT_EQ(reasonFor(attached), SignatureReason::none);
    Bytes longer = body();
    longer.push_back(longer.back());
    EXPECT_EQ(reasonFor(attached, longer), SignatureReason::contentDiffers);
    EXPECT_EQ(reasonFor(attached, Bytes(body().begin(), body().end() - 1)), SignatureReason::contentDiffers);
    Bytes other = body();
    other.back() ^= 1U;
    EXPECT_EQ(reasonFor(attached, other), SignatureReason::contentDiffers);
    EXPECT_EQ(reasonFor(attached, {}), SignatureReason::contentDiffers);
}

TEST(SignerCertificates, NothingIsWrittenWithoutOctets) {
    PiecewiseIn in(signedByAlice());
    CMS::SignatureVerifier verifier{CMS::RefContentInfo(in)};
    verifier.write(nullptr, 7);
    verifier.write(body().data(), 0);
    verifier.write(body().data(), 1);
    verifier.write(nullptr, 0);
    verifier.write(body().data() + 1, body().size() - 1);
    EXPECT_TRUE(verifier.report().allGood());
    EXPECT_EQ(verifier.report().bodyLength, body().size());
}

TEST(SignerCertificates, WhatIsNotSignedCarriesNothing) {
    const Bytes enveloped =
        norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"), der::octetString({1}));
    PiecewiseIn in(enveloped);
    EXPECT_EQ(CMS::carriedContent(CMS::RefContentInfo(in)), CMS::CarriedContent::none);
    PiecewiseIn detached(signedByAlice());
    EXPECT_EQ(CMS::carriedContent(CMS::RefContentInfo(detached)), CMS::CarriedContent::none);
    const Bytes attached = signedByOpenssl(identities().rsa, body(), "SHA256", 0);
    PiecewiseIn attachedIn(attached);
    EXPECT_EQ(CMS::carriedContent(CMS::RefContentInfo(attachedIn)), CMS::CarriedContent::octets);
}
