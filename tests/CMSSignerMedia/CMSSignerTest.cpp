#include "support/Cms.h"

#include <openssl/evp.h>

using namespace cmstest;
using Crypto::Hasher;
using ::testing::Combine;
using ::testing::Values;

namespace {

Caught constructionFailure(const NVX509::KeyCertificatePair& pair, Hasher::Type type = Hasher::SHA256) {
    const Caught failure = caught([&] { const CMS::SignerMediaOut signer(type, pair); });
    EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::SignerMediaOutImpl");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSSignerMedia");
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return failure;
}

void expectKeyRefused(const NVX509::KeyCertificatePair& pair) {
    const Caught failure = constructionFailure(pair);
    EXPECT_EQ(failure.line, 43U);
    EXPECT_EQ(failure.details, std::vector<std::string>{"Private key does not match certificate"});
}

Crypto::RefKey publicKeyOf(const Identity& identity) {
    const auto certificate = identity.certificate.x509();
    return Crypto::RefKey(new Crypto::PublicKey(X509_get_pubkey(certificate.get())));
}

class Body : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};

} // namespace

TEST_P(Body, GivesTheBytesOfThePlainSequence) {
    const auto [length, piece] = GetParam();
    const Bytes body = bodyOf(length);
    EXPECT_EQ(signedByStream(identities().rsa, body, piece), signedPlainly(identities().rsa, body, EVP_sha256()));
    EXPECT_EQ(ERR_peek_error(), 0UL);
}
INSTANTIATE_TEST_SUITE_P(Signer, Body,
                         Combine(Values(0, 1, 4095, 4096, 4097, 8192, 100000), Values(0, 1, 1000, 4095, 4096, 4097)));

TEST(Signer, TenMegabytesInOneWriteAndInManyGiveTheSameBytes) {
    const Bytes body = bodyOf(10 * 1024 * 1024);
    const Bytes expected = signedPlainly(identities().rsa, body, EVP_sha256());
    EXPECT_EQ(signedByStream(identities().rsa, body, 0), expected);
    EXPECT_EQ(signedByStream(identities().rsa, body, 65521), expected);
}

TEST(Signer, WritesOfAllSizesMixedKeepTheirOrder) {
    const Bytes body = bodyOf(300000);
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    writeMixed(signer, body);
    signer.end();
    EXPECT_EQ(bytesOf(target.content()), signedPlainly(identities().rsa, body, EVP_sha256()));
}

TEST(Signer, SignsWithEveryDigest) {
    const Bytes body = bodyOf(5000);
    const std::pair<Hasher::Type, const EVP_MD*> digests[]{{Hasher::SHA1, EVP_sha1()},
                                                           {Hasher::SHA256, EVP_sha256()},
                                                           {Hasher::SHA384, EVP_sha384()},
                                                           {Hasher::SHA512, EVP_sha512()}};
    for (const auto& [type, digest] : digests) {
        EXPECT_EQ(signedByStream(identities().rsa, body, 0, type), signedPlainly(identities().rsa, body, digest));
    }
}

TEST(Signer, SignsWithRsaDsaAndEcKeys) {
    const Bytes body = bodyOf(5000);
    for (const Identity* identity : {&identities().rsa, &identities().dsa, &identities().ec}) {
        const Received received(signedByStream(*identity, body, 1234));
        EXPECT_TRUE(received.accepts(body, certificateOf(*identity)));
        const RecordedLog log;
        EXPECT_FALSE(received.accepts(bodyOf(5001), certificateOf(*identity)));
    }
}

TEST(Signer, AnEmptyBodyGivesAValidDetachedStructure) {
    const Received received(signedByStream(identities().rsa, {}));
    EXPECT_TRUE(received.accepts({}, certificateOf(identities().rsa)));
    EXPECT_TRUE(CMS::embeddedContent(received.verifier.contentInfo()).isNull());
}

TEST(Signer, PutsItsCertificateFirstThenTheChainAndNoContent) {
    const auto& ids = identities();
    const Bytes body = bodyOf(10);
    const std::list<NVX509::RefCertificate> chain{certificateOf(ids.authority), NVX509::RefCertificate(),
                                                  certificateOf(ids.ec), certificateOf(ids.dsa)};
    const Bytes structure = signedByStream(ids.rsa, body, 0, Hasher::SHA256, chain);
    EXPECT_EQ(structure, signedPlainly(ids.rsa, body, EVP_sha256(), {&ids.authority, &ids.ec, &ids.dsa}));
    const Received received(structure);
    const CMS::SignedData data = CMS::signedData(received.verifier.contentInfo());
    std::vector<std::string> names;
    for (const auto& certificate : data.certificates()) {
        names.push_back(certificate->subject().asString());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"O=Mail,CN=alice", "O=Mail,CN=Test Authority", "O=Mail,CN=eve",
                                               "O=Mail,CN=dora"}));
    EXPECT_TRUE(CMS::embeddedContent(received.verifier.contentInfo()).isNull());
    ASSERT_EQ(data.signerInfo().size(), 1U);
    EXPECT_EQ(data.signerInfo().front().issuerAndSerialNumber().serialNumber().asInt(), 0xA11CE);
    EXPECT_EQ(static_cast<pkcs7_signer_info_st*>(data.signerInfo().front())->auth_attr, nullptr);
    EXPECT_EQ(static_cast<pkcs7_signer_info_st*>(data.signerInfo().front())->unauth_attr, nullptr);
}

TEST(Signer, WritesNothingBeforeItsEndAndEndsItsTarget) {
    Norvane::MemoryMediaOut target;
    {
        CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
        signer.attach(target);
        const Bytes body = bodyOf(10000);
        signer.write(body.data(), 10000);
        EXPECT_EQ(target.content().length(), 0U);
    }
    EXPECT_EQ(target.content().length(), 0U);
    EXPECT_FALSE(target.ended());
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    signer.end();
    EXPECT_GT(target.content().length(), 0U);
    EXPECT_TRUE(target.ended());
}

// Deliberate: the buffer is not emptied by end(), so that a second one signs the buffered bytes twice.
TEST(Signer, ASecondEndSignsTheBufferedBytesAgainAndSendsASecondStructure) {
    const Bytes body = bodyOf(5000);
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    signer.write(body.data(), 4000);
    signer.write(body.data() + 4000, 1000);
    signer.end();
    const Bytes once = bytesOf(target.content());
    EXPECT_EQ(once, signedPlainly(identities().rsa, body, EVP_sha256()));
    signer.end();
    Bytes repeated = body;
    repeated.insert(repeated.end(), body.begin() + 4000, body.end());
    Bytes both = once;
    const Bytes second = signedPlainly(identities().rsa, repeated, EVP_sha256());
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(bytesOf(target.content()), both);
}

// Deliberate, as above: a piece that fills the buffer to its last byte stays in it.
TEST(Signer, APieceThatJustFitsStaysInTheBuffer) {
    const Bytes body = bodyOf(4096);
    Bytes twice = body;
    twice.insert(twice.end(), body.begin(), body.end());
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(target);
    signer.write(body.data(), 1000);
    signer.write(body.data() + 1000, 3096);
    signer.end();
    Bytes both = bytesOf(target.content());
    signer.end();
    const Bytes second = signedPlainly(identities().rsa, twice, EVP_sha256());
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(bytesOf(target.content()), both);
}

// Deliberate, as above: what is written after end() follows the buffered bytes once more.
TEST(Signer, WritingAfterTheEndGoesOnFeedingTheDigest) {
    const Bytes body = bodyOf(600);
    Norvane::MemoryMediaOut first;
    Norvane::MemoryMediaOut second;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    signer.attach(first);
    signer.write(body.data(), 500);
    signer.end();
    signer.detach();
    signer.attach(second);
    signer.write(body.data() + 500, 100);
    signer.end();
    Bytes fed(body.begin(), body.begin() + 500);
    fed.insert(fed.end(), body.begin(), body.end());
    EXPECT_EQ(bytesOf(first.content()),
              signedPlainly(identities().rsa, Bytes(body.begin(), body.begin() + 500), EVP_sha256()));
    EXPECT_EQ(bytesOf(second.content()), signedPlainly(identities().rsa, fed, EVP_sha256()));
}

TEST(Signer, HandlesShareOneStream) {
    const Bytes body = bodyOf(200);
    Norvane::MemoryMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    Norvane::MediaOut other = signer;
    signer.attach(target);
    signer.write(body.data(), 100);
    other.write(body.data() + 100, 100);
    other.end();
    EXPECT_EQ(bytesOf(target.content()), signedPlainly(identities().rsa, body, EVP_sha256()));
}

TEST(Signer, WithoutATargetEndThrowsAsANullHandle) {
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    const Caught failure = caught([&] { signer.end(); });
    EXPECT_EQ(failure.where, "operator->");
    EXPECT_EQ(failure.code, 1);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    Norvane::MemoryMediaOut target;
    signer.attach(target);
    signer.detach();
    EXPECT_EQ(caught([&] { signer.end(); }).where, "operator->");
    EXPECT_EQ(target.content().length(), 0U);
}

TEST(Signer, WhatTheTargetThrowsPassesUnchanged) {
    for (const bool onEnd : {false, true}) {
        CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
        FailingOut target(onEnd);
        signer.attach(target);
        signer.write(bodyOf(5000).data(), 5000);
        std::string what;
        try {
            signer.end();
        } catch (const std::runtime_error& failure) {
            what = failure.what();
        }
        EXPECT_EQ(what, onEnd ? "the close failed" : "the disk is full");
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
}

TEST(Signer, AttachAsksForItsOwnKindOfBody) {
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    static_cast<Norvane::MediaOut&>(signer) = Norvane::NullMediaOut();
    Norvane::MemoryMediaOut target;
    for (const auto& failure : {caught([&] { signer.attach(target); }), caught([&] { signer.detach(); })}) {
        EXPECT_EQ(failure.where, "CMS::SignerMediaOut::attach");
        EXPECT_EQ(failure.code, 1);
        EXPECT_EQ(failure.file, "CMSSignerMedia");
    }
}

TEST(Signer, IsNotItsOwnTarget) {
    CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    const Caught failure = caught([&] { signer.attach(signer); });
    EXPECT_EQ(failure.where, "CMS::SignerMediaOut::attach");
    EXPECT_EQ(failure.details, std::vector<std::string>{"a stream cannot be its own target"});
    EXPECT_EQ(signer->referenceCount(), 1);
}

TEST(Signer, AKeyOfAnotherCertificateIsRefusedAtConstruction) {
    expectKeyRefused({keyOf(identities().otherRsa), certificateOf(identities().rsa)});
    expectKeyRefused({keyOf(identities().ec), certificateOf(identities().rsa)});
}

TEST(Signer, AMissingKeyOrCertificateIsRefusedAtConstruction) {
    const auto certificate = certificateOf(identities().rsa);
    expectKeyRefused({Crypto::RefKey(static_cast<Crypto::Key*>(nullptr)), certificate});
    expectKeyRefused({Crypto::RefKey(Crypto::Key::PRIVATE_KEY), certificate});
    expectKeyRefused({keyOf(identities().rsa), NVX509::RefCertificate()});
    expectKeyRefused(NVX509::KeyCertificatePair(true));
}

TEST(Signer, TheKeyIsAskedForBeforeTheDigest) {
    const NVX509::KeyCertificatePair pair(keyOf(identities().otherRsa), certificateOf(identities().rsa));
    EXPECT_EQ(constructionFailure(pair, static_cast<Hasher::Type>(0)).line, 43U);
}

TEST(Signer, LeavesOlderEntriesOfTheErrorQueueAlone) {
    ERR_raise(ERR_LIB_USER, 77);
    caught([&] {
        const CMS::SignerMediaOut signer(
            Hasher::SHA256, NVX509::KeyCertificatePair(keyOf(identities().otherRsa), certificateOf(identities().rsa)));
    });
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
    EXPECT_EQ(ERR_get_error(), 0UL);
}

TEST(Signer, UnknownDigestsAreRefused) {
    for (const int type : {0, 6, 419, 999999, -1}) {
        EXPECT_EQ(constructionFailure(pairOf(identities().rsa), static_cast<Hasher::Type>(type)).line, 56U) << type;
    }
}

TEST(Signer, KeysThatCannotSignWithTheDigestAreRefused) {
    for (const auto type : {Hasher::SHA384, Hasher::SHA512}) {
        const Caught failure = constructionFailure(pairOf(identities().dsa), type);
        EXPECT_EQ(failure.line, 63U);
        EXPECT_EQ(failure.details.size(), 1U);
    }
    const Identity edwards = norvauthority::issue({.subject = {{"CN", "Ed"}}, .key = norvauthority::Key::ed25519()});
    const Caught failure = constructionFailure(pairOf(edwards));
    EXPECT_EQ(failure.line, 63U);
    ASSERT_EQ(failure.details.size(), 1U);
    EXPECT_NE(failure.details.front().find("signing not supported"), std::string::npos) << failure.details.front();
}

TEST(Signer, ADigestThatDoesNotStartIsRefused) {
    const auto pair = pairOf(identities().rsa);
    ASSERT_EQ(EVP_set_default_properties(nullptr, "fips=yes"), 1);
    const Caught failure = constructionFailure(pair);
    ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
    EXPECT_EQ(failure.line, 91U);
    ASSERT_EQ(failure.details.size(), 1U);
    EXPECT_EQ(failure.details.front().substr(0, 2), "0x");
}

TEST(Signer, APublicKeyMatchesItsCertificateButFailsAtTheEnd) {
    CMS::SignerMediaOut signer(
        Hasher::SHA256, NVX509::KeyCertificatePair(publicKeyOf(identities().rsa), certificateOf(identities().rsa)));
    Norvane::MemoryMediaOut target;
    signer.attach(target);
    const Caught failure = caught([&] { signer.end(); });
    EXPECT_EQ(failure.where, "CMS::SignerMediaOutImpl::end");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMSSignerMedia");
    EXPECT_EQ(failure.line, 147U);
    ASSERT_EQ(failure.details.size(), 1U);
    EXPECT_EQ(failure.details.front().substr(0, 2), "0x");
    EXPECT_EQ(target.content().length(), 0U);
    EXPECT_FALSE(target.ended());
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(SignerDeathTest, ANullPairEndsTheProcess) {
    EXPECT_DEATH(CMS::SignerMediaOut(Hasher::SHA256, NVX509::KeyCertificatePair(false)), "null pair");
}

TEST(Signer, ItsBodyIsAMediaOutImplWithOneReference) {
    const CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
    EXPECT_NE(dynamic_cast<CMS::SignerMediaOutImpl*>(signer.operator->()), nullptr);
    EXPECT_EQ(signer->referenceCount(), 1);
}

TEST(Signer, KeepsItsKeyAndCertificateAlive) {
    const Bytes body = bodyOf(50);
    auto signer = [&] {
        const NVX509::KeyCertificatePair pair = pairOf(identities().rsa);
        return CMS::SignerMediaOut(Hasher::SHA256, pair);
    }();
    Norvane::MemoryMediaOut target;
    signer.attach(target);
    signer.write(body.data(), 50);
    signer.end();
    EXPECT_EQ(bytesOf(target.content()), signedPlainly(identities().rsa, body, EVP_sha256()));
}
