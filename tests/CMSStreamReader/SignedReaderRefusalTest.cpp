// What is not good, and why: forged, forbidden, unsupported, damaged.
#include "support/SignedMessages.h"
#include "support/SmallRsa.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureReport;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

SignatureReport reportOn(const Bytes& structure) {
    ERR_clear_error();
    StrictIn in(structure);
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    SignatureReport report = message.report();
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return report;
}

SignatureResult only(const Bytes& structure) {
    const SignatureReport report = reportOn(structure);
    EXPECT_EQ(report.signers.size(), 1U);
    return report.signers.empty() ? SignatureResult{} : report.signers.front();
}

void expectRefused(SignatureReason reason, const Bytes& structure) {
    const SignatureResult result = only(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::refused);
    EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
}

void expectUnsupported(SignatureReason reason, const std::string& algorithm, const Bytes& structure) {
    const SignatureResult result = only(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, reason) << CMS::textOf(result.reason);
    EXPECT_EQ(result.algorithm, algorithm);
}

void expectGood(const Bytes& structure) {
    const SignatureResult result = only(structure);
    EXPECT_EQ(result.verdict, SignatureVerdict::good) << CMS::textOf(result.reason);
}

const Bytes data = der::oid("1.2.840.113549.1.7.1");

Bytes withAttributes(std::vector<Bytes> attributes) {
    HandMadeSigner signer;
    signer.attributes = std::move(attributes);
    return attachedBy(signer, body());
}

/// What a structure that is no message is said to be.
std::string faultOf(const Bytes& structure, const SignedReader::Budget& budget = SignedReader::Budget()) {
    StrictIn in(structure);
    const auto thrown = norvtest::thrownBy([&] {
        SignedReader message(in, budget);
        Norvane::NullMediaOut out;
        message.write(out);
    });
    norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
    return norvtest::detailOf(thrown);
}

Bytes small(unsigned int flags) {
    return signedMessage({&identities().ec}, {"SHA256"}, bodyOf(40), flags | CMS_NOSMIMECAP);
}

} // namespace

TEST(SignedReaderRefusal, AttributesThatRfc5652Forbids) {
    const Bytes type = attribute(contentTypeAttribute, {data});
    const Bytes digest = attribute(messageDigestAttribute, {der::octetString(digestOf(body()))});
    expectGood(withAttributes({type, digest}));
    expectRefused(SignatureReason::contentTypeMissing, withAttributes({digest}));
    expectRefused(SignatureReason::contentTypeMissing, withAttributes({}));
    expectRefused(SignatureReason::contentTypeRepeated, withAttributes({type, type, digest}));
    expectRefused(SignatureReason::contentTypeRepeated,
                  withAttributes({attribute(contentTypeAttribute, {data, data}), digest}));
    expectRefused(SignatureReason::contentTypeRepeated, withAttributes({attribute(contentTypeAttribute, {}), digest}));
    expectRefused(SignatureReason::contentTypeDiffers,
                  withAttributes({attribute(contentTypeAttribute, {der::oid("1.2.840.113549.1.7.2")}), digest}));
    expectRefused(SignatureReason::contentTypeDiffers,
                  withAttributes({attribute(contentTypeAttribute, {der::octetString({1})}), digest}));
    expectRefused(SignatureReason::messageDigestMissing, withAttributes({type}));
    expectRefused(SignatureReason::messageDigestMissing,
                  withAttributes({type, attribute(messageDigestAttribute, {data})}));
    expectRefused(SignatureReason::messageDigestRepeated, withAttributes({type, digest, digest}));
    expectRefused(SignatureReason::messageDigestRepeated,
                  withAttributes({type, attribute(messageDigestAttribute, {der::octetString(digestOf(bodyOf(3))),
                                                                           der::octetString(digestOf(body()))})}));
    const Bytes time = der::element(der::utcTimeTag, norvauthority::bytes("250102030405Z"));
    expectRefused(SignatureReason::signingTimeRepeated,
                  withAttributes({type, attribute(signingTimeAttribute, {time, time}), digest}));
    Bytes wrong = digestOf(body());
    wrong.pop_back();
    expectRefused(SignatureReason::bodyDiffers,
                  withAttributes({type, attribute(messageDigestAttribute, {der::octetString(wrong)})}));
}

/// What OpenSSL says of the same message, without looking at the certificate's issuer.
bool isGoodToOpenssl(const Bytes& structure) {
    const Bio in(BIO_new_mem_buf(structure.data(), static_cast<int>(structure.size())));
    const CmsStructure message(d2i_CMS_bio(in.get(), nullptr));
    const Bio out(BIO_new(BIO_s_null()));
    const bool isGood =
        CMS_verify(message.get(), nullptr, nullptr, nullptr, out.get(), CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
    ERR_clear_error();
    return isGood;
}

/// Where an attribute may stand (RFC 5652, 11; RFC 2634, 2.7, 5.4; RFC 5035, 3); OpenSSL agrees about each.
TEST(SignedReaderRefusal, AttributesInTheWrongPlace) {
    const Bytes time = der::element(der::utcTimeTag, norvauthority::bytes("250102030405Z"));
    const auto message = [](std::vector<Bytes> more, std::vector<Bytes> unsignedOnes, bool hasSignedOnes) {
        HandMadeSigner signer;
        if (hasSignedOnes) {
            signer.attributes = usualAttributes(body());
            signer.attributes->insert(signer.attributes->end(), more.begin(), more.end());
        }
        signer.unsignedAttributes = std::move(unsignedOnes);
        return attachedBy(signer, body());
    };
    const std::string ofSmime = "1.2.840.113549.1.9.16.2.";
    for (const std::string& type : {std::string(contentTypeAttribute), std::string(messageDigestAttribute),
                                    std::string(signingTimeAttribute), ofSmime + "1", ofSmime + "12", ofSmime + "47"}) {
        SCOPED_TRACE(type);
        const Bytes misplaced = message({}, {attribute(type, {time})}, true);
        expectRefused(SignatureReason::attributeMisplaced, misplaced);
        EXPECT_FALSE(isGoodToOpenssl(misplaced));
        const Bytes withoutSigned = message({}, {attribute(type, {time})}, false);
        expectGood(withoutSigned);
        EXPECT_TRUE(isGoodToOpenssl(withoutSigned));
    }
    const Bytes countersigned = message({attribute(countersignatureAttribute, {time})}, {}, true);
    expectRefused(SignatureReason::attributeMisplaced, countersigned);
    EXPECT_FALSE(isGoodToOpenssl(countersigned));
    for (const char* const free : {"1.2.840.113549.1.9.15", "1.2.840.113549.1.9.16.2.4", "1.2.3.4"}) {
        const Bytes allowed = message({attribute(free, {time})}, {attribute(free, {time, time})}, true);
        expectGood(allowed);
        EXPECT_TRUE(isGoodToOpenssl(allowed)) << free;
    }
}

TEST(SignedReaderRefusal, AReceiptRequestThatStandsTwice) {
    const Bytes value = der::octetString({1});
    const auto message = [](const std::vector<Bytes>& more) {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        signer.attributes->insert(signer.attributes->end(), more.begin(), more.end());
        return attachedBy(signer, body());
    };
    const std::string receiptRequest = "1.2.840.113549.1.9.16.2.1";
    const Bytes once = attribute(receiptRequest, {value});
    expectGood(message({once}));
    EXPECT_TRUE(isGoodToOpenssl(message({once})));
    for (const Bytes& repeated : {message({once, once}), message({attribute(receiptRequest, {value, value})}),
                                  message({attribute(receiptRequest, {})})}) {
        expectRefused(SignatureReason::receiptRequestRepeated, repeated);
        EXPECT_FALSE(isGoodToOpenssl(repeated));
    }
}

TEST(SignedReaderRefusal, ABodyThatIsASetOfAttributes) {
    const HandMadeSigner signer;
    const Bytes attributes = der::set(usualAttributes(body()));
    expectRefused(SignatureReason::bodyIsAttributes, attachedBy(signer, attributes));
}

/// One signature is no other's: who countersigned octets has not signed them as a content.
TEST(SignedReaderRefusal, ACountersignatureIsNoSignatureOfAContent) {
    HandMadeSigner countersigner; // no content type among its attributes (RFC 5652, 11.4)
    countersigner.attributes =
        std::vector<Bytes>{attribute(messageDigestAttribute, {der::octetString(digestOf(body()))})};
    HandMade message{.digestAlgorithms = {countersigner.digestAlgorithm},
                     .content = der::octetString(body()),
                     .certificates = {identities().rsa.certificate.der},
                     .signers = {countersigner.made(body())}};
    expectRefused(SignatureReason::contentTypeMissing, message.made());
    // Identifiers that are none, which no attribute can name.
    for (const Bytes& none : {Bytes(), Bytes{0x80, 1}, Bytes{0x2A, 0x86}}) {
        message.contentType = der::element(0x06, none);
        EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
    }
}

TEST(SignedReaderRefusal, AttributesThatAreNotSorted) {
    // Signed as they were sent, and signed as RFC 5652, 5.4 has it.
    const std::vector<Bytes> sorted = usualAttributes(body());
    const std::vector<Bytes> reversed(sorted.rbegin(), sorted.rend());
    expectGood(withAttributes(reversed));
    HandMadeSigner signer;
    signer.attributes = sorted;
    signer.sentAttributes = der::concat(reversed);
    expectGood(attachedBy(signer, body()));
    // A length in more octets than it needs, which DER does not have.
    Bytes ber = sorted[0];
    ber.insert(ber.begin() + 1, 0x81);
    signer.sentAttributes = der::concat({ber, sorted[1]});
    expectGood(attachedBy(signer, body()));
    signer.sentAttributes = der::concat({sorted[0], sorted[1], attribute("1.2.3.4", {der::null()})});
    expectRefused(SignatureReason::signatureWrong, attachedBy(signer, body()));
}

TEST(SignedReaderRefusal, AlgorithmsThatContradictEachOther) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    signer.signatureAlgorithm = algorithm("sha256WithRSAEncryption", true);
    expectGood(attachedBy(signer, body()));
    signer.signatureAlgorithm = algorithm("sha512WithRSAEncryption", true);
    expectRefused(SignatureReason::digestDiffers, attachedBy(signer, body()));
    signer.signatureAlgorithm = algorithm("ecdsa-with-SHA256");
    expectRefused(SignatureReason::algorithmDiffers, attachedBy(signer, body()));
    signer.signatureAlgorithm = algorithm("ED25519");
    expectRefused(SignatureReason::algorithmDiffers, attachedBy(signer, body()));
    signer.digestAlgorithm = algorithm("SHA512");
    signer.signatureAlgorithm = algorithm("rsaEncryption");
    expectRefused(SignatureReason::bodyDiffers, attachedBy(signer, body()));
}

TEST(SignedReaderRefusal, ParametersOfRsassaPss) {
    const Bytes sha256 = der::element(der::contextConstructed(0), algorithm("SHA256"));
    const Bytes mask = der::element(der::contextConstructed(1),
                                    der::sequence({der::oid("1.2.840.113549.1.1.8"), algorithm("SHA256")}));
    const auto salt = [](const char* length) { return der::element(der::contextConstructed(2), der::integer(length)); };
    const Bytes pss = der::oid("1.2.840.113549.1.1.10");
    const auto with = [&](const std::vector<Bytes>& parts) {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        signer.signatureAlgorithm = der::sequence(parts);
        return attachedBy(signer, body());
    };
    expectRefused(SignatureReason::signatureWrong, with({pss, der::sequence({sha256, mask, salt("20")})}));
    expectRefused(SignatureReason::parametersWrong, with({pss}));
    expectRefused(SignatureReason::parametersWrong, with({pss, der::null()}));
    expectRefused(SignatureReason::parametersWrong, with({pss, der::sequence({sha256, mask, salt("-1")})}));
    expectRefused(SignatureReason::parametersWrong, with({pss, der::sequence({sha256, mask, salt("7fffffff")})}));
    expectRefused(SignatureReason::parametersWrong,
                  with({pss, der::sequence({sha256, mask, salt("20"),
                                            der::element(der::contextConstructed(3), der::integer("2"))})}));
    expectRefused(SignatureReason::parametersWrong, with({pss, der::sequence({salt("20"), sha256})}));
    const Bytes two = der::element(der::contextConstructed(0), der::concat({algorithm("SHA256"), algorithm("SHA1")}));
    expectRefused(SignatureReason::parametersWrong, with({pss, der::sequence({two, mask, salt("20")})}));
    expectRefused(SignatureReason::digestDiffers, with({pss, der::sequence({})})); // SHA-1
    expectUnsupported(SignatureReason::signatureAlgorithm, "RSASSA-PSS",
                      with({pss, der::sequence({der::element(der::contextConstructed(0), algorithm("1.2.3"))})}));
    expectUnsupported(
        SignatureReason::signatureAlgorithm, "RSASSA-PSS",
        with({pss, der::sequence({sha256, der::element(der::contextConstructed(1),
                                                       der::sequence({der::oid("1.2.3"), algorithm("SHA256")}))})}));
    // Another mask need not have the parameters of MGF1: those of SHAKE256 (RFC 8702) are left out.
    for (const Bytes& other : {algorithm("SHAKE256"), der::sequence({der::oid("1.2.3"), der::octetString({1})})}) {
        expectUnsupported(
            SignatureReason::signatureAlgorithm, "RSASSA-PSS",
            with({pss, der::sequence({sha256, der::element(der::contextConstructed(1), other), salt("20")})}));
    }
}

// RFC 4055, 3.3: a key may be for one digest and for so much salt at least.
TEST(SignedReaderRefusal, KeysForOtherParametersOfRsassaPss) {
    const Identity restricted = norvauthority::issue({.subject = {{"CN", "Restricted"}},
                                                      .key = norvtest::pssKey(EVP_sha256(), EVP_sha256(), 32),
                                                      .issuer = &identities().authority,
                                                      .serial = "7e57",
                                                      .keyUsage = 0x80});
    const auto with = [&](const char* digest, const char* salt) {
        HandMadeSigner signer{.identity = &restricted};
        signer.attributes = usualAttributes(body());
        const Bytes mask = der::sequence({der::oid("1.2.840.113549.1.1.8"), algorithm(digest)});
        signer.signatureAlgorithm =
            der::sequence({der::oid("1.2.840.113549.1.1.10"),
                           der::sequence({der::element(der::contextConstructed(0), algorithm("SHA256")),
                                          der::element(der::contextConstructed(1), mask),
                                          der::element(der::contextConstructed(2), der::integer(salt))})});
        return attachedBy(signer, body());
    };
    expectGood(with("SHA256", "20"));
    expectUnsupported(SignatureReason::keyAlgorithm, "RSASSA-PSS", with("SHA512", "20"));
    expectUnsupported(SignatureReason::keyAlgorithm, "RSASSA-PSS", with("SHA256", "1f"));
}

TEST(SignedReaderRefusal, WhatIsNotSupportedIsNamed) {
    HandMadeSigner signer;
    signer.digestAlgorithm = algorithm("1.2.3.4");
    expectUnsupported(SignatureReason::digestAlgorithm, "1.2.3.4", attachedBy(signer, body()));
    signer.digestAlgorithm = algorithm("SHAKE128");
    expectUnsupported(SignatureReason::digestAlgorithm, "shake128", attachedBy(signer, body()));
    signer.digestAlgorithm = algorithm("SHAKE256");
    expectUnsupported(SignatureReason::digestAlgorithm, "shake256", attachedBy(signer, body()));
    signer.digestAlgorithm = algorithm("SHA256");
    signer.signatureAlgorithm = algorithm("1.2.3.5");
    expectUnsupported(SignatureReason::signatureAlgorithm, "1.2.3.5", attachedBy(signer, body()));
    signer.signatureAlgorithm = algorithm("rsaEncryption");
    const Bytes made = signer.made(body());
    HandMade message{.content = der::octetString(body()), .signers = {made}};
    expectUnsupported(SignatureReason::digestNotAnnounced, "sha256", message.made());
    message.digestAlgorithms = {algorithm("MD5"), algorithm("SHA1"), algorithm("SHA384"), algorithm("SHA512"),
                                algorithm("SHA256")};
    expectUnsupported(SignatureReason::tooManyDigests, "sha256", message.made());
    message.content.reset();
    message.certificates = {identities().rsa.certificate.der};
    StrictIn in(message.made());
    const SignedReader reader(in);
    Norvane::MediaOut digest = reader.digest();
    digest.write(bufferOf(body()));
    EXPECT_EQ(reader.report().signers.front().verdict, SignatureVerdict::good) << "its signers were known before";
    message.digestAlgorithms = {};
    StrictIn bare(message.made());
    const SignedReader other(bare);
    digest = other.digest();
    digest.write(bufferOf(body()));
    EXPECT_EQ(other.report().signers.front().verdict, SignatureVerdict::good) << "likewise";
}

TEST(SignedReaderRefusal, CertificatesThatCannotBeUsed) {
    const HandMadeSigner signer;
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm}, .content = der::octetString(body())};
    message.signers = {signer.made(body())};
    expectRefused(SignatureReason::certificateMissing, message.made());
    message.certificates = {identities().ec.certificate.der};
    expectRefused(SignatureReason::certificateMissing, message.made());

    const Bytes& sound = identities().rsa.certificate.der;
    const auto parts = [](const Bytes& toBeSigned) {
        return der::sequence({toBeSigned, algorithm("sha256WithRSAEncryption", true), der::bitString({1, 2, 3})});
    };
    const Bytes damaged =
        parts(der::sequence({der::element(der::contextConstructed(0), der::integer("2")), der::integer("a11ce"),
                             algorithm("sha256WithRSAEncryption", true), identities().authority.name.der()}));
    message.certificates = {damaged};
    expectRefused(SignatureReason::certificateDamaged, message.made());
    message.certificates = {damaged, sound};
    expectGood(message.made());
    message.certificates = {sound, damaged};
    expectGood(message.made());
    // Others may be anything.
    message.certificates = {der::sequence({der::integer("1")}), der::sequence({}), sound,
                            der::element(der::contextConstructed(1), {}),
                            der::element(der::contextConstructed(3), der::oid("1.2.3"))};
    expectGood(message.made());
    message.certificates = {der::integer("1"), sound};
    EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
}

TEST(SignedReaderRefusal, FewTriesForASignerWhoseCertificatesAreMany) {
    const HandMadeSigner signer;
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm}, .content = der::octetString(body())};
    message.signers = {signer.made(body())};
    for (int number = 0; number < 4; ++number) {
        const Bytes other = namedLikeRsa(identities().otherRsa.key, std::to_string(number)).certificate.der;
        message.certificates.insert(message.certificates.end(), 3, other);
    }
    expectRefused(SignatureReason::signatureWrong, message.made());
    message.certificates.push_back(identities().rsa.certificate.der);
    expectUnsupported(SignatureReason::tooManyCertificates, "", message.made());
}

TEST(SignedReaderRefusal, AFlippedBitAnywhereIsNeverAnotherContent) {
    const Bytes content = bodyOf(40);
    const NVX509::RefCertificate certificate = certificateOf(identities().ec);
    for (const int shape : {CMS_NOCERTS, CMS_NOCERTS | CMS_STREAM, CMS_NOCERTS | CMS_NOATTR}) {
        const Bytes made = small(static_cast<unsigned int>(shape));
        std::size_t good = 0;
        for (std::size_t bit = 0; bit != made.size() * 8; ++bit) {
            Bytes altered = made;
            altered[bit / 8] = static_cast<unsigned char>(altered[bit / 8] ^ (1U << bit % 8));
            Norvane::MemoryMediaIn in(bufferOf(altered));
            try {
                SignedReader message(in);
                Norvane::MemoryMediaOut out;
                message.write(out);
                const auto& signers = message.signers();
                if (signers.size() == 1 && message.isValid(signers.front(), certificate)) {
                    ++good;
                    EXPECT_EQ(bytesOf(out.content()), content) << bit;
                }
            } catch (const Norvane::Exception& damaged) {
                EXPECT_EQ(damaged.where(), "CMS::SignedReader") << bit;
            }
        }
        EXPECT_GT(good, 0U) << "versions, the name of a certificate that is known";
        EXPECT_LT(good, made.size() * 8 / 2);
    }
}

TEST(SignedReaderRefusal, AMessageThatIsCutAnywhereIsNone) {
    for (const int shape : {0, CMS_STREAM, CMS_DETACHED}) {
        const auto flags = static_cast<unsigned int>(shape);
        const Bytes made = small(flags);
        for (std::size_t length = 0; length != made.size(); ++length) {
            const Bytes cut(made.begin(), made.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_NE(faultOf(cut), "") << length;
            Norvane::MemoryMediaIn in(bufferOf(cut));
            EXPECT_THROW(
                {
                    SignedReader message(in);
                    Norvane::NullMediaOut out;
                    message.write(out);
                },
                Norvane::Exception)
                << length;
        }
    }
}

TEST(SignedReaderRefusal, WhatIsWrongStaysWrong) {
    Bytes made = small(0);
    made.resize(made.size() - 3);
    PiecewiseIn in(made);
    SignedReader message(in);
    Norvane::MemoryMediaOut out;
    for (int time = 0; time < 3; ++time) {
        EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { message.write(out); })),
                  "the source ended before the structure");
    }
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(message.signers()); })),
              "the source ended before the structure");
    EXPECT_FALSE(message.isComplete());
    EXPECT_EQ(bytesOf(out.content()), bodyOf(40));

    PiecewiseIn dead(small(0), 16, 60);
    SignedReader other(dead);
    EXPECT_THROW(other.write(out), std::runtime_error);
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { other.write(out); })), "the source failed");
}

TEST(SignedReaderRefusal, WhatIsNoMessageIsSaidToBeNone) {
    EXPECT_EQ(faultOf({}), "the source ended before the structure");
    EXPECT_EQ(faultOf(norvauthority::bytes("hello, this is no message")), "an element that does not belong there");
    EXPECT_EQ(faultOf(der::sequence({der::oid("1.2.840.113549.1.7.1"),
                                     der::element(der::contextConstructed(0), der::octetString(body()))})),
              "no signed data");
    HandMade message;
    message.content = der::sequence({der::integer("1")});
    EXPECT_EQ(faultOf(message.made()), "unsupported: the content is a structure, not bytes");
    message.content = der::concat({der::octetString(body()), der::octetString(body())});
    EXPECT_EQ(faultOf(message.made()), "an element that does not belong there");
    message.content = der::element(0x24, der::integer("1"));
    EXPECT_EQ(faultOf(message.made()), "an element that does not belong there");
    message.content = der::octetString(body());
    message.signers = {der::sequence({der::integer("1")})};
    EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
    for (const Bytes& parameters :
         {Bytes{0x05, 0x01, 0x00}, Bytes{0x25, 0x00}, Bytes{0x05}, der::concat({der::null(), der::null()})}) {
        HandMadeSigner signer;
        message.signers = {};
        message.digestAlgorithms = {der::sequence({der::oid("SHA256"), parameters})};
        EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
        signer.signatureAlgorithm = der::sequence({der::oid("rsaEncryption"), parameters});
        message.digestAlgorithms = {};
        message.signers = {signer.made(body())};
        EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
    }
    message.signers = {der::integer("1")};
    EXPECT_EQ(faultOf(message.made()), "no BER or DER encoding");
}
