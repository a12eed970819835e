// What stands around the recipients and the content of an enveloped message (RFC 5652, 3 and 6.1; RFC 5083, 2.1).
#include "HandMade.h"

using namespace cmstest;

namespace {

Bytes recipients() {
    return der::set({recipientInfo(alice(), wrappedFor(alice(), contentKey()))});
}
Bytes encrypted(std::size_t length = 100) {
    return der::sequence({der::oid("1.2.840.113549.1.7.1"),
                          der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())}),
                          contentElement(encryptedContent(bodyOf(length)))});
}
Bytes enveloped(const std::vector<Bytes>& parts, const Bytes& type = der::oid("1.2.840.113549.1.7.3")) {
    return der::sequence({type, cmstest::context(0, der::sequence(parts))});
}
Bytes tagged(unsigned char tag, Bytes element) {
    element.front() = tag;
    return element;
}
std::string textOf(const Bytes& message, const Reader::Budget& budget = {}, From from = From::stream) {
    return outcomeOf(message, from, withKeys({&alice()}), budget).text;
}

} // namespace

TEST(EnvelopeFrame, EachTagIsTheOneThatMustBeThere) {
    const Bytes version = der::integer("0");
    const Bytes sound = enveloped({version, recipients(), encrypted()});
    expectBody(sound, withKeys({&alice()}), bodyOf(100));
    const Bytes type = der::oid("1.2.840.113549.1.7.3");
    const Bytes inner = der::sequence({version, recipients(), encrypted()});
    const Bytes content = encrypted();
    const Bytes contentType = der::oid("1.2.840.113549.1.7.1");
    const Bytes cipher = der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())});
    const Bytes octets = contentElement(encryptedContent(bodyOf(100)));
    for (const Bytes& odd : {
             tagged(0x31, sound),
             enveloped({version, recipients(), encrypted()}, tagged(0x0D, type)),
             der::sequence({type, tagged(0xA1, cmstest::context(0, inner))}),
             der::sequence({type, cmstest::context(0, tagged(0x31, inner))}),
             enveloped({tagged(0x0A, version), recipients(), encrypted()}),
             enveloped({version, tagged(0x30, recipients()), encrypted()}),
             enveloped({version, tagged(0x11, recipients()), encrypted()}),
             enveloped({version, recipients(), tagged(0x31, content)}),
             enveloped({version, recipients(), der::sequence({tagged(0x0D, contentType), cipher, octets})}),
             enveloped({version, recipients(), der::sequence({contentType, tagged(0x31, cipher), octets})}),
         }) {
        for (const From from : {From::memory, From::stream}) {
            EXPECT_EQ(textOf(odd, {}, from), noStructureText);
        }
    }
}

TEST(EnvelopeFrame, TheTagOfAuthenticationIsAnOctetString) {
    const Bytes message = authEnveloped({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}});
    expectBody(message, withKeys({&alice()}), bodyOf(1000));
    Bytes odd = message;
    ASSERT_EQ(odd[odd.size() - 14], 0x04);
    for (const unsigned char tag : Bytes{0x03, 0x0C, 0x80}) {
        odd[odd.size() - 14] = tag;
        expectDamaged(odd, withKeys({&alice()}), true);
    }
    Bytes attributes = contentTypeAttribute("1.2.840.113549.1.7.1");
    AuthParts parts{.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                    .attributes = attributes};
    expectBody(authEnveloped(parts), withKeys({&alice()}), bodyOf(1000));
    parts.sentAttributes = der::element(0x81, attributes); // primitive
    expectDamaged(authEnveloped(parts), withKeys({&alice()}), true);
}

TEST(EnvelopeFrame, IdentifiersOfAKilobyteAreTheLongest) {
    const auto withType = [](std::size_t length) {
        const Bytes identifier = der::element(0x06, Bytes(length - 4, 0x2A));
        return enveloped(
            {der::integer("0"), recipients(),
             der::sequence({identifier,
                            der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())}),
                            contentElement(encryptedContent(bodyOf(100)))})});
    };
    EXPECT_EQ(textOf(withType(1024)), "");
    EXPECT_EQ(textOf(withType(1025)), noStructureText);
}

// A length may have zeros in front of it, in BER.
TEST(EnvelopeFrame, VersionsOfSixtyFourOctetsAreTheLongest) {
    const auto withVersion = [](std::size_t length) {
        Bytes version{0x02, static_cast<unsigned char>(0x80 + length - 3)};
        version.resize(length - 2, 0);
        der::append(version, {1, 0});
        return enveloped({version, recipients(), encrypted()});
    };
    EXPECT_EQ(textOf(withVersion(64)), "");
    EXPECT_EQ(textOf(withVersion(65)), noStructureText);
}

// Each element counts up to its end, whatever comes after it.
TEST(EnvelopeFrame, TheHeadEndsWithinItsBudget) {
    const Bytes version = der::integer("0");
    const Bytes info = cmstest::context(0, cmstest::context(0, alice().certificate.der));
    const Bytes broken = der::element(0x1F, {});
    const Bytes beginning = enveloped({version});
    const auto headerOf = [](const std::vector<Bytes>& parts) { // octets in front of the version
        const Bytes whole = enveloped(parts);
        return whole.size() - der::concat(parts).size();
    };
    const auto expectEnd = [](const Bytes& message, std::size_t end) {
        for (const From from : {From::memory, From::stream}) {
            Reader::Budget budget;
            budget.head = static_cast<std::uint32_t>(end);
            EXPECT_EQ(textOf(message, budget, from), noStructureText);
            budget.head = static_cast<std::uint32_t>(end - 1);
            EXPECT_EQ(textOf(message, budget, from),
                      "more octets before the content than " + std::to_string(end - 1) + " (Budget::head)");
        }
    };
    const std::vector<Bytes> first{version, info, broken};
    expectEnd(enveloped(first), headerOf(first) + version.size() + info.size());
    const std::vector<Bytes> second{version, recipients(), broken};
    expectEnd(enveloped(second), headerOf(second) + version.size() + second[1].size());
    const Bytes cipher = der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())});
    const Bytes type = der::oid("1.2.840.113549.1.7.1");
    const std::vector<Bytes> third{version, recipients(), der::sequence({type, cipher})};
    const Bytes whole = enveloped(third);
    Reader::Budget budget;
    budget.head = static_cast<std::uint32_t>(whole.size());
    EXPECT_EQ(textOf(whole, budget), "the message carries no encrypted content");
    --budget.head;
    EXPECT_EQ(textOf(whole, budget),
              "more octets before the content than " + std::to_string(budget.head) + " (Budget::head)");
}

// No more than 2^31 - 1 octets are taken before and behind the content, whatever is asked for.
TEST(EnvelopeFrame, TheLargestBudgetIsTwoGibibytes) {
    Reader::Budget budget;
    budget.head = budget.tail = 0xFFFFFFFF;
    const std::string most = "2147483647";
    const Bytes open{0x30, 0x80};
    const auto huge = [](unsigned char tag) { return Bytes{tag, 0x84, 0x80, 0, 0, 0x10}; };
    const Bytes version = der::integer("0");
    const Bytes head = der::concat({open, der::oid("1.2.840.113549.1.7.3"), {0xA0, 0x80}, open, version});
    EXPECT_EQ(textOf(der::concat({head, huge(0x31)}), budget),
              "more octets before the content than " + most + " (Budget::head)");
    EXPECT_EQ(textOf(der::concat({head, recipients(), encrypted(), huge(0xA1)}), budget),
              "more octets behind the content than " + most + " (Budget::tail)");
}

TEST(EnvelopeFrame, BehindTheLastOctetThereIsNone) {
    for (const bool authenticated : {false, true}) {
        const Bytes message =
            authenticated ? authEnveloped({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                           .body = bodyOf(64)})
                          : enveloped({der::integer("0"), recipients(), encrypted(64)});
        Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
        ASSERT_TRUE(withKeys({&alice()})(reader));
        Bytes body(64);
        EXPECT_EQ(reader.read(body.data(), 64), 64);
        EXPECT_EQ(reader.peek(), -1);
        EXPECT_TRUE(reader.atEnd());
        EXPECT_EQ(reader.verdict(), Reader::Complete);
        EXPECT_EQ(body, bodyOf(64));
    }
}

TEST(EnvelopeFrame, TheOpenedRecipientIsTheChosenOne) {
    const Bytes unsupported = der::sequence(
        {der::integer("0"), nameIn(alice()), der::sequence({der::oid("1.2.3.4")}), der::octetString(Bytes(256, 1))});
    const Bytes secret(16, 0x42);
    const auto kek = [&](const std::string& wrap) {
        return cmstest::context(
            2, der::concat({der::integer("4"), der::sequence({der::octetString({'k'})}),
                            der::sequence({der::oid(wrap)}), der::octetString(aesWrapped(secret, contentKey()))}));
    };
    const Bytes message = authEnveloped({.recipients = {unsupported, recipientInfo(bob(), Bytes(256, 1)),
                                                        recipientInfo(alice(), wrappedFor(alice(), contentKey())),
                                                        kek("1.2.3.5"), kek("2.16.840.1.101.3.4.1.5")}});
    const auto reader = [&] { return std::make_unique<Reader>(Norvane::MemoryMediaIn(bufferOf(message))); };
    const auto expectOpened = [](Reader& read, std::size_t number) {
        EXPECT_EQ(read.opened(), &read.recipients()[number]);
        EXPECT_EQ(read.unsupported(), "");
        Norvane::MemoryMediaOut out;
        read.write(out);
        EXPECT_EQ(bytesOf(out.content()), bodyOf(1000));
    };
    const auto byKey = reader();
    const auto& all = byKey->recipients();
    EXPECT_FALSE(byKey->open(all[0], pairOf(alice())));
    EXPECT_EQ(byKey->unsupported(), "1.2.3.4");
    EXPECT_EQ(byKey->verdict(), Reader::Unsupported);
    EXPECT_FALSE(byKey->open(all[2], NVX509::KeyCertificatePair(false)));
    EXPECT_FALSE(byKey->open(all[2], NVX509::KeyCertificatePair(true)));
    const Crypto::RefKey publicKey(new Crypto::PublicKey(X509_get_pubkey(alice().certificate.x509().get())));
    EXPECT_FALSE(byKey->open(all[2], NVX509::KeyCertificatePair(publicKey, certificateOf(alice()))));
    EXPECT_TRUE(byKey->open(all[2], pairOf(alice())));
    expectOpened(*byKey, 2);

    const auto bySecret = reader();
    const auto& again = bySecret->recipients();
    EXPECT_FALSE(bySecret->open(again[3], bufferOf(secret)));
    EXPECT_EQ(bySecret->unsupported(), "1.2.3.5");
    EXPECT_FALSE(bySecret->open(again[2], bufferOf(secret)));
    EXPECT_FALSE(bySecret->openWithPassword(again[4], bufferOf(secret)));
    EXPECT_EQ(bySecret->opened(), nullptr);
    EXPECT_TRUE(bySecret->open(again[4], bufferOf(secret)));
    expectOpened(*bySecret, 4);
}

// Keys for other names are tried last, each an operation like any other.
TEST(EnvelopeFrame, KeysOfOtherNamesAreWithinTheBudget) {
    class Any : public CMS::KeyLookup {
    public:
        NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier&) const override { return pairOf(alice()); }
    };
    const auto opened = [](std::size_t others, std::uint32_t operations) {
        std::vector<Bytes> all;
        const auto oaep = [](const Bytes& name, const Bytes& key) {
            return der::sequence({der::integer("0"), name,
                                  der::sequence({der::oid("1.2.840.113549.1.1.7"), der::sequence({})}),
                                  der::octetString(key)});
        };
        for (std::size_t number = 0; number < others; ++number) {
            all.push_back(oaep(der::sequence({identities().authority.name.der(), der::integer("77" + inHex(number))}),
                               Bytes(256, 1)));
        }
        Reader::Budget budget;
        budget.privateKeyOperations = operations;
        return outcomeOf(
                   authEnveloped({.recipients = all}), From::memory, [](Reader& reader) { return reader.open(Any()); },
                   budget)
            .text;
    };
    EXPECT_EQ(opened(3, 3), damagedText);
    EXPECT_EQ(opened(4, 3), "more operations with private keys than 3 (Budget::privateKeyOperations)");
    EXPECT_EQ(opened(100, 0), "more operations with private keys than 0 (Budget::privateKeyOperations)");
}
