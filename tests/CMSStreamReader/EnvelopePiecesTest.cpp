// What callers and senders may do that hardly one does: recipients asked for what they have not, readers whose body is replaced,
// elements that are none within those that are.
#include "HandMade.h"

#include "support/Thrown.h"

using namespace cmstest;

TEST(EnvelopePieces, OnlyAKeyEncryptionKeyHasAnIdentifier) {
    const Reader byName(Norvane::MemoryMediaIn(bufferOf(madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice())))));
    EXPECT_EQ(byName.recipients().front().keyIdentifier().length(), 0U);
    EXPECT_TRUE(byName.recipients().front().identifier());
    const Reader byKey(Norvane::MemoryMediaIn(bufferOf(madeByOpenssl(EVP_aes_128_cbc(), addSecretKey))));
    EXPECT_NE(byKey.recipients().front().keyIdentifier().length(), 0U);
    EXPECT_FALSE(byKey.recipients().front().identifier());
}

TEST(EnvelopePieces, AReaderWhoseBodyWasReplacedSaysSo) {
    const Norvane::MemoryMediaIn in(bufferOf(madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice()))));
    Reader reader(in);
    static_cast<Norvane::MediaIn&>(reader) = Norvane::MemoryMediaIn(bufferOf(bodyOf(10)));
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(reader.recipients()); });
    norvtest::expectFailure(thrown, "CMS::EnvelopeReader", 1, "CMSEnvelopeReader");
}

TEST(EnvelopePieces, NothingOpensAMessageThatIsNotSupported) {
    const Bytes made = authEnveloped(
        {.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}, .algorithm = "1.2.3.4"});
    Reader reader(Norvane::MemoryMediaIn(bufferOf(made)));
    EXPECT_EQ(reader.verdict(), Reader::Unsupported);
    const auto recipient = reader.recipients().front();
    EXPECT_FALSE(reader.open(recipient, pairOf(alice())));
    EXPECT_FALSE(reader.open(recipient, bufferOf(Bytes(32, 1))));
    EXPECT_FALSE(reader.openWithPassword(recipient, bufferOf(bytesOf("secret"))));
    EXPECT_EQ(reader.unsupported(), "1.2.3.4");
}

TEST(EnvelopePieces, RecipientsInAPrimitiveSetAreNone) {
    Bytes message = authEnveloped({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}});
    expectBody(message, withKeys({&alice()}), bodyOf(1000));
    const Bytes version = der::integer("0");
    const auto at = std::search(message.begin(), message.end(), version.begin(), version.end()) + 3;
    ASSERT_EQ(*at, 0x31);
    *at = 0x11;
    for (const From from : {From::memory, From::stream}) {
        EXPECT_EQ(outcomeOf(message, from, withKeys({&alice()})).text, noStructureText);
    }
}

TEST(EnvelopePieces, VersionsThatAreNone) {
    const auto withVersion = [](const Bytes& version) {
        return der::sequence(
            {der::oid("1.2.840.113549.1.7.3"), cmstest::context(0, der::sequence({version, der::set({})}))});
    };
    for (const Bytes& version :
         {Bytes{0x02, 0x00}, Bytes{0x22, 0x03, 0x02, 0x01, 0x00}, der::integer("0100000000000000000000"),
          der::octetString({0}), Bytes{0x02, 0x02, 0x00, 0x00}}) {
        for (const From from : {From::memory, From::stream}) {
            EXPECT_EQ(outcomeOf(withVersion(version), from, withKeys({&alice()})).text, noStructureText);
        }
    }
}

TEST(EnvelopePieces, KeysOfAnAgreementThatAreNoElementsAreDamage) {
    const Bytes sound = recipientInfo(alice(), wrappedFor(alice(), contentKey()));
    const Bytes originator = originatorKey("1.2.840.10045.2.1", Bytes(65, 4));
    for (const Bytes& broken : {Bytes{0x30, 0x05, 0x01}, Bytes{0x30}, Bytes{0x1F, 0xFF}}) {
        const Bytes message =
            authEnveloped({.recipients = {agreement({.originator = originator, .keys = {broken}}), sound}});
        for (const From from : {From::memory, From::stream}) {
            const Outcome outcome = outcomeOf(message, from, withKeys({&alice()}));
            EXPECT_EQ(outcome.text, noStructureText);
        }
    }
}
