#include "support/Slots.h"
#include "support/X509Testing.h"

#include <norvcrypto/Certificate.h>

#include <openssl/x509.h>

#include <algorithm>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;

namespace {

class CertificateVerifierTest : public QuietQueue {
protected:
    void TearDown() override {
        CertificateVerifier::s_instance = nullptr;
        QuietQueue::TearDown();
    }
};

class CertificateFilterTest : public QuietQueue {};

TEST_F(CertificateVerifierTest, NoneIsInstalledAtFirst) {
    EXPECT_EQ(CertificateVerifier::s_instance, nullptr);
    try {
        CertificateVerifier::instance();
        FAIL() << "nothing was thrown";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.where(), "CertificateVerifier::instance");
        EXPECT_EQ(exception.code(), 4);
        EXPECT_EQ(exception.fileName(), "Certificate");
        EXPECT_EQ(exception.lineNumber(), 631U);
        EXPECT_TRUE(exception.parameters().empty());
        EXPECT_FALSE(exception.hasCause());
    }
}

TEST_F(CertificateVerifierTest, TheBaseVerifiesNothing) {
    CertificateVerifier base;
    CertificateVerifier::s_instance = &base;
    try {
        CertificateVerifier::instance()->isValid(RefCertificate(), 0, false);
        FAIL() << "nothing was thrown";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.where(), "CertificateVerifier::isValid");
        EXPECT_EQ(exception.code(), 4);
        EXPECT_EQ(exception.fileName(), "Certificate");
        EXPECT_EQ(exception.lineNumber(), 646U);
        EXPECT_TRUE(exception.parameters().empty());
        EXPECT_FALSE(exception.hasCause());
    }
}

TEST_F(CertificateVerifierTest, AnInstalledVerifierIsAsked) {
    struct Recording : CertificateVerifier {
        bool isValid(const RefCertificate& certificate, int purpose, bool online) override {
            asked = certificate;
            return purpose == 7 && online;
        }
        RefCertificate asked;
    };
    Recording verifier;
    CertificateVerifier::s_instance = &verifier;
    EXPECT_EQ(CertificateVerifier::instance(), &verifier);
    const auto certificate = read(issue({.subject = {{"CN", "A"}}, .key = anyKey()}));
    EXPECT_TRUE(CertificateVerifier::instance()->isValid(certificate, 7, true));
    EXPECT_FALSE(CertificateVerifier::instance()->isValid(certificate, 7, false));
    EXPECT_TRUE(verifier.asked == certificate);
}

TEST_F(CertificateVerifierTest, OperationsKeepTheirSlots) {
    EXPECT_EQ(norvtest::slotOf(&CertificateVerifier::isValid), 2U);
    EXPECT_EQ(norvtest::slotOf(&CertificateFilter::operator()), 2U);
}

// Filters

const norvauthority::Name authorityName{{"CN", "Authority"}};

Identity authority(const char* subjectKey) {
    norvauthority::CertificateRequest request{.subject = authorityName, .key = anyKey(), .ca = true};
    request.keyUsage = 0x80; // no keyCertSign: the filter does not care
    request.subjectKeyIdentifier = subjectKey != nullptr;
    if (subjectKey != nullptr) {
        request.subjectKeyIdentifierValue = fromHex(subjectKey);
    }
    return issue(request);
}

RefCertificate subject(const char* authorityKey) {
    norvauthority::CertificateRequest request{.subject = {{"CN", "Subject"}}, .key = anyKey()};
    request.issuerName = authorityName;
    request.authorityKeyIdentifier = authorityKey != nullptr;
    if (authorityKey != nullptr) {
        request.authorityKeyIdentifierValue = fromHex(authorityKey);
    }
    return read(issue(request));
}

TEST_F(CertificateFilterTest, ExactMatchComparesSerialNumberAndSignature) {
    const auto first = authority("aa");
    ExactMatchFilter filter(read(first));
    EXPECT_TRUE(filter(read(first)));
    EXPECT_FALSE(filter(subject("aa")));
    EXPECT_FALSE(filter(RefCertificate()));
    EXPECT_TRUE(ExactMatchFilter(RefCertificate())(RefCertificate()));
}

/// What anybody can make: another name under the serial number and signature of a given certificate.
RefCertificate forgedFrom(const RefCertificate& genuine) {
    const std::unique_ptr<X509, decltype(&X509_free)> forgery(X509_dup(genuine), X509_free);
    const auto name = norvauthority::Name{{"CN", "Mallory"}}.x509Name();
    EXPECT_EQ(X509_set_subject_name(forgery.get(), name.get()), 1);
    EXPECT_GT(i2d_re_X509_tbs(forgery.get(), nullptr), 0); // the encoding is kept otherwise
    unsigned char* der = nullptr;
    const int length = i2d_X509(forgery.get(), &der);
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owned(
        der, [](unsigned char* memory) { OPENSSL_free(memory); });
    return CertificateFactory().readDER({der, static_cast<unsigned int>(length), false});
}

TEST_F(CertificateFilterTest, AForgedCopyIsEqualButNotOfTheSameEncoding) {
    const auto genuine = read(authority("aa"));
    const auto forged = forgedFrom(genuine);
    ASSERT_FALSE(forged.isNull());
    EXPECT_EQ(forged->subject().asString(), "CN=Mallory");
    EXPECT_TRUE(genuine == forged) << "deliberate: serial number and signature are all that is compared";
    EXPECT_TRUE(ExactMatchFilter(genuine)(forged));
    EXPECT_FALSE(sameEncoding(genuine, forged));
    EXPECT_FALSE(sameEncoding(forged, genuine));
    EXPECT_FALSE(SameEncodingFilter(genuine)(forged));
}

TEST_F(CertificateFilterTest, CopiesHaveTheSameEncoding) {
    const auto first = authority("aa");
    const auto certificate = read(first);
    EXPECT_TRUE(sameEncoding(certificate, certificate));
    EXPECT_TRUE(sameEncoding(certificate, read(first)));
    EXPECT_TRUE(SameEncodingFilter(certificate)(read(first)));
    EXPECT_FALSE(sameEncoding(certificate, subject("aa")));
}

TEST_F(CertificateFilterTest, NothingHasTheEncodingOfNoCertificate) {
    const auto certificate = read(authority("aa"));
    const RefCertificate hollow = CertificateFactory()(nullptr, false);
    for (const auto& none : {RefCertificate(), hollow}) {
        EXPECT_FALSE(sameEncoding(none, certificate));
        EXPECT_FALSE(sameEncoding(certificate, none));
        EXPECT_FALSE(sameEncoding(none, none));
        EXPECT_FALSE(SameEncodingFilter(none)(none));
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(CertificateFilterTest, IssuerIsFoundByNameAndKeyIdentifier) {
    IssuerFilter filter(subject("aa"));
    EXPECT_TRUE(filter(read(authority("aa"))));
    EXPECT_FALSE(filter(read(authority("bb"))));
}

TEST_F(CertificateFilterTest, MissingKeyIdentifiersLeaveItToTheName) {
    EXPECT_TRUE(IssuerFilter(subject("aa"))(read(authority(nullptr))));
    EXPECT_TRUE(IssuerFilter(subject(nullptr))(read(authority("bb"))));
    EXPECT_TRUE(IssuerFilter(subject(nullptr))(read(authority(nullptr))));
}

TEST_F(CertificateFilterTest, AnotherNameIsNoIssuer) {
    const auto certificate = subject("aa");
    EXPECT_FALSE(IssuerFilter(certificate)(certificate));
}

TEST_F(CertificateFilterTest, KeyUsageIsNotLookedAt) {
    const auto certificate = subject("aa");
    const auto issuer = read(authority("aa"));
    EXPECT_FALSE(certificate->issuedBy(issuer, true));
    EXPECT_TRUE(IssuerFilter(certificate)(issuer));
}

TEST_F(CertificateFilterTest, EmptyHandlesNeitherIssueNorAreIssued) {
    EXPECT_FALSE(IssuerFilter(RefCertificate())(read(authority("aa"))));
    EXPECT_FALSE(IssuerFilter(subject("aa"))(RefCertificate()));
}

TEST_F(CertificateFilterTest, FiltersSearchLists) {
    const std::list<RefCertificate> list{RefCertificate(), subject("aa"), read(authority("bb")), read(authority("aa"))};
    const auto found = std::find_if(list.begin(), list.end(), IssuerFilter(subject("aa")));
    EXPECT_EQ(std::distance(list.begin(), found), 3);
}

TEST_F(CertificateFilterTest, TheReferenceIsKeptAlive) {
    auto certificate = subject("aa");
    const IssuerFilter filter(certificate);
    certificate = RefCertificate();
    auto copy = filter;
    EXPECT_TRUE(copy(read(authority("aa"))));
}

} // namespace
