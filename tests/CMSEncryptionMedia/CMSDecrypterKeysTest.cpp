// Which key the decrypting stream asks for, and what becomes of the answers.
#include "support/Decrypting.h"

using namespace cmstest;

namespace {

NVX509::KeyCertificatePair mismatched(const Identity& named, const Identity& holder) {
    return {keyOf(holder), certificateOf(named)};
}

void expectKeyMissing(const NVX509::RefKeyStore& keys) {
    const Opened opened = openedBy(handMade(bodyOf(10), {recipient(alice())}), keys);
    EXPECT_FALSE(opened.good);
    EXPECT_TRUE(opened.body.empty());
    EXPECT_EQ(opened.failed, Serials{aliceSerial});
    EXPECT_EQ(opened.events, Events{keyMissing});
}

} // namespace

TEST(DecrypterKeys, OfThreeRecipientsTheSecondHasAKey) {
    const Bytes body = bodyOf(1000);
    const Bytes structure = handMade(body, {recipient(alice()), recipient(bob()), recipient(carol())});
    const Opened opened = openedBy(structure, storeOfKeys({&bob()}));
    EXPECT_TRUE(opened.good);
    EXPECT_EQ(opened.body, body);
    EXPECT_EQ(opened.failed, Serials{aliceSerial});
    EXPECT_EQ(opened.succeeded, Serials{bobSerial});
    EXPECT_EQ(opened.events, Events{keyMissing});
}

TEST(DecrypterKeys, TheFirstOfSeveralKeysServes) {
    const Bytes body = bodyOf(1000);
    const Bytes structure = handMade(body, {recipient(carol()), recipient(bob()), recipient(alice())});
    const Opened opened = openedBy(structure, storeOfKeys({&alice(), &bob(), &carol()}));
    EXPECT_EQ(opened.body, body);
    EXPECT_TRUE(opened.failed.empty());
    EXPECT_EQ(opened.succeeded, Serials{carolSerial});
    EXPECT_TRUE(opened.events.empty());
}

TEST(DecrypterKeys, AMissingKeyIsLoggedWithIssuerAndSerialNumber) {
    const RecordedLog log;
    PiecewiseIn in(handMade(bodyOf(10), {recipient(alice())}));
    Norvane::NullMediaOut out;
    CMS::DecrypterMediaIn(in, storeOfKeys({&bob()})).write(out);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().event, 0x300005AU);
    EXPECT_EQ(log.records().front().level, 0);
    EXPECT_EQ(log.records().front().fields, (std::vector<std::string>{"O=Mail,CN=Test Authority", "0a11ce"}));
}

TEST(DecrypterKeys, AKeyThatDoesNotBelongToTheCertificateFailsBeforeAnythingIsWritten) {
    const Bytes structure = handMade(bodyOf(1000), {recipient(alice()), recipient(carol())});
    for (int turn = 0; turn < 20; ++turn) {
        const Opened opened = openedBy(structure, storeOfPairs({mismatched(alice(), bob())}));
        EXPECT_FALSE(opened.good);
        EXPECT_TRUE(opened.body.empty());
        EXPECT_EQ(opened.failed, (Serials{aliceSerial, carolSerial}));
        EXPECT_EQ(opened.events, (Events{attemptFailed, keyMissing}));
    }
    const Opened next = openedBy(structure, storeOfPairs({mismatched(alice(), bob()), pairOf(carol())}));
    EXPECT_EQ(next.body, bodyOf(1000));
    EXPECT_EQ(next.failed, Serials{aliceSerial});
    EXPECT_EQ(next.succeeded, Serials{carolSerial});
    const RecordedLog log;
    PiecewiseIn in(structure);
    Norvane::NullMediaOut out;
    CMS::DecrypterMediaIn(in, storeOfPairs({mismatched(alice(), bob())})).write(out);
    ASSERT_EQ(log.records().size(), 2U);
    EXPECT_EQ(log.records().front().fields, std::vector<std::string>{" "});
}

TEST(DecrypterKeys, APairWithoutAPrivateKeyIsAMissingKey) {
    const auto certificate = certificateOf(alice());
    expectKeyMissing(storeOfPairs({NVX509::KeyCertificatePair(Crypto::RefKey(), certificate)}));
    expectKeyMissing(
        storeOfPairs({NVX509::KeyCertificatePair(Crypto::RefKey(static_cast<Crypto::Key*>(nullptr)), certificate)}));
    expectKeyMissing(storeOfPairs({NVX509::KeyCertificatePair(Crypto::RefKey(Crypto::Key::PRIVATE_KEY), certificate)}));
}

TEST(DecrypterKeys, APublicKeyIsNoPrivateKey) {
    const auto certificate = alice().certificate.x509();
    expectKeyMissing(storeOfPairs({NVX509::KeyCertificatePair(
        Crypto::RefKey(new Crypto::PublicKey(X509_get_pubkey(certificate.get()))), certificateOf(alice()))}));
}

TEST(DecrypterKeys, APairWithoutACertificateIsNoAnswer) {
    expectKeyMissing(storeOf(new Answering([] { return NVX509::KeyCertificatePair(true); })));
    expectKeyMissing(
        storeOf(new Answering([] { return NVX509::KeyCertificatePair(keyOf(alice()), NVX509::RefCertificate()); })));
}

TEST(DecrypterKeys, AStoreWithoutPlugInsHasNoKey) {
    expectKeyMissing(NVX509::RefKeyStore(true));
}

TEST(DecrypterKeys, OfTwoPlugInsTheFirstThatAnswersIsTaken) {
    const Bytes body = bodyOf(100);
    const Bytes structure = handMade(body, {recipient(alice())});
    const auto without = [] { return NVX509::KeyCertificatePair(true); };
    for (const bool answersFirst : {false, true}) {
        NVX509::RefKeyStore keys(true);
        keys->add(NVX509::RefKeyStorePlugin(answersFirst ? new Pairs({pairOf(alice())}) : new Answering(without)));
        keys->add(NVX509::RefKeyStorePlugin(answersFirst ? new Answering(without) : new Pairs({pairOf(alice())})));
        Answering::s_asked = 0;
        EXPECT_EQ(openedBy(structure, keys).body, body);
        EXPECT_EQ(Answering::s_asked, answersFirst ? 0 : 1);
    }
}

TEST(DecrypterKeysDeathTest, ANullPairFromAPlugInEndsTheProcess) {
    PiecewiseIn in(handMade(bodyOf(10), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOf(new Answering([] { return NVX509::KeyCertificatePair(false); })));
    Norvane::NullMediaOut out;
    EXPECT_DEATH(decrypter.write(out), "null pair");
}

TEST(DecrypterKeys, AnEmptyKeyStoreHandleThrowsAsANullHandle) {
    PiecewiseIn in(handMade(bodyOf(10), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, NVX509::RefKeyStore(false));
    Norvane::NullMediaOut out;
    const Caught failure = caught([&] { decrypter.write(out); });
    EXPECT_EQ(failure.where, "operator->");
    EXPECT_EQ(failure.code, 1);
    EXPECT_TRUE(decrypter.failed().empty());
}

TEST(DecrypterKeys, WhatAPlugInThrowsPassesUnchanged) {
    PiecewiseIn in(handMade(bodyOf(10), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOf(new Answering([]() -> NVX509::KeyCertificatePair {
                                        throw std::runtime_error("the card was pulled");
                                    })));
    Norvane::NullMediaOut out;
    EXPECT_THROW(decrypter.write(out), std::runtime_error);
    EXPECT_TRUE(decrypter.failed().empty());
    EXPECT_FALSE(decrypter.decryptionSucceeded());
}

// A store may answer with a renewed certificate over the same key, which does not name the recipient.
TEST(DecrypterKeys, APairOfAnotherNameIsTried) {
    const Bytes body = bodyOf(100);
    const Bytes structure =
        handMade(body, {recipientInfo(identities().authority.name.der(), "77", wrappedFor(alice(), contentKey()))});
    const Opened opened = openedBy(structure, storeOf(new Answering([] { return pairOf(alice()); })));
    EXPECT_EQ(opened.body, body);
    EXPECT_EQ(opened.succeeded, Serials{"77"});
}

// A plug-in that knows one key answers with it whoever is asked for: nothing of a garbage body comes before the body.
TEST(DecrypterKeys, AKeyOfAnotherNameOpensWhicheverRecipientItFits) {
    const Bytes body = bodyOf(1000);
    const Bytes structure = handMade(body, {recipient(alice()), recipient(bob()), recipient(carol())});
    const Opened opened = openedBy(structure, storeOf(new Answering([] { return pairOf(carol()); })));
    EXPECT_EQ(opened.body, body);
    EXPECT_EQ(opened.succeeded, Serials{aliceSerial});
    EXPECT_TRUE(opened.failed.empty());
}

// The one that was asked for is not the one that opens, wherever that stands.
TEST(DecrypterKeys, AKeyOfAnotherNameOpensTheFirstRecipient) {
    /// Knows the second recipient alone.
    class Second : public Pairs {
    public:
        Second() : Pairs({}) {}
        NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/,
                                        const Crypto::ASN1::Integer& serial) override {
            return serial.hex() == "78" ? pairOf(alice()) : NVX509::KeyCertificatePair(true);
        }
    };
    const Bytes body = bodyOf(1000);
    const Bytes issuer = identities().authority.name.der();
    const Bytes structure = handMade(body, {recipientInfo(issuer, "77", wrappedFor(alice(), contentKey())),
                                            recipientInfo(issuer, "78", Bytes(256, 1))});
    EXPECT_EQ(openedBy(structure, storeOf(new Second)).body, body);
}

// What OpenSSL has to decode whole, as a key in segments (X.690, 8.7.3), is named likewise.
TEST(DecrypterKeys, RecipientsThatAreDecodedWholeAreNamedLikewise) {
    const Bytes body = bodyOf(100);
    const Bytes wrapped = wrappedFor(alice(), contentKey());
    const auto inSegments = [](const Identity& person, const Bytes& key) {
        return der::sequence(
            {der::integer("0"), der::sequence({identities().authority.name.der(), der::integer(person.serial)}),
             der::sequence({der::oid("rsaEncryption"), der::null()}), der::element(0x24, der::octetString(key))});
    };
    PiecewiseIn in(handMade(body, {inSegments(bob(), wrapped), inSegments(alice(), wrapped)}));
    Norvane::MemoryMediaOut out;
    const RecordedLog log;
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    decrypter.write(out);
    EXPECT_EQ(bytesOf(out.content()), body);
    ASSERT_EQ(decrypter.failed().size(), 1U);
    EXPECT_EQ(decrypter.failed().front().serialNumber()->hex(), bobSerial);
    EXPECT_EQ(decrypter.failed().front().issuer()->asString(), "O=Mail,CN=Test Authority");
    ASSERT_EQ(decrypter.succeeded().size(), 1U);
    EXPECT_EQ(decrypter.succeeded().front().identifier().issuer()->asString(), "O=Mail,CN=Test Authority");
    EXPECT_EQ(decrypter.succeeded().front().identifier().serialNumber()->hex(), aliceSerial);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().fields, (std::vector<std::string>{"O=Mail,CN=Test Authority", "0b0b"}));
}

// A serial number is unique for its issuer alone: such a pair does not name the recipient either.
TEST(DecrypterKeys, AKeyOfTheSameSerialNumberFromAnotherIssuerIsOfAnotherName) {
    const Bytes body = bodyOf(1000);
    const Bytes issuer = norvauthority::Name{{"CN", "Other Authority"}}.der();
    const Bytes structure =
        handMade(body, {recipientInfo(issuer, alice().serial, wrappedFor(carol(), contentKey())), recipient(alice())});
    EXPECT_EQ(openedBy(structure, storeOf(new Answering([] { return pairOf(alice()); }))).body, body);
}

// Whatever chance makes of the first recipient's key, which is damaged: the second one's is not opened with it.
TEST(DecrypterKeys, AKeyIsTriedOnItsOwnRecipientAlone) {
    const Bytes body = bodyOf(100);
    const Bytes structure = handMade(
        body, {recipientInfo(alice(), Bytes(256, 1)), recipientInfo(bob(), wrappedFor(alice(), contentKey()))});
    EXPECT_NE(openedBy(structure, storeOfKeys({&alice()})).body, body);
}

// Deliberate: a number that no certificate may have cannot be held, so that nothing can be recorded of it.
TEST(DecrypterKeys, ARecipientWithANegativeSerialNumberIsSkippedUnrecorded) {
    const Bytes body = bodyOf(100);
    const Bytes wrapped = wrappedFor(alice(), contentKey());
    const Bytes issuer = identities().authority.name.der();
    const Bytes structure =
        handMade(body, {recipientInfo(issuer, "-1f", wrapped), recipient(bob()), recipientInfo(alice(), wrapped)});
    const Opened opened = openedBy(structure, storeOfKeys({&alice()}));
    EXPECT_EQ(opened.body, body);
    EXPECT_EQ(opened.failed, Serials{bobSerial});
    EXPECT_EQ(opened.succeeded, Serials{aliceSerial});
    EXPECT_EQ(opened.events, (Events{attemptFailed, keyMissing}));
    expectNothingTried(handMade(body, {recipientInfo(issuer, "-1f", wrapped)}), {attemptFailed});
}

TEST(DecrypterKeys, AThousandRecipientsOfWhomTheLastHasAKey) {
    const Bytes body = bodyOf(100);
    std::vector<Bytes> recipients(999, recipient(bob()));
    recipients.push_back(recipient(alice()));
    const Opened opened = openedBy(handMade(body, recipients), storeOfKeys({&alice()}));
    EXPECT_EQ(opened.body, body);
    EXPECT_EQ(opened.failed.size(), 999U);
    EXPECT_EQ(opened.succeeded, Serials{aliceSerial});
}

TEST(DecrypterKeys, RecipientsThatAreNotRsaFail) {
    const Bytes structure = envelope(
        {.recipients = {recipientInfo(identities().ec, Bytes(64, 7)), recipientInfo(identities().dsa, Bytes(64, 7))},
         .content = contentElement(encryptedContent(bodyOf(10)))});
    const Opened opened = openedBy(structure, storeOfKeys({&identities().ec, &identities().dsa}));
    EXPECT_FALSE(opened.good);
    EXPECT_TRUE(opened.body.empty());
    EXPECT_EQ(opened.failed, (Serials{"0e7e", "d05a"}));
    EXPECT_EQ(opened.events, (Events{attemptFailed, attemptFailed}));
}
