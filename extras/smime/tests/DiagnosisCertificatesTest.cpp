// Whose key it was: which certificates are asked, how many, and in which order; and what attributes that were signed tell.
#include "Diagnosing.h"

#include <gmock/gmock.h>

namespace {

using namespace diagnosing;
using norvauthority::issue;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is well.\r\n";
const std::string lineFeeds = replaced(text, "\r\n", "\n");

/// Another certificate of that key, by that authority.
Identity certified(const norvauthority::Key& key, const std::string& serial,
                   const Identity& authority = identities().authority) {
    return issue({.subject = {{"CN", "alice"}, {"O", "Mail"}},
                  .key = key,
                  .issuer = &authority,
                  .serial = serial,
                  .keyUsage = 0xA0});
}
const Identity& renewed() {
    static const Identity identity = certified(identities().rsa.key, "a11cf");
    return identity;
}
const Identity& otherAuthority() {
    static const Identity identity =
        issue({.subject = {{"CN", "Another Authority"}}, .key = storedKey("authority"), .ca = true, .keyUsage = 0x06});
    return identity;
}
/// Alice's key, by an authority that her signatures do not name.
const Identity& elsewhere() {
    static const Identity identity = certified(identities().rsa.key, "e15e", otherAuthority());
    return identity;
}

using Certificates = std::list<Norvane::Crypto::NVX509::RefCertificate>;
Certificates certificatesOf(const std::vector<const Identity*>& identities) {
    Certificates certificates;
    for (const Identity* const identity : identities) {
        certificates.push_back(certificateOf(*identity));
    }
    return certificates;
}

/// Alice's signature over a text, without her certificate.
Bytes bareSignature(unsigned int flags = 0) {
    return signatureOver(text, identities().rsa, "sha256", CMS_NOCERTS | flags);
}

TEST(DiagnosisCertificates, TheOneThatIsNamedGoesBeforeTheOthersOfItsIssuerAndTheseBeforeTheRest) {
    const auto found = [](const std::vector<const Identity*>& given) {
        return namesOf(diagnosisOf(bareSignature(), lineFeeds, {certificatesOf(given)}));
    };
    EXPECT_THAT(found({&elsewhere(), &renewed(), &identities().rsa}), ElementsAre("line-ends-lf"));
    EXPECT_THAT(found({&elsewhere(), &renewed()}), ElementsAre("line-ends-lf", "certificate-renewed"));
    EXPECT_THAT(found({&identities().otherRsa, &elsewhere()}), ElementsAre("line-ends-lf", "other-certificate"));
    EXPECT_THAT(found({&identities().otherRsa}), ElementsAre("0 explanations"));
}

// A key identifier names no issuer.
TEST(DiagnosisCertificates, ASignerMayBeNamedByItsKey) {
    const Bytes signature = bareSignature(CMS_USE_KEYID);
    EXPECT_THAT(
        namesOf(diagnosisOf(signature, lineFeeds, {certificatesOf({&identities().otherRsa, &identities().rsa})})),
        ElementsAre("line-ends-lf"));
    EXPECT_THAT(diagnosisOf(signature, lineFeeds, {certificatesOf({&identities().otherRsa})}).explanations, IsEmpty());
}

// RFC 5035, 5.4: the attribute has the hash of the certificate, so that no other one makes the signature good. The key is still alice's.
TEST(DiagnosisCertificates, ASignatureThatSaysWhichCertificateItIsByMayBeOfARenewedOne) {
    const Bytes signature = bareSignature(CMS_CADES);
    for (const auto& [one, change] :
         {std::pair(&renewed(), "certificate-renewed"), std::pair(&elsewhere(), "other-certificate")}) {
        EXPECT_THAT(namesOf(diagnosisOf(signature, text, {certificatesOf({one})})), ElementsAre(change));
        EXPECT_THAT(namesOf(diagnosisOf(signature, lineFeeds, {certificatesOf({one})})),
                    ElementsAre("line-ends-lf", change));
        EXPECT_THAT(namesOf(diagnosisOf(signature, text + "\r\n", {certificatesOf({one})})),
                    ElementsAre("last-line-end-added", change));
        EXPECT_THAT(diagnosisOf(signature, replaced(text, "well", "lost"), {certificatesOf({one})}).explanations,
                    IsEmpty());
    }
}

// Of the body, too, the fewest changes are told: no line end but the one at its end was changed.
TEST(DiagnosisCertificates, BesideOneThatWasRenewedTheFewestChangesAreTold) {
    EXPECT_THAT(namesOf(diagnosisOf(bareSignature(), text + "\n", {certificatesOf({&renewed()})})),
                ElementsAre("last-line-end-added", "certificate-renewed"));
}

TEST(DiagnosisCertificates, AThousandAreLookedAt) {
    Certificates given(999, certificateOf(identities().otherRsa));
    given.push_back(certificateOf(renewed()));
    EXPECT_THAT(namesOf(diagnosisOf(bareSignature(), text, {given})), ElementsAre("certificate-renewed"));
    given.push_front(certificateOf(identities().otherRsa));
    EXPECT_THAT(diagnosisOf(bareSignature(), text, {given}).explanations, IsEmpty());
    EXPECT_THAT(namesOf(diagnosisOf(bareSignature(), text, {{{}, certificateOf(renewed())}})),
                ElementsAre("certificate-renewed"))
        << "an empty handle is none";
}

TEST(DiagnosisCertificates, ThirtyTwoAreTriedForASigner) {
    Certificates given;
    for (int serial = 0; serial != 31; ++serial) {
        given.push_back(certificateOf(certified(identities().otherRsa.key, std::to_string(1000 + serial))));
    }
    given.push_back(certificateOf(renewed()));
    const SMime::Diagnosis last = diagnosisOf(bareSignature(), text, {given});
    EXPECT_THAT(namesOf(last), ElementsAre("certificate-renewed"));
    // The attributes once more, without any certificate, and the body in the end.
    EXPECT_EQ(1U + 32 + 1, last.verifications);
    given.push_front(certificateOf(certified(identities().otherRsa.key, "2000")));
    const SMime::Diagnosis beyond = diagnosisOf(bareSignature(), text, {given});
    EXPECT_THAT(beyond.explanations, IsEmpty());
    EXPECT_EQ(1U + 32, beyond.verifications);
    EXPECT_EQ("", beyond.notLooked);
}

// A reader lists 2500 certificates at the most, and none of more; the signer's may be one of these, so that no signature is refused.
TEST(DiagnosisCertificates, BesideTooManyInTheMessageThereIsNothingToExplain) {
    SMime::DiagnosisOptions options;
    options.budget.structure = 16U << 20U;
    std::vector<Bytes> carried(2499, identities().otherRsa.certificate.der);
    carried.push_back(renewed().certificate.der);
    EXPECT_THAT(namesOf(diagnosisOf(withCertificates(bareSignature(), carried), text, options)),
                ElementsAre("certificate-renewed"));
    carried.push_back(identities().otherRsa.certificate.der);
    const Bytes tooMany = withCertificates(bareSignature(), carried);
    options.certificates = certificatesOf({&renewed()});
    EXPECT_THAT(diagnosisOf(tooMany, text, options).explanations, IsEmpty());
    const Norvane::MemoryMediaIn in(bufferOf(tooMany));
    const CMS::SignedReader reader(in);
    Norvane::MediaOut body = reader.digest();
    writeInPieces(body, bytesOf(text));
    EXPECT_EQ(CMS::SignatureVerdict::unsupported, reader.verdict(reader.signers().front()).verdict);
}

/// A message by these signers, each over a body of its own; detached unless it has a content.
struct Over {
    HandMadeSigner signer;
    std::string body;
};
Bytes signedBy(const std::vector<Over>& all, const std::vector<Bytes>& certificates,
               const std::optional<Bytes>& content = {}) {
    HandMade message;
    message.content = content;
    message.digestAlgorithms = {algorithm("SHA256", true)};
    message.certificates = certificates;
    for (const Over& one : all) {
        HandMadeSigner signer = one.signer;
        signer.attributes = signer.attributes.value_or(usualAttributes(bytesOf(one.body)));
        message.signers.push_back(signer.made(bytesOf(one.body)));
    }
    return message.made();
}

Bytes nameOf(const std::string& serial) {
    return der::sequence({identities().authority.name.der(), der::integer(serial)});
}

// A name is a sequence of sets (RFC 5280, 4.1.2.4): this one has an integer in their place. It names nobody, whoever signed.
TEST(DiagnosisCertificates, ASignerWhoseNameDoesNotDecodeIsNobody) {
    const Bytes nobody = der::sequence({der::sequence({der::integer("1")}), der::integer("2")});
    const Bytes signature = signedBy({{{.name = nobody}, text}}, {identities().rsa.certificate.der});
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, text, {certificatesOf({&renewed()})});
    EXPECT_THAT(diagnosis.explanations, IsEmpty());
    EXPECT_EQ("", diagnosis.notLooked);
    // The same signature under its signer's name needs no explanation, under another one it has one.
    EXPECT_THAT(diagnosisOf(signedBy({{{}, text}}, {identities().rsa.certificate.der}), text).explanations, IsEmpty());
    EXPECT_THAT(
        namesOf(diagnosisOf(signedBy({{{.name = nameOf("77")}, text}}, {identities().rsa.certificate.der}), text)),
        ElementsAre("certificate-renewed"));
}

TEST(DiagnosisCertificates, OfMessagesThatCarryTheirContentAsManySignersAreLookedAtAsTheBudgetAllows) {
    const Read read(
        signedBy({{{}, text}, {{.identity = &identities().otherRsa}, text}}, {}, der::octetString(bytesOf(text))));
    SMime::DiagnosisOptions options{certificatesOf({&renewed()})};
    options.budget.signers = 1;
    const SMime::Diagnosis one = SMime::explainSigners(read.message, options);
    EXPECT_THAT(namesOf(one), ElementsAre("certificate-renewed"));
    EXPECT_EQ("of the signers whose signature does not fit, only the first 1 were looked at", one.notLooked);
    EXPECT_EQ(1U, one.verifications);
    options.budget.signers = 2;
    const SMime::Diagnosis both = SMime::explainSigners(read.message, options);
    EXPECT_THAT(namesOf(both), ElementsAre("certificate-renewed"));
    EXPECT_EQ("", both.notLooked);
    EXPECT_EQ(2U, both.verifications);
}

// What is found about a certificate is found before what a relay did.
TEST(DiagnosisCertificates, ExplanationsComeInTheOrderOfTheSigners) {
    const Bytes signature =
        signedBy({{{}, text}, {{.identity = &identities().otherRsa, .name = nameOf("b0c")}, lineFeeds}},
                 {identities().rsa.certificate.der, identities().otherRsa.certificate.der});
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, lineFeeds);
    ASSERT_EQ(2U, diagnosis.explanations.size());
    EXPECT_EQ(0U, diagnosis.explanations.front().signer);
    EXPECT_EQ(SMime::Change::lineEndsMadeLf, diagnosis.explanations.front().findings.at(0).change);
    EXPECT_EQ(1U, diagnosis.explanations.back().signer);
    EXPECT_EQ(SMime::Change::certificateRenewed, diagnosis.explanations.back().findings.at(0).change);
}

/// The attributes of a signer whose message digest is by SHA-1, where the signer names SHA-256; and of RFC 5035, if that names one.
std::vector<Bytes> attributesBySha1(const Identity* named = nullptr) {
    std::vector<Bytes> attributes = usualAttributes(bytesOf(text), EVP_sha1());
    if (named != nullptr) {
        const Bytes hash = der::octetString(digestOf(named->certificate.der));
        attributes.push_back(
            attribute("1.2.840.113549.1.9.16.2.47", {der::sequence({der::sequence({der::sequence({hash})})})}));
    }
    return attributes;
}

TEST(DiagnosisCertificates, TheDigestOfAnotherAlgorithmWithTheKeyOfAnotherCertificate) {
    const SMime::DiagnosisOptions options{certificatesOf({&renewed()})};
    for (const Identity* const named : {static_cast<const Identity*>(nullptr), &identities().rsa}) {
        const Bytes signature = signedBy({{{.attributes = attributesBySha1(named)}, text}}, {});
        EXPECT_THAT(namesOf(diagnosisOf(signature, text, options)),
                    ElementsAre("digest-of-other-algorithm", "certificate-renewed"));
        EXPECT_THAT(diagnosisOf(signature, lineFeeds, options).explanations, IsEmpty());
    }
}

// That a digest fits by another algorithm explains nothing where nobody signed it.
TEST(DiagnosisCertificates, ADigestOfAnotherAlgorithmHasToBeSigned) {
    const std::vector<Bytes> own{identities().rsa.certificate.der};
    const Bytes good = signedBy({{{.attributes = attributesBySha1()}, text}}, own);
    const SMime::Diagnosis found = diagnosisOf(good, text);
    EXPECT_THAT(namesOf(found), ElementsAre("digest-of-other-algorithm"));
    EXPECT_EQ(1U, found.passes) << "nothing else is looked for";
    Bytes wrong = good;
    wrong.back() ^= 1U; // the signature stands there
    const SMime::Diagnosis diagnosis = diagnosisOf(wrong, text);
    EXPECT_THAT(diagnosis.explanations, IsEmpty());
    EXPECT_EQ(1U + 1 + 2, diagnosis.verifications) << "with the certificate that is named, then by either algorithm";

    // By its attribute the signature is that of another certificate than the signer names.
    const Bytes other = signedBy({{{.attributes = attributesBySha1(&renewed())}, text}}, own);
    EXPECT_THAT(diagnosisOf(other, text).explanations, IsEmpty());

    const SMime::Diagnosis nobody = diagnosisOf(signedBy({{{.attributes = attributesBySha1()}, text}}, {}), text);
    EXPECT_THAT(nobody.explanations, IsEmpty());
    EXPECT_EQ(1U, nobody.verifications) << "without a certificate";
}

// RFC 5652, 11.2: it has to be among them. Without it no body is that of the signature.
TEST(DiagnosisCertificates, AttributesWithoutAMessageDigestExplainNothing) {
    const Bytes signature =
        signedBy({{{.attributes = std::vector<Bytes>{usualAttributes(bytesOf(text)).front()}}, text}},
                 {identities().rsa.certificate.der});
    for (const std::string& arrived : {text, lineFeeds}) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, arrived);
        EXPECT_THAT(diagnosis.explanations, IsEmpty());
        EXPECT_EQ(1U, diagnosis.verifications);
        EXPECT_EQ(1U, diagnosis.passes);
    }
}

} // namespace
