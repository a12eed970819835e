// What the classes of PKCS#7 1.5 say of messages that they cannot read, as docs/algorithms.md has it: "named as unsupported",
// never as damaged or forged.
#include "SignedWriting.h"
#include "support/Envelope.h"
#include "support/EnvelopeWriting.h"
#include "support/SignedMessages.h"

#include <norvcrypto/CMSEnvelopeOutline.h>
#include <norvcrypto/CMSVerification.h>

using namespace signedtest;
using CMS::ContentCipher;
using CMS::EnvelopeOutline;
using CMS::EnvelopeRecipient;
using CMS::SignatureReason;
using CMS::SignatureVerdict;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(5000);
    return content;
}

Bytes signedWith(const Signer& signer) {
    Options options = optionsFor({signer});
    options.content = Content::detached;
    return written(options, body());
}

Signer pssSigner() {
    Signer signer(pairOf(identities().rsa));
    signer.rsaScheme = SignedWriter::RsaScheme::pss;
    return signer;
}

/// By Ed25519 over the content itself.
Bytes edwardsWithoutAttributes() {
    const HandMadeSigner signer{.identity = &ed25519(),
                                .digestAlgorithm = algorithm("SHA512"),
                                .signatureAlgorithm = algorithm("ED25519"),
                                .digest = nullptr};
    HandMade message{.digestAlgorithms = {algorithm("SHA512")},
                     .certificates = {ed25519().certificate.der},
                     .signers = {signer.made(body())}};
    return message.made();
}

Bytes agreementBy(const std::string& scheme) {
    const Bytes originator = der::element(
        der::contextConstructed(0),
        der::element(der::contextConstructed(1),
                     der::concat({der::sequence({der::oid("1.3.101.111")}), der::bitString(Bytes(56, 4))})));
    const Bytes key =
        der::sequence({der::sequence({identities().authority.name.der(), der::integer(identities().rsa.serial)}),
                       der::octetString(Bytes(40, 1))});
    const Bytes wrap = der::sequence({der::oid("2.16.840.1.101.3.4.1.45")});
    const Bytes recipient = der::element(
        der::contextConstructed(1),
        der::concat({der::integer("3"), originator, der::sequence({der::oid(scheme), wrap}), der::sequence({key})}));
    const Bytes encrypted = der::sequence({der::oid("1.2.840.113549.1.7.1"),
                                           der::sequence({der::oid("AES-256-CBC"), der::octetString(Bytes(16, 2))}),
                                           der::element(der::context(0), Bytes(32, 3))});
    return der::sequence({der::oid("1.2.840.113549.1.7.3"),
                          der::element(der::contextConstructed(0),
                                       der::sequence({der::integer("2"), der::set({recipient}), encrypted}))});
}

} // namespace

TEST(OlderClasses, SignaturesAreNamedAsUnsupported) {
    const struct {
        const char* row;
        Bytes message;
        SignatureReason reason;
        const char* algorithm;
    } rows[] = {
        {"RSASSA-PSS", signedWith(pssSigner()), SignatureReason::signatureAlgorithm, "RSASSA-PSS"},
        {"Ed25519 over signed attributes", signedWith(Signer(pairOf(ed25519()))), SignatureReason::signatureAlgorithm,
         "Ed25519"},
        {"Ed448 over signed attributes", signedWith(Signer(pairOf(ed448()))), SignatureReason::digestAlgorithm,
         "2.16.840.1.101.3.4.2.18"},
        {"Ed25519 over a content", edwardsWithoutAttributes(), SignatureReason::signatureAlgorithm, "Ed25519"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.row);
        PiecewiseIn structure(row.message);
        PiecewiseIn content(body());
        const CMS::SignatureReport report = CMS::verifySignatures(CMS::RefContentInfo(structure), content);
        ASSERT_EQ(report.signers.size(), 1U);
        EXPECT_EQ(report.signers.front().verdict, SignatureVerdict::unsupported);
        EXPECT_EQ(report.signers.front().reason, row.reason) << CMS::textOf(report.signers.front().reason);
        EXPECT_EQ(report.signers.front().algorithm, row.algorithm);
    }
}

TEST(OlderClasses, RecipientsAndCiphersAreNamedAsUnsupported) {
    const auto rsa = certificateOf(identities().rsa);
    const std::string agreement = "recipients by key agreement ";
    const auto to = [](const EnvelopeRecipient& recipient, ContentCipher cipher = ContentCipher::aes256Cbc) {
        return written({recipient}, {.cipher = cipher}, body());
    };
    const auto onCurveWith = [&](const char* curve, Hasher::Type digest, bool cofactor) {
        return to(EnvelopeRecipient::keyAgreement(certificateOf(onCurve(curve)), {digest, cofactor}));
    };
    const struct {
        const char* row;
        Bytes message;
        std::string named;
    } rows[] = {
        {"P-256, SHA-1", onCurveWith("P-256", Hasher::SHA1, false),
         agreement + "(dhSinglePass-stdDH-sha1kdf-scheme (1.3.133.16.840.63.0.2))"},
        {"P-256, SHA-2", onCurveWith("P-256", Hasher::SHA256, false),
         agreement + "(dhSinglePass-stdDH-sha256kdf-scheme (1.3.132.1.11.1))"},
        {"P-384", onCurveWith("P-384", Hasher::SHA384, false),
         agreement + "(dhSinglePass-stdDH-sha384kdf-scheme (1.3.132.1.11.2))"},
        {"P-521", onCurveWith("P-521", Hasher::SHA512, false),
         agreement + "(dhSinglePass-stdDH-sha512kdf-scheme (1.3.132.1.11.3))"},
        {"with cofactor", onCurveWith("P-256", Hasher::SHA256, true),
         agreement + "(dhSinglePass-cofactorDH-sha256kdf-scheme (1.3.132.1.14.1))"},
        {"X25519 with HKDF", to(EnvelopeRecipient(certificateOf(onCurve("X25519")))),
         agreement + "(1.2.840.113549.1.9.16.3.19)"},
        {"X448 with HKDF", agreementBy("1.2.840.113549.1.9.16.3.21"), agreement + "(1.2.840.113549.1.9.16.3.21)"},
        {"X448 with X9.63", agreementBy("1.3.132.1.11.3"),
         agreement + "(dhSinglePass-stdDH-sha512kdf-scheme (1.3.132.1.11.3))"},
        {"key-encryption key",
         to(EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(32)), bufferOf(bytesOf(kekIdentifier)))),
         "recipients by key-encryption key (id-aes256-wrap (2.16.840.1.101.3.4.1.45))"},
        {"password", to(EnvelopeRecipient::password(bufferOf(bytesOf(password)), {1000})), "recipients by password"},
        {"subject key identifier", to(EnvelopeRecipient(rsa, CMS::NamedBy::subjectKeyIdentifier)),
         "recipients by subject key identifier"},
        {"AES-128 in GCM mode", to(EnvelopeRecipient(rsa), ContentCipher::aes128Gcm),
         "AuthEnvelopedData (id-aes128-GCM (2.16.840.1.101.3.4.1.6))"},
        {"AES-192 in GCM mode", to(EnvelopeRecipient(rsa), ContentCipher::aes192Gcm),
         "AuthEnvelopedData (id-aes192-GCM (2.16.840.1.101.3.4.1.26))"},
        {"AES-256 in GCM mode", to(EnvelopeRecipient(rsa), ContentCipher::aes256Gcm),
         "AuthEnvelopedData (id-aes256-GCM (2.16.840.1.101.3.4.1.46))"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.row);
        const EnvelopeOutline outline(bufferOf(row.message));
        EXPECT_NE(outline.kind(), EnvelopeOutline::Damaged);
        EXPECT_FALSE(outline.isReadable());
        EXPECT_EQ(outline.unsupported(), std::list<std::string>{row.named});
    }
}

TEST(OlderClasses, OaepIsNamedAsUnsupported) {
    const auto rsa = certificateOf(identities().rsa);
    for (const auto& recipient :
         {EnvelopeRecipient::rsaOaep(rsa), EnvelopeRecipient::rsaOaep(rsa, {Hasher::SHA1}),
          EnvelopeRecipient::rsaOaep(rsa, {Hasher::SHA512, Hasher::SHA256, bufferOf(bytesOf("label"))})}) {
        const Bytes message = written({recipient}, {}, body());
        const RecordedLog log;
        PiecewiseIn in(message);
        Norvane::NullMediaOut out;
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&identities().rsa}));
        decrypter.write(out);
        ASSERT_EQ(decrypter.attempts().size(), 1U);
        EXPECT_EQ(decrypter.attempts().front().outcome(), CMS::DecrypterMediaIn::Attempt::UnsupportedAlgorithm);
        EXPECT_EQ(decrypter.attempts().front().algorithm(), "RSAES-OAEP (1.2.840.113549.1.1.7)");
    }
}
