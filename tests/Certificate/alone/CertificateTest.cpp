#include "support/Thrown.h"
#include "support/X509Testing.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Crypto.h>

#include <dlfcn.h>

#include <openssl/asn1.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using namespace x509testing;
using AuthorityName = norvauthority::GeneralName;

namespace {

int flagReadings = 0;
bool stacksFail = false;

} // namespace

// Counts how often the library looks at the extension flags.
extern "C" uint32_t X509_get_extension_flags(X509* x509) {
    ++flagReadings;
    static const auto original =
        reinterpret_cast<decltype(&X509_get_extension_flags)>(dlsym(RTLD_NEXT, "X509_get_extension_flags"));
    return original(x509);
}

extern "C" OPENSSL_STACK* OPENSSL_sk_new_null() {
    static const auto original =
        reinterpret_cast<decltype(&OPENSSL_sk_new_null)>(dlsym(RTLD_NEXT, "OPENSSL_sk_new_null"));
    return stacksFail ? nullptr : original();
}

namespace {

class CertificateTest : public QuietQueue {};

const Identity& root() {
    static const Identity identity = issue({.subject = {{"C", "DE"}, {"O", "Org"}, {"CN", "Root"}},
                                            .key = anyKey(),
                                            .serial = "1234567890abcdef1234",
                                            .ca = true,
                                            .keyUsage = 0x06,
                                            .subjectKeyIdentifierValue = fromHex("a1a2a3")});
    return identity;
}

const Identity& alice() {
    static const Identity identity =
        issue({.subject = {{"C", "US"}, {"O", "Org"}, {"CN", "Alice"}},
               .key = norvauthority::Key::rsa(),
               .issuer = &root(),
               .serial = "0a",
               .keyUsage = 0xC0,
               .extendedKeyUsage = {"emailProtection", "clientAuth"},
               .alternativeNames = {AuthorityName::email("alice@example.org"), AuthorityName::dns("example.org")},
               .subjectKeyIdentifierValue = fromHex("b1b2b3b4"),
               .crlDistributionPoints = {{.name = norvauthority::DistributionPointName{
                                              .full = {AuthorityName::uri("http://example.org/ca.crl")}}}}});
    return identity;
}

/// An extension of this kind whose value is no DER of it.
norvauthority::Extension broken(const char* kind) {
    return {.oid = kind, .value = fromHex("ffff")};
}

// A certificate without X509

TEST_F(CertificateTest, WithoutX509EveryAnswerIsEmpty) {
    const RefCertificate none = CertificateFactory()(nullptr, true);
    ASSERT_FALSE(none.isNull());
    EXPECT_EQ(static_cast<x509_st*>(none), nullptr);
    EXPECT_EQ(none->issuer().asString(), "");
    EXPECT_EQ(none->subject().asString(), "");
    EXPECT_EQ(none->name(), "");
    EXPECT_EQ(none->version(), -1);
    EXPECT_EQ(none->serialNumber().object(), nullptr);
    EXPECT_EQ(none->keyUsage(), 0UL);
    EXPECT_EQ(none->extendedKeyUsage(), 0UL);
    EXPECT_TRUE(none->extensions().empty());
    EXPECT_TRUE(none->find(oid("2.5.29.15")).isNull());
    EXPECT_TRUE(none->subjectAlternativeName().isNull());
    EXPECT_TRUE(none->basicConstraints().isNull());
    EXPECT_TRUE(none->crlDistributionPoints().isNull());
    EXPECT_TRUE(none->authorityKeyIdentifier().isNull());
    EXPECT_TRUE(none->subjectKeyIdentifier().isNull());
    EXPECT_FALSE(none->validityPeriod().valid(0));
    EXPECT_TRUE(none->validityPeriod().notBefore().isNull());
    EXPECT_TRUE(none->isSelfSigned());
    EXPECT_FALSE(none->isCACert());
    EXPECT_FALSE(none->issuedBy(read(root()), false));
    EXPECT_FALSE(read(alice())->issuedBy(none, false));
    ASSERT_FALSE(none->key().isNull());
    EXPECT_EQ(static_cast<evp_pkey_st*>(none->key()), nullptr);
    none->warm();
}

TEST_F(CertificateTest, WithoutX509NothingIsWritten) {
    const RefCertificate none = CertificateFactory()(nullptr, true);
    MemoryMediaOut out;
    none->writeDER(out);
    none->writePEM(out);
    EXPECT_EQ(out.content().length(), 0U);
}

// Fields

TEST_F(CertificateTest, NamesPrintFromTheLastEntryToTheFirst) {
    const auto certificate = read(alice());
    EXPECT_EQ(certificate->subject().asString(), "CN=Alice,O=Org,C=US");
    EXPECT_EQ(certificate->issuer().asString(), "CN=Root,O=Org,C=DE");
    EXPECT_EQ(&certificate->subject(), &certificate->subject());
}

TEST_F(CertificateTest, NameIsTheOneLineSubject) {
    const auto certificate = read(alice());
    EXPECT_EQ(certificate->name(), "/C=US/O=Org/CN=Alice");
    EXPECT_EQ(&certificate->name(), &certificate->name());
}

TEST_F(CertificateTest, NameEscapesBytesOutsideAscii) {
    const auto certificate = read(issue({.subject = {{"CN", "A\x01\xE9", V_ASN1_T61STRING}}, .key = anyKey()}));
    EXPECT_EQ(certificate->name(), "/CN=A\\x01\\xE9");
}

TEST_F(CertificateTest, NameOfAnEmptySubjectIsEmpty) {
    const auto certificate = read(issue({.key = anyKey()}));
    EXPECT_EQ(certificate->name(), "");
    EXPECT_EQ(certificate->subject().asString(), "");
}

TEST_F(CertificateTest, VersionIsTheRawField) {
    EXPECT_EQ(read(alice())->version(), 2);
    EXPECT_EQ(read(issue({.key = anyKey(), .version = 1}))->version(), 0);
    EXPECT_EQ(read(issue({.key = anyKey(), .version = 2}))->version(), 1);
}

TEST_F(CertificateTest, SerialNumberIsReadOnce) {
    const auto certificate = read(root());
    EXPECT_EQ(certificate->serialNumber().hex(), "1234567890abcdef1234");
    EXPECT_EQ(&certificate->serialNumber(), &certificate->serialNumber());
    EXPECT_EQ(read(alice())->serialNumber().asInt(), 10);
}

TEST_F(CertificateTest, NegativeSerialNumberThrowsEachTimeItIsAskedForAndNotBefore) {
    const auto certificate = read(issue({.subject = {{"CN", "Odd"}}, .key = anyKey(), .serial = "-1f"}));
    ASSERT_FALSE(certificate.isNull());
    EXPECT_EQ(certificate->subject().asString(), "CN=Odd");
    certificate->warm();
    for (int i = 0; i < 2; ++i) {
        try {
            static_cast<void>(certificate->serialNumber());
            FAIL() << "nothing was thrown";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.where(), "ASN1::Integer::Integer");
            EXPECT_EQ(exception.code(), 4);
            EXPECT_EQ(exception.fileName(), "ASN1");
            EXPECT_EQ(exception.lineNumber(), 25U);
            ASSERT_EQ(exception.parameters().size(), 1U);
            EXPECT_EQ(std::get<std::string>(exception.parameters()[0]), "Parameter value is not an ASN1 Integer");
        }
    }
}

TEST_F(CertificateTest, ValidityPeriodIsThatOfTheCertificate) {
    const auto certificate = read(issue({.key = anyKey(),
                                         .notBefore = norvauthority::Time::utc("990102030405Z"),
                                         .notAfter = norvauthority::Time::generalized("20500607080910Z")}));
    EXPECT_EQ(certificate->validityPeriod().notBefore()->asTime().asString(), "1999-01-02T03:04:05Z");
    EXPECT_EQ(certificate->validityPeriod().notAfter()->asTime().asString(), "2050-06-07T08:09:10Z");
    EXPECT_TRUE(certificate->validityPeriod().valid(0));
    EXPECT_EQ(&certificate->validityPeriod(), &certificate->validityPeriod());
}

TEST_F(CertificateTest, KeyIsThePublicKeyAndIsShared) {
    const auto certificate = read(alice());
    const RefKey key = certificate->key();
    EXPECT_EQ(EVP_PKEY_eq(key, alice().key.get()), 1);
    EXPECT_EQ(&*key, &*certificate->key());
    Buffer der;
    key->write(der, false);
    EXPECT_EQ(bytes(der), alice().key.publicDer());
}

TEST_F(CertificateTest, KeyOutlivesItsCertificate) {
    RefKey key;
    { key = read(alice())->key(); }
    EXPECT_EQ(EVP_PKEY_eq(key, alice().key.get()), 1);
}

// Key usage

TEST_F(CertificateTest, KeyUsageKeepsOpenSslsBits) {
    EXPECT_EQ(read(alice())->keyUsage(), 0xC0UL);
    EXPECT_EQ(read(root())->keyUsage(), 0x06UL);
    EXPECT_EQ(read(issue({.key = anyKey(), .keyUsage = 0x80FF}))->keyUsage(), 0x80FFUL);
}

TEST_F(CertificateTest, AbsentKeyUsageIsZero) {
    const auto certificate = read(issue({.key = anyKey()}));
    EXPECT_EQ(certificate->keyUsage(), 0UL);
    EXPECT_EQ(certificate->extendedKeyUsage(), 0UL);
}

TEST_F(CertificateTest, ExtendedKeyUsageKeepsOpenSslsBits) {
    EXPECT_EQ(read(alice())->extendedKeyUsage(), 0x06UL);
    const auto every =
        read(issue({.key = anyKey(),
                    .extendedKeyUsage = {"serverAuth", "clientAuth", "emailProtection", "codeSigning", "msSGC",
                                         "OCSPSigning", "timeStamping", "DVCS", "anyExtendedKeyUsage", "1.2.3.4"}}));
    EXPECT_EQ(every->extendedKeyUsage(), 0x1FFUL);
}

TEST_F(CertificateTest, UsageBitsSurviveAnotherInvalidExtension) {
    const auto certificate =
        read(issue({.key = anyKey(),
                    .keyUsage = 0x8086,
                    .extendedKeyUsage = {"serverAuth", "clientAuth", "emailProtection", "codeSigning", "msSGC",
                                         "OCSPSigning", "timeStamping", "DVCS", "anyExtendedKeyUsage", "1.2.3.4"},
                    .extensions = {broken("2.5.29.17")}}));
    EXPECT_EQ(certificate->keyUsage(), 0x8086UL);
    EXPECT_EQ(certificate->extendedKeyUsage(), 0x1FFUL);
}

TEST_F(CertificateTest, UndecodableKeyUsageIsZero) {
    const auto certificate = read(issue({.key = anyKey(), .extensions = {broken("2.5.29.15"), broken("2.5.29.37")}}));
    EXPECT_EQ(certificate->keyUsage(), 0UL);
    EXPECT_EQ(certificate->extendedKeyUsage(), 0UL);
}

// Extensions

TEST_F(CertificateTest, ExtensionsStandInTheOrderOfTheCertificate) {
    const auto certificate = read(alice());
    std::vector<std::string> identifiers;
    for (const auto& extension : certificate->extensions()) {
        identifiers.push_back(extension->identifier()->asString());
    }
    EXPECT_EQ(identifiers,
              (std::vector<std::string>{"2.5.29.15", "2.5.29.37", "2.5.29.17", "2.5.29.14", "2.5.29.35", "2.5.29.31"}));
    EXPECT_EQ(certificate->extensions().size(), 6U) << "built once";
}

TEST_F(CertificateTest, FindGivesTheFirstExtensionWithTheIdentifier) {
    const auto certificate = read(issue({.key = anyKey(),
                                         .subjectKeyIdentifier = false,
                                         .extensions = {{.oid = "1.2.3.4", .value = fromHex("0501")},
                                                        {.oid = "1.2.3.5", .value = fromHex("0502"), .critical = true},
                                                        {.oid = "1.2.3.5", .value = fromHex("0503")}}}));
    const auto found = certificate->find(oid("1.2.3.5"));
    ASSERT_FALSE(found.isNull());
    EXPECT_TRUE(found->critical());
    EXPECT_EQ(hexOf(*found->derEncodedValue()), "0502");
    EXPECT_TRUE(certificate->find(oid("1.2.3.6")).isNull());
    EXPECT_TRUE(certificate->find(ASN1::RefObjectIdentifier()).isNull());
}

TEST_F(CertificateTest, SubjectAlternativeNamesAreDecodedOnce) {
    const auto certificate = read(alice());
    const auto& names = certificate->subjectAlternativeName();
    ASSERT_FALSE(names.isNull());
    ASSERT_EQ(names->names().size(), 2U);
    EXPECT_EQ(names->names().front().emailAddress().address(), "alice@example.org");
    EXPECT_EQ(names->names().back().type(), 2);
    EXPECT_EQ(&*certificate->subjectAlternativeName(), &*names);
}

TEST_F(CertificateTest, BasicConstraintsAreDecodedOnce) {
    const auto certificate = read(root());
    const auto& constraints = certificate->basicConstraints();
    ASSERT_FALSE(constraints.isNull());
    const BASIC_CONSTRAINTS* decoded = *constraints;
    ASSERT_NE(decoded, nullptr);
    EXPECT_NE(decoded->ca, 0);
    EXPECT_EQ(&*certificate->basicConstraints(), &*constraints);
}

TEST_F(CertificateTest, DistributionPointsAreDecodedOnce) {
    const auto certificate = read(alice());
    const auto points = certificate->crlDistributionPoints();
    ASSERT_FALSE(points.isNull());
    ASSERT_EQ(points->distributionPoints().size(), 1U);
    EXPECT_EQ(points->distributionPoints().front()->distributionPointName().fullName().front().type(), 6);
    EXPECT_EQ(&*certificate->crlDistributionPoints(), &*points);
}

TEST_F(CertificateTest, KeyIdentifiersAreRead) {
    const auto certificate = read(alice());
    EXPECT_EQ(hexOf(*certificate->subjectKeyIdentifier()), "b1b2b3b4");
    ASSERT_FALSE(certificate->authorityKeyIdentifier().isNull());
    EXPECT_EQ(hexOf(*certificate->authorityKeyIdentifier()->keyId()), "a1a2a3");
    EXPECT_EQ(&*certificate->subjectKeyIdentifier(), &*certificate->subjectKeyIdentifier());
}

TEST_F(CertificateTest, SubjectKeyIdentifierOfACertificateWithAnInvalidExtensionIsTheOctetsInsideTheExtension) {
    const auto certificate = read(
        issue({.key = anyKey(), .subjectKeyIdentifierValue = fromHex("c1c2c3"), .extensions = {broken("2.5.29.17")}}));
    ASSERT_FALSE(certificate->subjectKeyIdentifier().isNull());
    EXPECT_EQ(hexOf(*certificate->subjectKeyIdentifier()), "c1c2c3");
}

TEST_F(CertificateTest, AbsentExtensionsAreEmptyHandles) {
    const auto certificate = read(issue({.key = anyKey(), .subjectKeyIdentifier = false}));
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(certificate->subjectAlternativeName().isNull());
        EXPECT_TRUE(certificate->basicConstraints().isNull());
        EXPECT_TRUE(certificate->crlDistributionPoints().isNull());
        EXPECT_TRUE(certificate->authorityKeyIdentifier().isNull());
        EXPECT_TRUE(certificate->subjectKeyIdentifier().isNull());
        EXPECT_TRUE(certificate->extensions().empty());
    }
}

TEST_F(CertificateTest, UndecodableExtensionsAreHandlesWithEmptyAnswers) {
    const auto certificate = read(issue({.key = anyKey(),
                                         .subjectKeyIdentifier = false,
                                         .extensions = {broken("2.5.29.17"), broken("2.5.29.19"), broken("2.5.29.31"),
                                                        broken("2.5.29.35"), broken("2.5.29.14")}}));
    ASSERT_FALSE(certificate->subjectAlternativeName().isNull());
    EXPECT_TRUE(certificate->subjectAlternativeName()->names().empty());
    ASSERT_FALSE(certificate->basicConstraints().isNull());
    EXPECT_EQ(static_cast<const BASIC_CONSTRAINTS*>(*certificate->basicConstraints()), nullptr);
    ASSERT_FALSE(certificate->crlDistributionPoints().isNull());
    EXPECT_TRUE(certificate->crlDistributionPoints()->distributionPoints().empty());
    ASSERT_FALSE(certificate->authorityKeyIdentifier().isNull());
    EXPECT_TRUE(certificate->authorityKeyIdentifier()->keyId().isNull());
    ASSERT_FALSE(certificate->subjectKeyIdentifier().isNull());
    EXPECT_EQ(certificate->subjectKeyIdentifier()->data(), nullptr);
}

// Self-signed, CA

TEST_F(CertificateTest, SelfSignedMeansEqualNames) {
    EXPECT_TRUE(read(root())->isSelfSigned());
    EXPECT_FALSE(read(alice())->isSelfSigned());
    // Signed by another key, but with its own name as issuer: no signature is looked at.
    EXPECT_TRUE(read(issue({.subject = {{"CN", "X"}}, .key = anyKey(), .signingKey = norvauthority::Key::ec()}))
                    ->isSelfSigned());
}

TEST_F(CertificateTest, BasicConstraintsDecideAboutACa) {
    EXPECT_TRUE(read(root())->isCACert());
    EXPECT_TRUE(read(issue({.key = anyKey(), .issuer = &root(), .ca = true}))->isCACert());
    EXPECT_FALSE(read(issue({.key = anyKey(), .ca = false}))->isCACert()) << "self-signed, but says no";
}

TEST_F(CertificateTest, KeyUsageWithoutBasicConstraintsIsNoCaEvenWhenSelfSigned) {
    const auto certificate = read(issue({.subject = {{"CN", "X"}}, .key = anyKey(), .keyUsage = 0x06}));
    EXPECT_TRUE(certificate->isSelfSigned());
    EXPECT_FALSE(certificate->isCACert());
}

TEST_F(CertificateTest, TheAnswerForKeyUsageWithoutBasicConstraintsIsNotKept) {
    const auto certificate = read(issue({.key = anyKey(), .keyUsage = 0x06}));
    flagReadings = 0;
    EXPECT_FALSE(certificate->isCACert());
    EXPECT_FALSE(certificate->isCACert());
    EXPECT_FALSE(certificate->isCACert());
    EXPECT_EQ(flagReadings, 3);
}

TEST_F(CertificateTest, OtherAnswersAboutACaAreKept) {
    const auto authority = read(root());
    const auto plain = read(issue({.key = anyKey(), .issuer = &root(), .ca = false}));
    flagReadings = 0;
    EXPECT_TRUE(authority->isCACert());
    EXPECT_TRUE(authority->isCACert());
    EXPECT_FALSE(plain->isCACert());
    EXPECT_FALSE(plain->isCACert());
    EXPECT_EQ(flagReadings, 2);
}

TEST_F(CertificateTest, WithoutExtensionsACertificateIsACaExactlyWhenSelfSigned) {
    EXPECT_TRUE(read(issue({.subject = {{"CN", "Old"}}, .key = anyKey(), .version = 1}))->isCACert());
    EXPECT_FALSE(
        read(issue({.subject = {{"CN", "Old"}}, .key = anyKey(), .issuer = &root(), .version = 1}))->isCACert());
}

TEST_F(CertificateTest, BasicConstraintsThatDoNotDecodeDecideNothing) {
    const norvauthority::CertificateRequest request{.key = anyKey(), .extensions = {broken("2.5.29.19")}};
    EXPECT_TRUE(read(issue(request))->isCACert()) << "self-signed";
    auto restricted = request;
    restricted.keyUsage = 0x06;
    EXPECT_FALSE(read(issue(restricted))->isCACert());
}

// Issued by

TEST_F(CertificateTest, IssuedByItsIssuer) {
    EXPECT_TRUE(read(alice())->issuedBy(read(root()), true));
    EXPECT_TRUE(read(alice())->issuedBy(read(root()), false));
    EXPECT_TRUE(read(root())->issuedBy(read(root()), true));
}

TEST_F(CertificateTest, NobodyElseIssuedIt) {
    EXPECT_FALSE(read(alice())->issuedBy(RefCertificate(), false));
    EXPECT_FALSE(read(alice())->issuedBy(read(alice()), false));
}

TEST_F(CertificateTest, IssuedByWantsEqualKeyIdentifiersWhereTheCertificateNamesOne) {
    const auto other = read(issue({.subject = {{"C", "DE"}, {"O", "Org"}, {"CN", "Root"}},
                                   .key = anyKey(),
                                   .ca = true,
                                   .keyUsage = 0x06,
                                   .subjectKeyIdentifierValue = fromHex("ffff")}));
    const auto without = read(issue({.subject = {{"C", "DE"}, {"O", "Org"}, {"CN", "Root"}},
                                     .key = anyKey(),
                                     .ca = true,
                                     .keyUsage = 0x06,
                                     .subjectKeyIdentifier = false}));
    EXPECT_FALSE(read(alice())->issuedBy(other, false));
    EXPECT_FALSE(read(alice())->issuedBy(without, false));
    const auto unnamed = read(issue({.key = anyKey(), .issuer = &root(), .authorityKeyIdentifier = false}));
    EXPECT_TRUE(unnamed->issuedBy(other, true));
    EXPECT_TRUE(unnamed->issuedBy(without, true));
}

TEST_F(CertificateTest, AnAuthorityKeyIdentifierWithoutKeyMatchesNoIssuer) {
    const auto certificate = read(issue({.key = anyKey(),
                                         .issuer = &root(),
                                         .authorityKeyIdentifier = false,
                                         .extensions = {{.oid = "2.5.29.35", .value = fromHex("3000")}}}));
    EXPECT_FALSE(certificate->issuedBy(read(root()), false));
}

TEST_F(CertificateTest, IssuedByChecksKeyCertSignOnRequestOnly) {
    const norvauthority::CertificateRequest request{.subject = {{"CN", "Weak"}}, .key = anyKey(), .ca = true};
    auto restricted = request;
    restricted.keyUsage = 0x82; // digitalSignature and cRLSign
    const Identity weak = issue(restricted);
    const Identity unrestricted = issue(request);
    const auto certificate = read(issue({.key = anyKey(), .issuer = &weak}));
    EXPECT_FALSE(certificate->issuedBy(read(weak), true));
    EXPECT_TRUE(certificate->issuedBy(read(weak), false));
    EXPECT_FALSE(certificate->issuedBy(read(unrestricted), true)) << "no key usage grants nothing";
}

// Equality

TEST_F(CertificateTest, DecodedTwiceIsEqual) {
    EXPECT_TRUE(read(alice()) == read(alice()));
    EXPECT_TRUE(*read(alice()) == *read(alice()));
    const auto once = read(alice());
    EXPECT_TRUE(once == once);
}

TEST_F(CertificateTest, EqualSerialNumbersWithOtherSignaturesDiffer) {
    const auto left = read(issue({.subject = {{"CN", "A"}}, .key = anyKey(), .serial = "7"}));
    const auto right = read(issue({.subject = {{"CN", "B"}}, .key = anyKey(), .serial = "7"}));
    EXPECT_FALSE(left == right);
    EXPECT_TRUE(left != right);
}

TEST_F(CertificateTest, EqualSignaturesWithOtherSerialNumbersDiffer) {
    auto changed = alice().certificate.x509();
    ASN1_INTEGER_set(X509_get_serialNumber(changed.get()), 11);
    EXPECT_FALSE(CertificateFactory()(changed.release(), true) == read(alice()));
}

TEST_F(CertificateTest, IssuerNamesAreNotCompared) {
    auto changed = alice().certificate.x509();
    X509_set_issuer_name(changed.get(), X509_get_subject_name(changed.get()));
    EXPECT_TRUE(CertificateFactory()(changed.release(), true) == read(alice()));
}

TEST_F(CertificateTest, OnlyTwoCertificatesWithoutX509AreEqual) {
    const auto none = CertificateFactory()(nullptr, false);
    const auto other = CertificateFactory()(nullptr, false);
    EXPECT_TRUE(none == other);
    EXPECT_FALSE(none == read(alice()));
    EXPECT_FALSE(read(alice()) == none);
}

TEST_F(CertificateTest, TheSamePointerIsEqualWithoutALookInside) {
    const auto x509 = issue({.key = anyKey(), .serial = "-1"}).certificate.x509();
    EXPECT_TRUE(CertificateFactory()(x509.get(), false) == CertificateFactory()(x509.get(), false));
}

TEST_F(CertificateTest, NegativeSerialNumbersThrowOnlyWhenSignaturesAreEqual) {
    const auto odd = issue({.key = anyKey(), .serial = "-1"});
    EXPECT_FALSE(read(odd) == read(alice()));
    EXPECT_THROW(static_cast<void>(read(odd) == read(odd)), Exception);
}

// Handles

TEST_F(CertificateTest, EmptyHandles) {
    const RefCertificate empty;
    EXPECT_TRUE(empty.isNull());
    EXPECT_EQ(static_cast<x509_st*>(empty), nullptr);
    EXPECT_TRUE(empty == RefCertificate());
    EXPECT_FALSE(empty == read(alice()));
    EXPECT_FALSE(read(alice()) == empty);
    EXPECT_FALSE(empty == CertificateFactory()(nullptr, true));
}

TEST_F(CertificateTest, NullBodyIsRefused) {
    const auto thrown =
        norvtest::thrownBy([] { const RefCertificate handle(static_cast<NVX509::Certificate*>(nullptr)); });
    norvtest::expectFailure(thrown, "RefCounted constructor for RefImpl failed.", 4, "", 0);
}

TEST_F(CertificateTest, HandleTakesOverAFreshBodyAndSharesIt) {
    const auto x509 = alice().certificate.x509();
    RefCertificate handle(new NVX509::Certificate(x509.get()));
    EXPECT_EQ(handle->referenceCount(), 1);
    const RefCertificate copy = handle;
    EXPECT_EQ(handle->referenceCount(), 2);
    EXPECT_EQ(static_cast<x509_st*>(copy), x509.get());
    handle = RefCertificate();
    EXPECT_EQ(copy->referenceCount(), 1);
    EXPECT_TRUE(handle.isNull());
}

TEST_F(CertificateTest, BorrowedX509OutlivesTheBody) {
    const auto x509 = alice().certificate.x509();
    { const auto borrowed = CertificateFactory()(x509.get(), false); }
    EXPECT_EQ(X509_get_version(x509.get()), 2);
}

TEST_F(CertificateTest, RelinquishedX509OutlivesTheBody) {
    x509_st* x509 = alice().certificate.x509().release();
    {
        const auto owned = CertificateFactory()(x509, true);
        owned->relinquishOwnerShip();
    }
    EXPECT_EQ(X509_get_version(x509), 2);
    X509_free(x509);
}

// Writing

TEST_F(CertificateTest, DerIsWrittenByteForByteAndTheStreamNotEnded) {
    MemoryMediaOut out;
    read(alice())->writeDER(out);
    EXPECT_EQ(bytes(out.content()), alice().certificate.der);
    EXPECT_FALSE(out.ended());
}

TEST_F(CertificateTest, PemIsWrittenAndTheStreamNotEnded) {
    MemoryMediaOut out;
    read(alice())->writePEM(out);
    EXPECT_EQ(text(out.content()), alice().certificate.pem());
    EXPECT_FALSE(out.ended());
}

TEST_F(CertificateTest, ExceptionOfTheTargetArrives) {
    expectTargetsExceptionArrives(read(alice()), alice().certificate.der);
}

TEST_F(CertificateTest, WritingIntoANullStreamThrowsAsANullHandle) {
    MediaOut nowhere;
    const auto thrown = norvtest::thrownBy([&] { read(alice())->writeDER(nowhere); });
    EXPECT_EQ(thrown.where(), "operator->");
    EXPECT_EQ(thrown.code(), 1);
}

// Stacks

TEST_F(CertificateTest, StackKeepsHandlesAndFillsOpenSslsStackInOrder) {
    RefStackOfCertificate stack;
    ASSERT_NE(static_cast<stack_st_X509*>(stack), nullptr);
    EXPECT_EQ(sk_X509_num(stack), 0);
    stack->add(read(alice()));
    stack->add(read(root()));
    ASSERT_EQ(sk_X509_num(stack), 2);
    EXPECT_EQ(stack->certificates().size(), 2U);
    EXPECT_EQ(stack->certificates().front()->subject().asString(), "CN=Alice,O=Org,C=US");
    EXPECT_EQ(sk_X509_value(stack, 0), static_cast<x509_st*>(stack->certificates().front()));
    EXPECT_EQ(sk_X509_value(stack, 1), static_cast<x509_st*>(stack->certificates().back()));
}

TEST_F(CertificateTest, StackFromAListKeepsItsOrder) {
    const std::list<RefCertificate> list{read(root()), read(alice())};
    const RefStackOfCertificate stack(list);
    ASSERT_EQ(sk_X509_num(stack), 2);
    EXPECT_EQ(sk_X509_value(stack, 0), static_cast<x509_st*>(list.front()));
    EXPECT_EQ(sk_X509_value(stack, 1), static_cast<x509_st*>(list.back()));
}

TEST_F(CertificateTest, StackOutlivesTheHandlesThatWereAdded) {
    RefStackOfCertificate stack;
    {
        const auto certificate = read(alice());
        stack->add(certificate);
    }
    EXPECT_EQ(X509_get_version(sk_X509_value(stack, 0)), 2);
}

TEST_F(CertificateTest, StackCopiesShare) {
    RefStackOfCertificate stack;
    const RefStackOfCertificate copy = stack;
    stack->add(read(alice()));
    EXPECT_EQ(sk_X509_num(copy), 1);
}

TEST_F(CertificateTest, HandleWithoutX509PutsNoNullOntoOpenSslsStack) {
    RefStackOfCertificate stack;
    stack->add(RefCertificate());
    EXPECT_EQ(stack->certificates().size(), 1U);
    EXPECT_EQ(sk_X509_num(stack), 0);
}

TEST_F(CertificateTest, StackThatCouldNotBeMadeKeepsNothing) {
    stacksFail = true;
    RefStackOfCertificate stack;
    stacksFail = false;
    EXPECT_EQ(static_cast<stack_st_X509*>(stack), nullptr);
    stack->add(read(alice()));
    EXPECT_TRUE(stack->certificates().empty());
}

TEST_F(CertificateTest, StackThatWasResetConvertsToNull) {
    RefStackOfCertificate stack;
    stack.reset();
    EXPECT_EQ(static_cast<stack_st_X509*>(stack), nullptr);
}

// The rest

TEST_F(CertificateTest, TheStaticMutexExists) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, "_ZN7Norvane6Crypto6NVX50911Certificate7m_MutexE"), nullptr);
}

TEST_F(CertificateTest, AccessorsKeepWhatWasInTheErrorQueueBefore) {
    ERR_put_error(ERR_LIB_USER, 0, 5, "caller.c", 1);
    const auto certificate =
        read(issue({.key = anyKey(), .serial = "-1", .extensions = {broken("2.5.29.17"), broken("2.5.29.15")}}));
    certificate->warm();
    static_cast<void>(certificate->keyUsage());
    EXPECT_TRUE(CertificateFactory().readDER(buffer(std::string("nonsense"))).isNull());
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 5);
    EXPECT_EQ(ERR_get_error(), 0UL);
}

// Certificates made elsewhere

struct Expected {
    const char* file;
    const char* subject;
    const char* issuer;
    const char* serial;
    const char* notBefore;
    unsigned long keyUsage;
    const char* subjectKey;
    const char* mail;
    bool ca;
    bool key;
};

void PrintTo(const Expected& expected, std::ostream* out) {
    *out << expected.file;
}

class Rfc4134Certificate : public testing::TestWithParam<Expected> {};

TEST_P(Rfc4134Certificate, IsReadAsOpenSslShowsIt) {
    const auto& expected = GetParam();
    X509_SAMPLE_OR_SKIP(der, std::string("rfc4134/") + expected.file);
    const auto certificate = CertificateFactory().readDER(buffer(*der));
    ASSERT_FALSE(certificate.isNull());
    EXPECT_EQ(certificate->subject().asString(), expected.subject);
    EXPECT_EQ(certificate->issuer().asString(), expected.issuer);
    EXPECT_EQ(certificate->serialNumber().hex(), expected.serial);
    EXPECT_EQ(certificate->version(), 2);
    EXPECT_EQ(certificate->validityPeriod().notBefore()->asTime().asString(), expected.notBefore);
    EXPECT_EQ(certificate->validityPeriod().notAfter()->asTime().asString(), "2039-12-31T23:59:59Z");
    EXPECT_EQ(certificate->keyUsage(), expected.keyUsage);
    EXPECT_EQ(hexOf(*certificate->subjectKeyIdentifier()), expected.subjectKey);
    EXPECT_EQ(certificate->isCACert(), expected.ca);
    EXPECT_EQ(certificate->isSelfSigned(), expected.ca);
    ASSERT_FALSE(certificate->key().isNull());
    EXPECT_EQ(static_cast<evp_pkey_st*>(certificate->key()) != nullptr, expected.key);
    if (*expected.mail == '\0') {
        EXPECT_TRUE(certificate->subjectAlternativeName().isNull());
    } else {
        EXPECT_EQ(certificate->subjectAlternativeName()->names().front().emailAddress().address(), expected.mail);
    }
    MemoryMediaOut out;
    certificate->writeDER(out);
    EXPECT_EQ(bytes(out.content()), *der);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

INSTANTIATE_TEST_SUITE_P(
    All, Rfc4134Certificate,
    testing::Values(Expected{"AliceDSSSignByCarlNoInherit.cer", "CN=AliceDSS", "CN=CarlDSS", "c8",
                             "1999-08-17T01:10:49Z", 0xC0, "be6ca1b3e3c1f7ed4370a4ce1301e2fde397fecd",
                             "AliceDSS@example.com", false, true},
                    Expected{"AliceRSASignByCarl.cer", "CN=AliceRSA", "CN=CarlRSA", "46346bc7800056bc11d36e2ec410b3b0",
                             "1999-09-19T01:08:47Z", 0xC0, "77d2b4d1b74c8a8aa3ce459dceec3ca03ae3ff50",
                             "AliceRSA@example.com", false, true},
                    Expected{"BobRSASignByCarl.cer", "CN=BobRSA", "CN=CarlRSA", "46346bc7800056bc11d36e2ecd5d71d0",
                             "1999-09-19T01:09:02Z", 0x20, "e8f4b867d8b396a42af311aa29d3955a8616b424",
                             "BobRSA@example.com", false, true},
                    Expected{"CarlDSSSelf.cer", "CN=CarlDSS", "CN=CarlDSS", "01", "1999-08-16T22:50:50Z", 0x86,
                             "70443e822e6f87de4ad375e33d20bc432b93f11f", "", true, true},
                    Expected{"CarlRSASelf.cer", "CN=CarlRSA", "CN=CarlRSA", "46346bc7800056bc11d36e2e9ff25020",
                             "1999-08-18T07:00:00Z", 0x86, "e9e09027ac78207a9ad34cf242374e22ae9e38bb", "", true, true},
                    Expected{"DianeDSSSignByCarlInherit.cer", "CN=DianeDSS", "CN=CarlDSS", "d2", "1999-08-17T02:08:10Z",
                             0xC0, "6430997d5cdc450b993a522f16bf5850ddce2b18", "DianeDSS@example.com", false, false},
                    Expected{"DianeRSASignByCarl.cer", "CN=DianeRSA", "CN=CarlRSA", "46346bc7800056bc11d36e2ed59a3090",
                             "1999-08-19T07:00:00Z", 0xE0, "8cf3cb750e8d31f6d429da449275b8feed4f390c",
                             "DianeRSA@example.com", false, true}));

TEST_F(CertificateTest, Rfc4134IssuersAreRecognised) {
    X509_SAMPLE_OR_SKIP(alicesDer, "rfc4134/AliceRSASignByCarl.cer");
    X509_SAMPLE_OR_SKIP(carlsDer, "rfc4134/CarlRSASelf.cer");
    X509_SAMPLE_OR_SKIP(carlsDssDer, "rfc4134/CarlDSSSelf.cer");
    const CertificateFactory factory;
    const auto signer = factory.readDER(buffer(*alicesDer));
    EXPECT_TRUE(signer->issuedBy(factory.readDER(buffer(*carlsDer)), true));
    EXPECT_FALSE(signer->issuedBy(factory.readDER(buffer(*carlsDssDer)), true));
    EXPECT_FALSE(signer->issuedBy(signer, false));
}

} // namespace
