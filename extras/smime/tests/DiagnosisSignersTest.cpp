#include "Diagnosing.h"

#include <gmock/gmock.h>

namespace {

using namespace diagnosing;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string text = "Content-Type: text/plain\r\n\r\nDear Bob,\r\nall is well.\r\n";
const std::string lineFeeds = "Content-Type: text/plain\n\nDear Bob,\nall is well.\n";

/// Alice's key under another serial number.
const Identity& renewed() {
    static const Identity identity = norvauthority::issue({.subject = {{"CN", "alice"}, {"O", "Mail"}},
                                                           .key = identities().rsa.key,
                                                           .issuer = &identities().authority,
                                                           .serial = "a11cf",
                                                           .keyUsage = 0xA0});
    return identity;
}

std::string textOf(const SMime::Diagnosis& diagnosis) {
    std::string all;
    for (const SMime::Explanation& explanation : diagnosis.explanations) {
        for (const SMime::Finding& finding : explanation.findings) {
            all += finding.text + "\n";
        }
    }
    return all;
}

TEST(DiagnosisSigners, TheRenewalOfACertificateIsNamed) {
    const Bytes signature = signatureOver(text, identities().rsa, "sha256", CMS_NOCERTS);
    EXPECT_TRUE(diagnosisOf(signature, text).explanations.empty());
    const SMime::DiagnosisOptions options{{certificateOf(identities().otherRsa), certificateOf(renewed())}};
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, text, options);
    EXPECT_EQ(Names{"certificate-renewed"}, namesOf(diagnosis));
    EXPECT_THAT(textOf(diagnosis), HasSubstr("the signer names the certificate with serial number 0a11ce of"));
    EXPECT_THAT(textOf(diagnosis), HasSubstr("serial number 0a11cf of"));
    EXPECT_TRUE(certificateOf(renewed()) == diagnosis.explanations.at(0).certificate);
}

TEST(DiagnosisSigners, TheRenewalAndTheBodyTogether) {
    const Bytes signature = signatureOver(text, identities().rsa, "sha256", CMS_NOCERTS);
    const SMime::DiagnosisOptions options{{certificateOf(renewed())}};
    EXPECT_THAT(namesOf(diagnosisOf(signature, lineFeeds, options)),
                ElementsAre("line-ends-lf", "certificate-renewed"));
    // The certificate itself needs no explanation.
    const SMime::DiagnosisOptions own{{certificateOf(identities().rsa)}};
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosisOf(signature, lineFeeds, own)));
    EXPECT_TRUE(diagnosisOf(signature, text, own).explanations.empty());
}

TEST(DiagnosisSigners, ACertificateThatOnlyCarriesTheNameIsToldApart) {
    // The signer's name, with another key; the key's own certificate is in the message, too.
    const Identity alike = namedLikeRsa(storedKey("bob"));
    const Bytes signature = withCertificates(signatureOver(text, identities().rsa, "sha256", CMS_NOCERTS),
                                             {alike.certificate.der, renewed().certificate.der});
    EXPECT_EQ(Names{"other-certificate"}, namesOf(diagnosisOf(signature, text)));
    EXPECT_THAT(namesOf(diagnosisOf(signature, lineFeeds)), ElementsAre("line-ends-lf", "other-certificate"));
}

TEST(DiagnosisSigners, CertificatesOfMessagesThatCarryTheirContent) {
    const Bytes message = signedMessage({&identities().rsa}, {"sha256"}, bytesOf(text), CMS_NOCERTS);
    const Norvane::MemoryMediaIn in(bufferOf(message));
    CMS::SignedReader reader(in);
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    reader.write(nowhere);
    EXPECT_TRUE(SMime::explainSigners(reader).explanations.empty());
    EXPECT_EQ(Names{"certificate-renewed"},
              namesOf(SMime::explainSigners(reader, {{certificateOf(identities().ec), certificateOf(renewed())}})));
    const SMime::Diagnosis diagnosis = diagnosisOf(message, text);
    EXPECT_EQ("the content is in the structure, where no relay changes it", diagnosis.notLooked);
}

// SHA-512 signed, SHA-256 named: their identifiers differ in the last octet alone (RFC 5754, 2).
TEST(DiagnosisSigners, TheDigestOfAnotherAlgorithm) {
    Bytes signature = signatureOver(text, identities().rsa, "sha512");
    const Bytes sha512{0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03};
    int count = 0;
    for (auto at = std::search(signature.begin(), signature.end(), sha512.begin(), sha512.end()); at != signature.end();
         at = std::search(at, signature.end(), sha512.begin(), sha512.end())) {
        at[8] = 0x01;
        ++count;
    }
    ASSERT_GE(count, 2);
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, text);
    EXPECT_EQ(Names{"digest-of-other-algorithm"}, namesOf(diagnosis));
    EXPECT_EQ("the signer says to have digested the text by sha256, but the digest that was signed is its sha512\n",
              textOf(diagnosis));
    EXPECT_TRUE(diagnosisOf(signature, text + "x").explanations.empty());
}

// The attribute alone is another algorithm's; the signature over the attributes is by the one that is named.
TEST(DiagnosisSigners, TheAttributeOfAnotherAlgorithm) {
    const auto withDigest = [](const EVP_MD* algorithm) {
        return signedAttributes(identities().rsa, [&](PKCS7_SIGNER_INFO* signer) {
            PKCS7_add_attrib_content_type(signer, nullptr);
            const Bytes digest = digestOf(bytesOf(text), algorithm);
            PKCS7_add_signed_attribute(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING, octets(digest));
        });
    };
    const std::vector<Bytes> own{identities().rsa.certificate.der};
    EXPECT_TRUE(diagnosisOf(withCertificates(withDigest(EVP_sha256()), own), text).explanations.empty());
    const SMime::Diagnosis diagnosis = diagnosisOf(withCertificates(withDigest(EVP_sha1()), own), text);
    EXPECT_EQ(Names{"digest-of-other-algorithm"}, namesOf(diagnosis));
    EXPECT_THAT(textOf(diagnosis), HasSubstr("by sha256, but the digest that was signed is its sha1"));
}

TEST(DiagnosisSigners, WithoutSignedAttributes) {
    const Bytes signature = signatureOver(text, identities().rsa, "sha256", CMS_NOATTR);
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosisOf(signature, lineFeeds)));
    EXPECT_EQ(Names{"last-line-end-added"}, namesOf(diagnosisOf(signature, text + "\r\n")));
    const SMime::Diagnosis changed = diagnosisOf(signature, text + "and more");
    EXPECT_TRUE(changed.explanations.empty());
    EXPECT_EQ("", changed.notLooked);
    const Bytes nobody = signatureOver(text, identities().rsa, "sha256", CMS_NOATTR | CMS_NOCERTS);
    EXPECT_EQ(Names{"certificate-renewed"}, namesOf(diagnosisOf(nobody, text, {{certificateOf(renewed())}})));
    // Where nobody's key fits, no other body is tried.
    const SMime::Diagnosis unknown = diagnosisOf(nobody, lineFeeds, {{certificateOf(identities().otherRsa)}});
    EXPECT_TRUE(unknown.explanations.empty());
    EXPECT_EQ(1U, unknown.passes);
}

TEST(DiagnosisSigners, OtherKeysAndDigests) {
    for (const Identity* identity : {&identities().ec, &identities().dsa}) {
        EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosisOf(signatureOver(text, *identity), lineFeeds)));
    }
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosisOf(signatureOver(text, identities().rsa, "sha384"), lineFeeds)));
}

TEST(DiagnosisSigners, EachSignerHasAnExplanationOfItsOwn) {
    const Bytes signature =
        signedMessage({&identities().rsa, &identities().ec}, {"sha256", "sha512"}, bytesOf(text), CMS_DETACHED);
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, lineFeeds);
    ASSERT_EQ(2U, diagnosis.explanations.size());
    const Norvane::MemoryMediaIn in(bufferOf(signature));
    const CMS::SignedReader message(in);
    Norvane::MediaOut body = message.digest();
    writeInPieces(body, bytesOf(text));
    for (std::size_t at = 0; at != 2; ++at) {
        EXPECT_EQ(at, diagnosis.explanations[at].signer);
        EXPECT_TRUE(message.isValid(message.signers()[at], diagnosis.explanations[at].certificate));
    }
}

// Whoever writes the digest of another text into a structure cannot sign it: that the digest fits explains nothing.
TEST(DiagnosisSigners, ADigestThatNobodySignedExplainsNothing) {
    const Bytes own = digestOf(bytesOf(text));
    const std::string forgedText = replaced(text, "well", "lost");
    const Bytes forgedDigest = digestOf(bytesOf(forgedText));
    Bytes signature = signatureOver(text);
    const auto at = std::search(signature.begin(), signature.end(), own.begin(), own.end());
    ASSERT_NE(signature.end(), at);
    std::copy(forgedDigest.begin(), forgedDigest.end(), at);
    for (const std::string& arrived : {forgedText, replaced(forgedText, "\r\n", "\n"), forgedText + "\r\n"}) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signature, arrived);
        EXPECT_TRUE(diagnosis.explanations.empty());
        EXPECT_EQ(1U, diagnosis.passes);
    }
}

// The body is read again for the changes; a source may come up with another one then.
TEST(DiagnosisSigners, ABodyThatGrowsBeyondTheBudgetIsNotTriedToItsEnd) {
    const std::string changed = replaced(text, "well", "lost");
    SMime::DiagnosisOptions options;
    options.budget.body = changed.size();
    int asked = 0;
    const SMime::BodySource growing = [&] {
        return Norvane::MediaIn(Norvane::MemoryMediaIn(asked++ == 0 ? changed : changed + "and more"));
    };
    const SMime::Diagnosis diagnosis = SMime::explain(bufferOf(signatureOver(text)), growing, options);
    EXPECT_EQ(2, asked);
    EXPECT_TRUE(diagnosis.explanations.empty());
    EXPECT_EQ("the body has more than " + std::to_string(changed.size()) +
                  " bytes: what may have happened to it was not tried",
              diagnosis.notLooked);
}

TEST(DiagnosisSigners, WhatIsBeyondTheBudgetIsSaid) {
    const Bytes signature = signatureOver(text);
    SMime::DiagnosisOptions options;
    options.budget.body = 10;
    EXPECT_EQ("the body has more than 10 bytes: what may have happened to it was not tried",
              diagnosisOf(signature, lineFeeds, options).notLooked);
    options = {};
    options.budget.structure = 100;
    EXPECT_EQ("the signature has more than 100 bytes: why it does not fit was not looked into",
              diagnosisOf(signature, lineFeeds, options).notLooked);
    options = {};
    options.budget.digested = 1;
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, replaced(text, "well", "lost"), options);
    EXPECT_THAT(diagnosis.notLooked, HasSubstr("further changes were not tried"));
    EXPECT_EQ(1U, diagnosis.passes);
    // What the first pass finds is not lost.
    EXPECT_EQ(Names{"line-ends-lf"}, namesOf(diagnosisOf(signature, lineFeeds, options)));
    options = {};
    options.budget.verifications = 0;
    EXPECT_EQ("more than 0 signatures would have had to be verified",
              diagnosisOf(signature, lineFeeds, options).notLooked);
    options = {};
    options.budget.signers = 1;
    const SMime::Diagnosis two =
        diagnosisOf(signedMessage({&identities().rsa, &identities().ec}, {"sha256"}, bytesOf(text), CMS_DETACHED),
                    lineFeeds, options);
    EXPECT_EQ(1U, two.explanations.size());
    EXPECT_EQ("of the signers whose signature does not fit, only the first 1 were looked at", two.notLooked);
}

} // namespace
