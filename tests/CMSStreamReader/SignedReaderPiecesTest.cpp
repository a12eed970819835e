// Values that senders may write in other ways than most do, and values that are none: strings in segments, certificates that do not
// decode, attributes that hold something else.
#include "support/SignedMessages.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

std::string faultOf(const Bytes& structure) {
    const auto thrown = norvtest::thrownBy([&] { const Read read(structure); });
    norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
    return norvtest::detailOf(thrown);
}

Bytes part(const Bytes& whole, std::size_t from, std::size_t to) {
    return {whole.begin() + static_cast<std::ptrdiff_t>(from), whole.begin() + static_cast<std::ptrdiff_t>(to)};
}

/// The octets as a constructed string of two segments with an empty one between them.
Bytes inSegments(unsigned char tag, const Bytes& octets) {
    const std::size_t middle = octets.size() / 3;
    return der::element(tag, der::concat({der::octetString(part(octets, 0, middle)), der::octetString({}),
                                          der::octetString(part(octets, middle, octets.size()))}));
}

Bytes messageBy(const std::vector<Bytes>& signers, const std::vector<Bytes>& certificates) {
    return HandMade{.digestAlgorithms = {algorithm("SHA256", true)},
                    .content = der::octetString(body()),
                    .certificates = certificates,
                    .signers = signers}
        .made();
}

/// Alice's SignerInfo without attributes, with the element that holds the signature as it is given.
Bytes signedWith(const Bytes& signatureElement) {
    const Identity& alice = identities().rsa;
    return messageBy({der::sequence({der::integer("1"),
                                     der::sequence({identities().authority.name.der(), der::integer(alice.serial)}),
                                     algorithm("SHA256", true), algorithm("rsaEncryption", true), signatureElement})},
                     {alice.certificate.der});
}

const Bytes& signature() {
    static const Bytes octets = signatureBy(identities().rsa.key, body(), EVP_sha256());
    return octets;
}

/// OpenSSL's verdict, as a second opinion on what is a sound structure.
bool openSslAccepts(const Bytes& message) {
    const unsigned char* at = message.data();
    const CmsStructure decoded(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(message.size())));
    const bool accepts = decoded != nullptr && CMS_verify(decoded.get(), nullptr, nullptr, nullptr, nullptr,
                                                          CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1;
    ERR_clear_error();
    return accepts;
}

constexpr const char* noEncoding = "no BER or DER encoding";

} // namespace

TEST(SignedReaderPieces, SignaturesInSegments) {
    const Bytes once = inSegments(0x24, signature());
    const Bytes twice = der::element(0x24, der::concat({der::element(0x24, der::octetString(part(signature(), 0, 100))),
                                                        inSegments(0x24, part(signature(), 100, signature().size()))}));
    for (const Bytes& element : {der::octetString(signature()), once, twice}) {
        const Bytes message = signedWith(element);
        EXPECT_TRUE(openSslAccepts(message));
        const Read read(message);
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good) << CMS::textOf(read.verdict().reason);
        EXPECT_EQ(bytesOf(read.message.signers().front().signature()), signature());
    }
    Bytes forged = signature();
    forged.back() ^= 1U;
    EXPECT_EQ(Read(signedWith(inSegments(0x24, forged))).verdict().reason, SignatureReason::signatureWrong);
}

TEST(SignedReaderPieces, SegmentsOfSegmentsEnd) {
    const auto nested = [](int levels) {
        Bytes element = der::octetString(signature());
        for (int level = 0; level < levels; ++level) {
            element = der::element(0x24, element);
        }
        return signedWith(element);
    };
    EXPECT_EQ(Read(nested(32)).verdict().verdict, SignatureVerdict::good);
    EXPECT_EQ(faultOf(nested(33)), "elements within elements to too many levels");
}

TEST(SignedReaderPieces, SegmentsOfSomethingElseAreNone) {
    for (const Bytes& segment : {der::integer("1"), Bytes{0x04, 0x05, 1}, Bytes{0x04}}) {
        const Bytes message = signedWith(der::element(0x24, der::concat({der::octetString(signature()), segment})));
        EXPECT_FALSE(openSslAccepts(message));
        EXPECT_EQ(faultOf(message), noEncoding);
    }
}

TEST(SignedReaderPieces, KeyIdentifiersInSegments) {
    const HandMadeSigner signer{.byKeyIdentifier = true, .name = inSegments(0xA0, identities().rsa.keyIdentifier)};
    const Read read(attachedBy(signer, body()));
    EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good) << CMS::textOf(read.verdict().reason);
    EXPECT_EQ(bytesOf(read.message.signers().front().identifier().octets()), identities().rsa.keyIdentifier);
}

TEST(SignedReaderPieces, TheCertificateOfAKeyIdentifierIsFoundAmongWhatIsNone) {
    const HandMadeSigner signer{.byKeyIdentifier = true};
    const auto withKeyIdentifier = [](const Bytes& extension) { // as much of a certificate as is looked at
        const Bytes name = identities().authority.name.der();
        return der::sequence({der::sequence({der::integer("1"), algorithm("SHA256"), name, der::sequence({}), name,
                                             der::element(0xA3, der::sequence({extension}))})});
    };
    const std::vector<Bytes> others{
        der::sequence({}),
        der::sequence({der::sequence({})}),
        der::sequence({der::sequence({der::integer("1"), algorithm("SHA256")})}),
        der::sequence({der::sequence({der::integer("1"), algorithm("SHA256"), identities().authority.name.der()})}),
        withKeyIdentifier(der::sequence({})),
        withKeyIdentifier(der::sequence({der::oid("subjectKeyIdentifier")})),
        withKeyIdentifier(der::sequence({der::oid("subjectKeyIdentifier"), der::octetString({})})),
        withKeyIdentifier(der::sequence({der::oid("subjectKeyIdentifier"), der::octetString(der::integer("1"))})),
        identities().ec.certificate.der,
    };
    std::vector<Bytes> certificates = others;
    certificates.push_back(identities().rsa.certificate.der);
    certificates.push_back(identities().rsa.certificate.der); // a copy
    const Read read(messageBy({signer.made(body()), signer.made(body())}, certificates));
    for (const SignedReader::Signer& one : read.message.signers()) {
        EXPECT_EQ(read.message.verdict(one).verdict, SignatureVerdict::good);
    }
    EXPECT_EQ(Read(messageBy({signer.made(body())}, others)).verdict().reason, SignatureReason::certificateMissing);
}

TEST(SignedReaderPieces, CapabilitiesThatAreNone) {
    const auto capabilitiesOf = [](const Bytes& value) {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        signer.attributes->push_back(attribute("1.2.840.113549.1.9.15", {value}));
        const Read read(attachedBy(signer, body()));
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good);
        return read.message.signers().front().capabilities().size();
    };
    const Bytes sound = der::sequence({der::oid("1.2.3.4")});
    EXPECT_EQ(capabilitiesOf(der::sequence({sound})), 1U);
    EXPECT_EQ(capabilitiesOf(der::sequence({})), 0U);
    EXPECT_EQ(capabilitiesOf(der::set({sound})), 0U);
    for (const Bytes& none : {der::sequence({}), der::sequence({der::integer("1")}),
                              der::sequence({der::oid("1.2.3.4"), der::integer("1"), der::integer("2")}),
                              der::sequence({der::oid("1.2.3.4"), Bytes{0x02, 0x03, 1}})}) {
        EXPECT_EQ(capabilitiesOf(der::sequence({sound, none})), 0U);
    }
}

TEST(SignedReaderPieces, SigningCertificatesThatAreNone) {
    const auto with = [](const char* type, const Bytes& certificate) {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        signer.attributes->push_back(attribute(type, {der::sequence({der::sequence({certificate})})}));
        return attachedBy(signer, body());
    };
    const char* const first = "1.2.840.113549.1.9.16.2.12";
    const char* const second = "1.2.840.113549.1.9.16.2.47";
    for (const auto& [type, certificate] : std::vector<std::pair<const char*, Bytes>>{
             {first, der::sequence({})},
             {first, der::sequence({der::integer("1")})},
             {first, der::sequence({der::element(0x24, der::octetString({1}))})},
             {second, der::sequence({der::sequence({})})},
             {second, der::sequence({algorithm("SHA256")})},
             {second, der::sequence({der::sequence({der::integer("1")}), der::octetString(Bytes(32, 1))})}}) {
        const Read read(with(type, certificate));
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::refused);
        EXPECT_EQ(read.verdict().reason, SignatureReason::signingCertificateDiffers);
        EXPECT_TRUE(read.message.signers().front().signingCertificates().empty());
    }
}

TEST(SignedReaderPieces, SignersOfAnotherMessage) {
    const Bytes structure = signedWith(der::octetString(signature()));
    const Read one(structure);
    const Read other(structure);
    const auto expectRefused = [&](auto ask) {
        const auto thrown = norvtest::thrownBy(ask);
        norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
        EXPECT_EQ(norvtest::detailOf(thrown), "a signer of another message");
    };
    const SignedReader::Signer signer = other.message.signers().front();
    expectRefused([&] { static_cast<void>(one.message.verdict(signer)); });
    expectRefused([&] { static_cast<void>(one.message.verdict(signer, certificateOf(identities().rsa))); });
}

TEST(SignedReaderPieces, MoreListsThanAreDecoded) {
    HandMade message{.digestAlgorithms = {algorithm("SHA256", true)}, .content = der::octetString(body())};
    message.lists = std::vector<Bytes>(2500, der::sequence({}));
    EXPECT_TRUE(Read(message.made()).message.revocationLists().empty());
    message.lists.push_back(der::sequence({}));
    const Read read(message.made());
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(read.message.revocationLists()); });
    norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
    EXPECT_EQ(norvtest::detailOf(thrown), "more than 2500 revocation lists");
    EXPECT_EQ(read.message.encodedRevocationLists().size(), 2501U);
}

TEST(SignedReaderPieces, TheDigestOfADetachedBodyTellsHowMuchItTook) {
    const Bytes structure = signedMessage({&identities().rsa}, {"SHA256"}, body(), CMS_DETACHED);
    const StrictIn in(structure);
    const SignedReader message(in);
    Norvane::MediaOut digest = message.digest();
    EXPECT_EQ(digest->tell(), 0U);
    digest.write(body().data(), 100);
    EXPECT_EQ(digest->tell(), 100U);
    digest.write(body().data() + 100, 200);
    EXPECT_EQ(digest->tell(), 300U);
}

TEST(SignedReaderPieces, SerialNumbersWithPaddingNameACertificateThatDoesNotDecode) {
    // X.690, 8.3.2: the first nine bits of an INTEGER are not all equal.
    for (const Bytes& serial : {Bytes{0x02, 0x02, 0x00, 0x05}, Bytes{0x02, 0x04, 0x00, 0x00, 0x00, 0x05}}) {
        const Bytes padded =
            der::sequence({der::sequence({serial, algorithm("SHA256"), identities().authority.name.der(),
                                          der::sequence({}), identities().authority.name.der(), der::sequence({})}),
                           algorithm("SHA256"), der::bitString({1})});
        const HandMadeSigner signer{.name = der::sequence({identities().authority.name.der(), der::integer("5")})};
        const Read read(messageBy({signer.made(body())}, {padded}));
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::refused);
        EXPECT_EQ(read.verdict().reason, SignatureReason::certificateDamaged);
    }
}

TEST(SignedReaderPieces, AttributesOfNeighbouringTypesAreOthers) {
    // Beside id-aa-signingCertificate, which is 1.2.840.113549.1.9.16.2.12, and what stands beside the types of PKCS #9.
    for (const char* type : {"1.2.840.113549.1.9.16.1.12", "1.2.840.113549.1.9.16.2.13", "1.2.840.113549.1.9.17.2.12",
                             "1.2.840.113549.1.9.16.2.12.1", "1.2.840.113549.1.9.16.2", "1.2.840.113549.1.9.2",
                             "1.2.840.113549.1.9.7", "1.2.840.113549.1.8.3"}) {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        signer.attributes->push_back(attribute(type, {der::null(), der::integer("1")}));
        const Read read(attachedBy(signer, body()));
        EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good) << type << CMS::textOf(read.verdict().reason);
        EXPECT_TRUE(read.message.signers().front().signingCertificates().empty());
    }
}
