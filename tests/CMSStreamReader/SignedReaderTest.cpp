// What sound senders make, in every shape, is read and judged.
#include "support/Judge.h"
#include "support/SignedMessages.h"
#include "support/Streams.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;
using ::testing::Combine;
using ::testing::Values;

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(100000);
    return content;
}

/// What was read out of a message, and the verdicts.
struct Outcome {
    Bytes content;
    std::vector<SignatureResult> signers;
    bool detached = false;
};

/// Reads a message out of a source of that kind, in that way, and the bytes behind it.
enum class Source { memory, strict };
enum class Way { write, read };

Outcome readThrough(SignedReader& message, Way way, const Bytes& beside) {
    Outcome outcome;
    outcome.detached = message.isDetached();
    if (outcome.detached) {
        EXPECT_TRUE(message.isComplete());
        EXPECT_TRUE(message.atEnd());
        Norvane::MediaOut digest = message.digest();
        writeMixed(digest, beside);
        digest.end();
    } else if (way == Way::write) {
        Norvane::MemoryMediaOut out;
        message.write(out);
        EXPECT_FALSE(out.ended());
        outcome.content = bytesOf(out.content());
    } else {
        Bytes piece(777);
        int count = 0;
        while ((count = message.read(piece.data(), static_cast<unsigned int>(piece.size()))) > 0) {
            outcome.content.insert(outcome.content.end(), piece.begin(), piece.begin() + count);
        }
        EXPECT_EQ(message.peek(), -1);
    }
    EXPECT_TRUE(message.atEnd());
    EXPECT_TRUE(message.isComplete());
    for (const SignedReader::Signer& signer : message.signers()) {
        outcome.signers.push_back(message.verdict(signer));
    }
    return outcome;
}

Outcome outcomeOf(const Bytes& structure, Source source, Way way, const Bytes& beside = body()) {
    ERR_clear_error();
    const RecordedLog log;
    Outcome outcome;
    if (source == Source::memory) {
        Bytes longer = structure;
        longer.insert(longer.end(), {'n', 'e', 'x', 't'});
        Norvane::MemoryMediaIn in(bufferOf(longer));
        SignedReader message(in);
        outcome = readThrough(message, way, beside);
        std::string rest;
        in.read(rest);
        EXPECT_EQ(rest, "next");
    } else {
        StrictIn in(structure);
        SignedReader message(in);
        outcome = readThrough(message, way, beside);
        EXPECT_EQ(in.overreads(), 0U);
        EXPECT_TRUE(in.atEnd());
    }
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return outcome;
}

void expectGood(const std::vector<const Identity*>& by, const Outcome& outcome, const Bytes& content = body()) {
    ASSERT_EQ(outcome.signers.size(), by.size());
    for (std::size_t i = 0; i != by.size(); ++i) {
        EXPECT_EQ(outcome.signers[i].verdict, SignatureVerdict::good) << CMS::textOf(outcome.signers[i].reason);
        EXPECT_EQ(outcome.signers[i].reason, SignatureReason::none);
        EXPECT_TRUE(NVX509::sameEncoding(outcome.signers[i].certificate, certificateOf(*by[i])));
    }
    if (!outcome.detached) {
        EXPECT_EQ(outcome.content, content);
    }
}

/// Reads a message in every way; it must be good.
void expectGoodEveryWay(const std::vector<const Identity*>& by, const Bytes& structure, const Bytes& content = body()) {
    for (const Source source : {Source::memory, Source::strict}) {
        for (const Way way : {Way::write, Way::read}) {
            expectGood(by, outcomeOf(structure, source, way, content), content);
        }
    }
}

SignatureResult verdictOn(const Bytes& structure, const Bytes& beside = body()) {
    const Outcome outcome = outcomeOf(structure, Source::memory, Way::write, beside);
    EXPECT_EQ(outcome.signers.size(), 1U);
    return outcome.signers.empty() ? SignatureResult{} : outcome.signers.front();
}

constexpr unsigned int attached = 0;
constexpr unsigned int attachedBer = CMS_STREAM;
constexpr unsigned int detached = CMS_DETACHED;

class SignedReaderSenders
    : public ::testing::TestWithParam<std::tuple<const char*, const char*, unsigned int, unsigned int>> {};

} // namespace

TEST_P(SignedReaderSenders, AreGoodForTheirBodyAlone) {
    const auto [name, digest, attributes, shape] = GetParam();
    const Identity& identity = identityOf(name);
    const Bytes made = signedMessage({&identity}, {digest}, body(), attributes | shape);
    expectGoodEveryWay({&identity}, made);
    if (shape != detached) {
        return;
    }
    Bytes altered = body();
    altered[99999] ^= 1U;
    for (const Bytes& other : {altered, Bytes(body().begin(), body().end() - 1), Bytes{}}) {
        const SignatureResult result = verdictOn(made, other);
        EXPECT_EQ(result.verdict, SignatureVerdict::refused);
        EXPECT_EQ(result.reason, attributes == 0U ? SignatureReason::bodyDiffers : SignatureReason::signatureWrong);
        EXPECT_TRUE(NVX509::sameEncoding(result.certificate, certificateOf(identity)));
    }
}

INSTANTIATE_TEST_SUITE_P(Rsa, SignedReaderSenders,
                         Combine(Values("rsa"),
                                 Values("MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "SHA512-256", "SHA3-256",
                                        "SHA3-512", "RIPEMD160"),
                                 Values(0U, CMS_NOATTR), Values(attached, attachedBer, detached)));
INSTANTIATE_TEST_SUITE_P(Ec, SignedReaderSenders,
                         Combine(Values("ec"), Values("SHA1", "SHA224", "SHA256", "SHA384", "SHA512"),
                                 Values(0U, CMS_NOATTR), Values(attached, attachedBer, detached)));
INSTANTIATE_TEST_SUITE_P(Dsa, SignedReaderSenders,
                         Combine(Values("dsa"), Values("SHA1", "SHA256"), Values(0U, CMS_NOATTR),
                                 Values(attached, attachedBer, detached)));

TEST(SignedReader, OtherCurves) {
    for (const char* curve : {"P-384", "P-521", "secp256k1", "brainpoolP256r1"}) {
        const Identity identity = namedLikeRsa(norvauthority::Key::ec(curve));
        expectGoodEveryWay({&identity}, signedMessage({&identity}, {"SHA384"}, body(), attached));
    }
}

TEST(SignedReader, EcdsaWithSha3) {
    const HandMadeSigner signer{.identity = &identities().ec,
                                .digestAlgorithm = algorithm("SHA3-384"),
                                .signatureAlgorithm = algorithm("2.16.840.1.101.3.4.3.11"),
                                .digest = EVP_sha3_384(),
                                .attributes = usualAttributes(body(), EVP_sha3_384())};
    expectGoodEveryWay({&identities().ec}, attachedBy(signer, body()));
}

TEST(SignedReader, RsaPssWithItsOwnSaltAndMaskDigest) {
    for (const int salt : {-1, 0, 20, 64}) {
        for (const EVP_MD* mask : {EVP_sha256(), EVP_sha1()}) {
            for (const unsigned int shape : {attached, detached, attached | CMS_NOATTR}) { // OpenSSL streams none
                const Bytes made =
                    signedMessage({&identities().rsa}, {"SHA256"}, body(), shape, [&](CMS_SignerInfo* signer) {
                        EVP_PKEY_CTX* context = CMS_SignerInfo_get0_pkey_ctx(signer);
                        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING), 1);
                        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(context, salt), 1);
                        EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(context, mask), 1);
                    });
                expectGood({&identities().rsa}, outcomeOf(made, Source::memory, Way::write));
            }
        }
    }
}

TEST(SignedReader, SignersNamedByKeyIdentifier) {
    for (const unsigned int shape : {attached, attachedBer, detached}) {
        expectGoodEveryWay({&identities().rsa},
                           signedMessage({&identities().rsa}, {"SHA256"}, body(), shape | CMS_USE_KEYID));
    }
}

TEST(SignedReader, TwoSignersWithTwoDigests) {
    // A SET OF is sorted: the shorter signature of the elliptic curve stands first.
    const std::vector<const Identity*> both{&identities().ec, &identities().rsa};
    for (const unsigned int shape : {attached, attachedBer, detached, detached | CMS_NOATTR}) {
        expectGoodEveryWay(both, signedMessage(both, {"SHA512", "SHA256"}, body(), shape));
    }
}

TEST(SignedReader, Ed25519WithAttributes) {
    const Identity identity = namedLikeRsa(norvauthority::Key::ed25519());
    HandMadeSigner signer{.identity = &identity,
                          .digestAlgorithm = algorithm("SHA512"),
                          .signatureAlgorithm = algorithm("ED25519"),
                          .digest = nullptr,
                          .attributes = usualAttributes(body(), EVP_sha512())};
    expectGoodEveryWay({&identity}, attachedBy(signer, body()));
    signer.attributes = usualAttributes(bodyOf(5), EVP_sha512());
    EXPECT_EQ(verdictOn(attachedBy(signer, body())).reason, SignatureReason::bodyDiffers);
}

TEST(SignedReader, Ed25519BesideAnotherDigestThanSha512) {
    // RFC 8419, 3.1, has senders take SHA-512; what is signed are the attributes, whatever the digest among them.
    const Identity identity = namedLikeRsa(norvauthority::Key::ed25519());
    HandMadeSigner signer{.identity = &identity,
                          .digestAlgorithm = algorithm("SHA256"),
                          .signatureAlgorithm = algorithm("ED25519"),
                          .digest = nullptr,
                          .attributes = usualAttributes(body(), EVP_sha256())};
    expectGoodEveryWay({&identity}, attachedBy(signer, body()));
    signer.attributes = usualAttributes(bodyOf(5), EVP_sha256());
    EXPECT_EQ(verdictOn(attachedBy(signer, body())).reason, SignatureReason::bodyDiffers);
    signer.attributes = usualAttributes(body(), EVP_sha512()); // another digest than the one that is named
    EXPECT_EQ(verdictOn(attachedBy(signer, body())).reason, SignatureReason::bodyDiffers);
}

TEST(SignedReader, Ed25519WithoutAttributesNeedsTheContentKept) {
    const Identity identity = namedLikeRsa(norvauthority::Key::ed25519());
    const HandMadeSigner signer{.identity = &identity,
                                .digestAlgorithm = algorithm("SHA512"),
                                .signatureAlgorithm = algorithm("ED25519"),
                                .digest = nullptr};
    const Bytes most = bodyOf(65536);
    const Bytes more = bodyOf(65537);
    expectGoodEveryWay({&identity}, attachedBy(signer, most), most);
    expectGoodEveryWay({&identity}, attachedBy(signer, Bytes{}), Bytes{});
    const SignatureResult result = verdictOn(attachedBy(signer, more));
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, SignatureReason::contentNotKept);
    EXPECT_EQ(result.algorithm, "Ed25519");

    HandMade message{.digestAlgorithms = {algorithm("SHA512")},
                     .certificates = {identity.certificate.der},
                     .signers = {signer.made(most)}};
    EXPECT_EQ(verdictOn(message.made(), most).verdict, SignatureVerdict::good);
    EXPECT_EQ(verdictOn(message.made(), bodyOf(3)).reason, SignatureReason::signatureWrong);
}

TEST(SignedReader, Ed448) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"),
                                                                   EVP_PKEY_free);
    const Identity identity = namedLikeRsa(norvauthority::Key::of(made.get()));
    Bytes digest(64);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EXPECT_EQ(EVP_DigestInit_ex(context.get(), EVP_shake256(), nullptr), 1);
    EXPECT_EQ(EVP_DigestUpdate(context.get(), body().data(), body().size()), 1);
    EXPECT_EQ(EVP_DigestFinalXOF(context.get(), digest.data(), digest.size()), 1);
    const HandMadeSigner signer{
        .identity = &identity,
        .digestAlgorithm = algorithm("SHAKE256"),
        .signatureAlgorithm = algorithm("ED448"),
        .digest = nullptr,
        .attributes = std::vector<Bytes>{attribute(contentTypeAttribute, {der::oid("1.2.840.113549.1.7.1")}),
                                         attribute(messageDigestAttribute, {der::octetString(digest)})}};
    expectGoodEveryWay({&identity}, attachedBy(signer, body()));
}

TEST(SignedReader, CertificatesAloneAreAMessageWithoutSigners) {
    HandMade message;
    message.certificates = {identities().rsa.certificate.der, identities().ec.certificate.der};
    StrictIn in(message.made());
    const SignedReader reader(in);
    EXPECT_TRUE(reader.isDetached());
    EXPECT_TRUE(reader.signers().empty());
    EXPECT_FALSE(reader.report().allGood());
    ASSERT_EQ(reader.certificates().size(), 2U);
    EXPECT_TRUE(NVX509::sameEncoding(reader.certificates().back(), certificateOf(identities().ec)));
    EXPECT_TRUE(reader.revocationLists().empty());
}

TEST(SignedReader, OtherContentTypesNeedAttributes) {
    const char* const type = "1.2.840.113549.1.9.16.1.4"; // a time stamp's
    const Bytes made = signedMessage({&identities().rsa}, {"SHA256"}, body(), attached, nullptr, type);
    expectGoodEveryWay({&identities().rsa}, made);
    Norvane::MemoryMediaIn in(bufferOf(made));
    EXPECT_EQ(SignedReader(in).contentType(), type);
    HandMadeSigner signer;
    HandMade message{.digestAlgorithms = {signer.digestAlgorithm},
                     .contentType = der::oid(type),
                     .content = der::octetString(body()),
                     .certificates = {identities().rsa.certificate.der},
                     .signers = {signer.made(body())}};
    EXPECT_EQ(verdictOn(message.made()).reason, SignatureReason::attributesMissing);
}

TEST(SignedReader, MessagesOfTheOpensslProgram) {
    const norvtest::TemporaryFolder folder;
    folder.write("body", std::string(body().begin(), body().end()));
    folder.write("rsa.pem", identities().rsa.certificate.pem());
    folder.write("rsa.key", identities().rsa.key.pkcs8Pem());
    folder.write("ec.pem", identities().ec.certificate.pem());
    folder.write("ec.key", identities().ec.key.pkcs8Pem());
    const std::string start = "cd " + folder.path() + " && openssl cms -sign -binary -outform DER -in body -out sig ";
    for (const std::string shape : {"", " -nodetach", " -nodetach -stream"}) {
        for (const std::string options :
             {"-signer rsa.pem -inkey rsa.key -md sha256", "-signer ec.pem -inkey ec.key -md sha384 -noattr",
              "-signer rsa.pem -inkey rsa.key -keyid -md sha512 -keyopt rsa_padding_mode:pss",
              "-signer rsa.pem -inkey rsa.key -cades -md sha256"}) {
            if (shape == " -nodetach -stream" && options.find("pss") != std::string::npos) {
                continue; // which that program cannot make
            }
            const auto made = norvtest::run(std::string(start).append(options).append(shape));
            ASSERT_EQ(made.code, 0) << made.output;
            const std::string sig = folder.read("sig");
            const bool ec = options.find("ec.pem") != std::string::npos;
            expectGoodEveryWay({ec ? &identities().ec : &identities().rsa}, bytesOf(sig));
        }
    }
}

TEST(SignedReader, WhatTheCallerKnowsNeedsNoCertificateInTheMessage) {
    const Bytes made = signedMessage({&identities().rsa}, {"SHA256"}, body(), detached | CMS_NOCERTS);
    StrictIn in(made);
    const SignedReader message(in);
    Norvane::MediaOut digest = message.digest();
    writeInPieces(digest, body());
    const SignedReader::Signer& signer = message.signers().front();
    EXPECT_TRUE(message.isValid(signer, certificateOf(identities().rsa)));
    EXPECT_TRUE(message.isValid(signer, certificateOf(identities().rsa))) << "and again";
    EXPECT_EQ(message.verdict(signer, certificateOf(identities().otherRsa)).reason, SignatureReason::signatureWrong);
    EXPECT_EQ(message.verdict(signer, certificateOf(identities().ec)).reason, SignatureReason::algorithmDiffers);
    EXPECT_EQ(message.verdict(signer, NVX509::RefCertificate()).reason, SignatureReason::certificateMissing);
    EXPECT_EQ(message.verdict(signer).reason, SignatureReason::certificateMissing);
    EXPECT_TRUE(message.verdict(signer).certificate.isNull());
    digest.write(body().data(), 1);
    EXPECT_EQ(message.verdict(signer, certificateOf(identities().rsa)).reason, SignatureReason::bodyDiffers)
        << "the body went on";
}

TEST(SignedReader, NamesAreComparedAsNamesNotAsOctets) {
    // The same issuer in another string type and in capitals (RFC 5280, 7.1).
    const norvauthority::Name other{{"CN", "TEST  authority", 19}, {"O", "mail", 19}};
    HandMadeSigner signer;
    signer.name = der::sequence({other.der(), der::integer("a11ce")});
    EXPECT_EQ(verdictOn(attachedBy(signer, body())).verdict, SignatureVerdict::good);
    signer.name = der::sequence({norvauthority::Name{{"CN", "TEST authorit"}}.der(), der::integer("a11ce")});
    EXPECT_EQ(verdictOn(attachedBy(signer, body())).reason, SignatureReason::certificateMissing);
}

TEST(SignedReader, BehindTheContentAndNotBefore) {
    const Bytes made = signedMessage({&identities().rsa}, {"SHA256"}, body(), attached);
    StrictIn in(made);
    SignedReader message(in);
    EXPECT_FALSE(message.isDetached());
    EXPECT_EQ(message.peek(), body().front());
    const auto early = norvtest::thrownBy([&] { static_cast<void>(message.signers()); });
    norvtest::expectFailure(early, "CMS::SignedReader", 4, "CMSSignedReader");
    EXPECT_EQ(norvtest::detailOf(early), "the content was not read to its end");
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(message.digest()); })),
              "the content is in the structure");
    Bytes read(body().size());
    EXPECT_EQ(message.read(read.data(), static_cast<unsigned int>(read.size())), static_cast<int>(read.size()));
    EXPECT_EQ(read, body());
    const CMS::SignatureReport report = message.report();
    EXPECT_TRUE(report.allGood());
    EXPECT_EQ(report.body, CMS::JudgedBody::embedded);
    EXPECT_EQ(report.bodyLength, body().size());

    StrictIn again(made);
    const SignedReader other(again);
    EXPECT_EQ(
        norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(other.verdict(message.signers().front())); })),
        "the content was not read to its end");
    Norvane::NullMediaOut sink;
    Norvane::MediaIn(other).write(sink);
    EXPECT_EQ(
        norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(other.verdict(message.signers().front())); })),
        "a signer of another message");
}

TEST(SignedReader, ATargetThatFailsLosesNothing) {
    const Bytes made = signedMessage({&identities().rsa}, {"SHA256"}, body(), attachedBer);
    StrictIn in(made);
    SignedReader message(in);
    norvtest::FailingMediaOut full(50000);
    EXPECT_THROW(message.write(full), norvtest::StreamFailure);
    Norvane::MemoryMediaOut rest;
    message.write(rest);
    std::string all = full.body().content;
    const Bytes end = bytesOf(rest.content());
    const std::size_t before = body().size() - end.size();
    EXPECT_TRUE(std::equal(end.begin(), end.end(), body().begin() + static_cast<std::ptrdiff_t>(before)));
    EXPECT_LE(before, 50000U);
    EXPECT_TRUE(message.report().allGood());
}
