// Verdicts where several things could be said, and who is asked: certificates alike, countersigners, attributes alone.
#include "support/SignedMessages.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(300);
    return content;
}

HandMade messageBy(const Bytes& signer, const std::vector<Bytes>& certificates,
                   const Bytes& digestAlgorithm = algorithm("SHA256", true)) {
    return {.digestAlgorithms = {digestAlgorithm},
            .content = der::octetString(body()),
            .certificates = certificates,
            .signers = {signer}};
}
const Bytes& signerOfBody() {
    static const Bytes made = HandMadeSigner().made(body());
    return made;
}
SignatureResult withCertificatesOnly(const std::vector<Bytes>& certificates) {
    return Read(messageBy(signerOfBody(), certificates).made()).verdict();
}

/// SignerInfo by an Edwards curve's key, over the octets themselves.
Bytes edwardsSigner(const Identity& identity, const Bytes& octets) {
    return HandMadeSigner{.identity = &identity,
                          .digestAlgorithm = algorithm("SHA512"),
                          .signatureAlgorithm = algorithm("ED25519"),
                          .digest = nullptr}
        .made(octets);
}
const Identity& edwards() {
    static const Identity made = norvauthority::issue({.subject = {{"CN", "edwards"}},
                                                       .key = norvauthority::Key::ed25519(),
                                                       .issuer = &identities().authority,
                                                       .serial = "ed"});
    return made;
}

} // namespace

TEST(SignedJudging, CopiesOfACertificateAreOneCertificate) {
    const Bytes wrong = namedLikeRsa(identities().otherRsa.key).certificate.der;
    std::vector<Bytes> certificates(20, wrong);
    certificates.push_back(identities().rsa.certificate.der);
    const Read read(messageBy(signerOfBody(), certificates).made());
    EXPECT_EQ(read.verdict().verdict, SignatureVerdict::good);
    EXPECT_EQ(read.message.certificates().size(), 21U);
}

// What a certificate that cannot be used would have said is unknown; what another one said stays said.
TEST(SignedJudging, CertificatesThatCannotBeUsedBesideOthers) {
    const Bytes& right = identities().rsa.certificate.der;
    const Bytes wrong = namedLikeRsa(identities().otherRsa.key).certificate.der;
    const auto parts = [](const Bytes& toBeSigned) {
        return der::sequence({toBeSigned, algorithm("sha256WithRSAEncryption", true), der::bitString({1, 2, 3})});
    };
    const Bytes issuer = identities().authority.name.der();
    const Bytes damaged =
        parts(der::sequence({der::integer("a11ce"), algorithm("sha256WithRSAEncryption", true), issuer}));
    // A public key on a curve that is spelled out (RFC 5480, 2.1.1 forbids it).
    const Bytes time = der::element(der::utcTimeTag, norvauthority::bytes("250102030405Z"));
    const Bytes spelledOut =
        der::sequence({der::sequence({der::oid("1.2.840.10045.2.1"), der::sequence({der::integer("1")})}),
                       der::bitString({4, 1, 1})});
    const Bytes refused = parts(der::sequence({der::integer("a11ce"), algorithm("sha256WithRSAEncryption", true),
                                               issuer, der::sequence({time, time}), issuer, spelledOut}));
    for (const Bytes& unusable : {damaged, refused}) {
        for (const std::vector<Bytes>& all :
             {std::vector<Bytes>{unusable, right}, std::vector<Bytes>{right, unusable}}) {
            EXPECT_EQ(withCertificatesOnly(all).verdict, SignatureVerdict::good);
        }
    }
    EXPECT_EQ(withCertificatesOnly({damaged}).reason, SignatureReason::certificateDamaged);
    EXPECT_EQ(withCertificatesOnly({refused}).reason, SignatureReason::certificateRefused);
    // Whose issuer cannot be read is nobody's, whatever the serial number.
    for (const Bytes& noName : {der::sequence({der::null()}), der::sequence({})}) {
        const Bytes nobodys =
            parts(der::sequence({der::integer("a11ce"), algorithm("sha256WithRSAEncryption", true), noName}));
        EXPECT_EQ(withCertificatesOnly({nobodys}).reason, SignatureReason::certificateMissing);
    }
    EXPECT_EQ(withCertificatesOnly({damaged, wrong}).reason, SignatureReason::signatureWrong);
    EXPECT_EQ(withCertificatesOnly({refused, wrong}).verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(withCertificatesOnly({refused, wrong}).reason, SignatureReason::certificateRefused);
}

// OpenSSL takes no key whose length is written in more than five octets out of a certificate that it decodes ("openssl x509 -pubkey"
// says so too); in DER it takes the same key. That is no want of memory.
TEST(SignedJudging, APublicKeyWhoseLengthIsWrittenAtLength) {
    const auto with = [](const HandMadeSigner& signer, const Bytes& publicKey) {
        const Bytes issuer = identities().authority.name.der();
        const Bytes time = der::element(der::utcTimeTag, norvauthority::bytes("250102030405Z"));
        const Bytes certificate = der::sequence(
            {der::sequence({der::integer(signer.identity->serial), algorithm("sha256WithRSAEncryption", true), issuer,
                            der::sequence({time, time}), issuer, publicKey}),
             algorithm("sha256WithRSAEncryption", true), der::bitString({1, 2, 3})});
        return Read(messageBy(signer.made(body()), {certificate}, signer.digestAlgorithm).made()).verdict();
    };
    const auto atLength = [](const Bytes& key, std::size_t header, std::size_t octets) {
        const std::size_t length = key.size() - header;
        Bytes written(octets);
        written[octets - 2] = static_cast<unsigned char>(length >> 8U);
        written[octets - 1] = static_cast<unsigned char>(length);
        return der::concat({{0x30, static_cast<unsigned char>(0x80U | octets)},
                            written,
                            Bytes(key.begin() + static_cast<std::ptrdiff_t>(header), key.end())});
    };
    const HandMadeSigner rsa;
    const Bytes key = rsa.identity->key.publicDer();
    ASSERT_EQ(key[1], 0x82);
    EXPECT_EQ(with(rsa, key).verdict, SignatureVerdict::good);
    EXPECT_EQ(with(rsa, atLength(key, 4, 5)).verdict, SignatureVerdict::good);
    for (const std::size_t octets : {6U, 7U, 8U, 20U}) {
        const SignatureResult result = with(rsa, atLength(key, 4, octets));
        EXPECT_EQ(result.verdict, SignatureVerdict::refused) << octets;
        EXPECT_EQ(result.reason, SignatureReason::keyUnusable) << octets;
    }
    const HandMadeSigner edwards25519{.identity = &edwards(),
                                      .digestAlgorithm = algorithm("SHA512"),
                                      .signatureAlgorithm = algorithm("ED25519"),
                                      .digest = nullptr};
    const Bytes onCurve = edwards().key.publicDer();
    EXPECT_EQ(with(edwards25519, atLength(onCurve, 2, 5)).verdict, SignatureVerdict::good);
    const SignatureResult result = with(edwards25519, atLength(onCurve, 2, 6));
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, SignatureReason::keyAlgorithm);
}

// RFC 5280, 4.2.1.2 wants the extension not critical; whoever made it so is found all the same.
TEST(SignedJudging, AKeyIdentifierInACriticalExtension) {
    const Bytes identifier{1, 2, 3, 4};
    const Identity critical = norvauthority::issue(
        {.subject = {{"CN", "critical"}},
         .key = identities().rsa.key,
         .issuer = &identities().authority,
         .serial = "c4",
         .subjectKeyIdentifier = false,
         .extensions = {{.oid = "2.5.29.14", .value = der::octetString(identifier), .critical = true}}});
    HandMadeSigner signer;
    signer.name = der::element(der::context(0), identifier);
    EXPECT_EQ(Read(messageBy(signer.made(body()), {critical.certificate.der}).made()).verdict().verdict,
              SignatureVerdict::good);
}

TEST(SignedJudging, TheResultTellsTheCertificateThatWasAskedFor) {
    const Read read(messageBy(signerOfBody(), {}).made());
    for (const Identity* person : {&identities().rsa, &identities().otherRsa}) {
        const auto certificate = certificateOf(*person);
        EXPECT_TRUE(NVX509::sameEncoding(read.message.verdict(read.signer(), certificate).certificate, certificate));
    }
    EXPECT_TRUE(read.message.verdict(read.signer(), {}).certificate.isNull() ||
                static_cast<X509*>(read.message.verdict(read.signer(), {}).certificate) == nullptr);
    // When the certificate makes no difference, too.
    HandMadeSigner other;
    other.attributes = usualAttributes(bodyOf(3));
    const Read differs(messageBy(other.made(body()), {}).made());
    const SignatureResult result = differs.message.verdict(differs.signer(), certificateOf(identities().rsa));
    EXPECT_EQ(result.reason, SignatureReason::bodyDiffers);
    EXPECT_TRUE(NVX509::sameEncoding(result.certificate, certificateOf(identities().rsa)));
}

// RFC 8419: a countersigner of that kind signs the signature itself.
TEST(SignedJudging, ACountersignatureOverTheOctetsThemselves) {
    const Bytes signature = signatureBy(identities().rsa.key, body(), EVP_sha256());
    for (const bool right : {true, false}) {
        HandMadeSigner signer;
        signer.unsignedAttributes = {
            attribute(countersignatureAttribute, {edwardsSigner(edwards(), right ? signature : body())})};
        const Read read(
            messageBy(signer.made(body()), {identities().rsa.certificate.der, edwards().certificate.der}).made());
        ASSERT_EQ(read.signer().countersigners().size(), 1U);
        const SignatureResult result = read.message.verdict(read.signer().countersigners().front());
        EXPECT_EQ(result.verdict, right ? SignatureVerdict::good : SignatureVerdict::refused)
            << CMS::textOf(result.reason);
    }
}

// A "signature" that is a set of attributes: whoever signed those has not countersigned anything.
TEST(SignedJudging, ACountersignedSetOfAttributes) {
    const Bytes attributes = der::set(usualAttributes(body()));
    const Bytes countersigner = HandMadeSigner{.identity = &identities().otherRsa}.made(attributes);
    const Bytes signer = der::sequence(
        {der::integer("1"), der::sequence({identities().authority.name.der(), der::integer(identities().rsa.serial)}),
         algorithm("SHA256", true), algorithm("rsaEncryption", true), der::octetString(attributes),
         der::element(der::contextConstructed(1), attribute(countersignatureAttribute, {countersigner}))});
    const Read read(messageBy(signer, {identities().otherRsa.certificate.der}).made());
    ASSERT_EQ(read.signer().countersigners().size(), 1U);
    EXPECT_EQ(read.message.verdict(read.signer().countersigners().front()).reason, SignatureReason::bodyIsAttributes);
}

TEST(SignedJudging, AttributesAloneWithDigestsOfAnyLength) {
    for (const std::size_t length : {0U, 31U, 33U, 64U, 65U, 1000U}) {
        HandMadeSigner signer;
        signer.attributes = std::vector<Bytes>{attribute(contentTypeAttribute, {der::oid("1.2.840.113549.1.7.1")}),
                                               attribute(messageDigestAttribute, {der::octetString(Bytes(length, 7))})};
        const Read read(messageBy(signer.made(body()), {identities().rsa.certificate.der}).made());
        EXPECT_EQ(read.verdict().reason, SignatureReason::bodyDiffers);
        EXPECT_NE(read.message.verdictOnAttributes(read.signer(), {}, "1.2.3.4").verdict, SignatureVerdict::good);
        EXPECT_EQ(read.message.verdictOnAttributes(read.signer(), {}, "no digest").verdict,
                  SignatureVerdict::unsupported);
        const SignatureResult result = read.message.verdictOnAttributes(read.signer());
        EXPECT_EQ(result.verdict == SignatureVerdict::good, length <= 64) << CMS::textOf(result.reason);
    }
}

TEST(SignedJudging, ASignerOfAnotherMessageIsNotAskedForBeforeTheEnd) {
    const Bytes made = messageBy(signerOfBody(), {identities().rsa.certificate.der}).made();
    const Read other(made);
    StrictIn in(made);
    const SignedReader message(in);
    const auto certificate = certificateOf(identities().rsa);
    const std::vector<std::function<void()>> questions{
        [&] { static_cast<void>(message.verdict(other.signer())); },
        [&] { static_cast<void>(message.verdict(other.signer(), certificate)); },
        [&] { static_cast<void>(message.verdictOnAttributes(other.signer())); }};
    for (const auto& question : questions) {
        EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy(question)), "the content was not read to its end");
    }
    Norvane::NullMediaOut out;
    Norvane::MediaIn(message).write(out);
    for (const auto& question : questions) {
        EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy(question)), "a signer of another message");
    }
}

TEST(SignedJudging, WhatLiesAtTheEndIsReadWithoutAskingForIt) {
    for (const Bytes& content : {Bytes(), bodyOf(300)}) {
        HandMade message = messageBy(HandMadeSigner().made(content), {identities().rsa.certificate.der});
        message.content = der::octetString(content);
        StrictIn in(message.made());
        SignedReader reader(in);
        Bytes piece(content.size() + 1);
        EXPECT_EQ(reader.read(piece.data(), static_cast<unsigned int>(content.size())),
                  static_cast<int>(content.size()));
        EXPECT_EQ(reader.report().signers.front().verdict, SignatureVerdict::good);
        EXPECT_EQ(reader.peek(), -1);
    }
}

TEST(SignedJudging, ContentIsKeptWithinTheBudget) {
    const Bytes message =
        messageBy(edwardsSigner(edwards(), body()), {edwards().certificate.der}, algorithm("SHA512")).made();
    const auto verdictWith = [&](std::size_t content, std::size_t piece) {
        SignedReader::Budget budget;
        budget.content = content;
        StrictIn in(message, piece);
        SignedReader reader(in, budget);
        Norvane::NullMediaOut out;
        reader.write(out);
        return reader.report().signers.front().reason;
    };
    for (const std::size_t piece : {std::size_t{7}, std::size_t{100000}}) {
        EXPECT_EQ(verdictWith(body().size(), piece), SignatureReason::none);
        EXPECT_EQ(verdictWith(body().size() - 1, piece), SignatureReason::contentNotKept);
    }
}

// RFC 8419: Ed448 signs the content itself when there are no attributes.
TEST(SignedJudging, AnEd448SignerWithoutAttributes) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"),
                                                                   EVP_PKEY_free);
    const Identity identity = namedLikeRsa(norvauthority::Key::of(made.get()));
    const HandMadeSigner signer{.identity = &identity,
                                .digestAlgorithm = algorithm("SHAKE256"),
                                .signatureAlgorithm = algorithm("ED448"),
                                .digest = nullptr};
    EXPECT_EQ(Read(attachedBy(signer, body())).verdict().verdict, SignatureVerdict::good);
    EXPECT_EQ(Read(attachedBy(signer, Bytes())).verdict().verdict, SignatureVerdict::good);
}

// What was found out about a body is nothing to the next one: neither the verdicts nor what they cost.
TEST(SignedJudging, ABodyThatGoesOnIsAnotherBody) {
    HandMade message = messageBy(signerOfBody(), {identities().rsa.certificate.der});
    message.content.reset();
    const Bytes structure = message.made();
    StrictIn in(structure);
    const SignedReader reader(in);
    Norvane::MediaOut digest = reader.digest();
    digest.write(body().data(), 100);
    EXPECT_EQ(reader.report().signers.front().reason, SignatureReason::signatureWrong);
    digest.write(body().data() + 100, static_cast<unsigned int>(body().size() - 100));
    EXPECT_EQ(reader.report().signers.front().reason, SignatureReason::none);
    // 16384 bits and an exponent of 64 are the most that one operation may cost; a structure may cost thirty of them.
    message.certificates = {namedLikeRsa(publicRsa(16384, 64)).certificate.der};
    StrictIn slowIn(message.made());
    const SignedReader slow(slowIn);
    Norvane::MediaOut slowDigest = slow.digest();
    for (int turn = 0; turn < 40; ++turn) {
        slowDigest.write(body().data(), 1);
        EXPECT_EQ(slow.report().signers.front().reason, SignatureReason::signatureWrong);
    }
}

// `maximumWork` is what a structure may cost, to the last of it.
TEST(SignedJudging, TheLastOfTheWorkIsDone) {
    const Identity most = namedLikeRsa(publicRsa(16384, 64)); // 16384
    const Identity rest = norvauthority::issue({.subject = {{"CN", "rest"}},
                                                .key = publicRsa(14216, 44), // 8480, which thirty of the others leave
                                                .issuer = &identities().authority,
                                                .serial = "4e57"});
    static_assert(CMS::maximumWork == 30 * 16384 + 8480);
    HandMade message = messageBy(signerOfBody(), {most.certificate.der, rest.certificate.der});
    message.signers.resize(30, signerOfBody());
    HandMadeSigner last;
    last.name = der::sequence({identities().authority.name.der(), der::integer("4e57")});
    message.signers.push_back(last.made(body()));
    message.signers.push_back(last.made(body()));
    const Read read(message.made());
    const auto signers = read.message.report().signers;
    ASSERT_EQ(signers.size(), 32U);
    for (std::size_t at = 0; at < 31; ++at) {
        EXPECT_EQ(signers[at].reason, SignatureReason::signatureWrong);
    }
    EXPECT_EQ(signers.back().reason, SignatureReason::tooMuchWork);
}

// What is handed out belongs to the caller, who may keep it.
TEST(SignedJudging, CopiesOutliveTheMessage) {
    std::vector<Norvane::Buffer> copies;
    const Bytes list = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "7"}).der;
    const Bytes signature = signatureBy(identities().rsa.key, body(), EVP_sha256());
    {
        HandMade message = messageBy(signerOfBody(), {identities().rsa.certificate.der});
        message.lists = {list};
        auto read = std::make_unique<Read>(message.made());
        copies = read->message.encodedCertificates();
        copies.push_back(read->message.encodedRevocationLists().front());
        copies.push_back(read->signer().signature());
        read.reset();
        const std::vector<Bytes> others(100, Bytes(message.made().size(), 0xEE)); // takes the place of what was freed
        ASSERT_EQ(copies.size(), 3U);
    }
    EXPECT_EQ(bytesOf(copies[0]), identities().rsa.certificate.der);
    EXPECT_EQ(bytesOf(copies[1]), list);
    EXPECT_EQ(bytesOf(copies[2]), signature);
}
