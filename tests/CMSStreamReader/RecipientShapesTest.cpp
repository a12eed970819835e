// The structures of recipients (RFC 5652, 6.2), of every kind: what departs from one is told as a recipient that cannot be decoded.
// OpenSSL's decoder refuses the same.
#include "HandMade.h"

using namespace cmstest;
using Recipient = Reader::Recipient;

namespace {

const std::string notDecoded = "a recipient that cannot be decoded";

Bytes messageFor(const Bytes& recipient) {
    return authEnveloped({.recipients = {recipient}, .body = bodyOf(10)});
}

bool decodes(const Bytes& message) {
    const unsigned char* at = message.data();
    const CmsStructure decoded(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(message.size())));
    ERR_clear_error();
    return decoded != nullptr;
}

/// An element of a constructed type, said to be primitive.
Bytes primitive(Bytes element) {
    element.front() &= static_cast<unsigned char>(~0x20U);
    return element;
}

/// A recipient in parts, of which some may be absent.
struct Shape {
    const char* name;
    Recipient::Kind kind;
    unsigned char tag;
    std::vector<Bytes> parts;
    std::vector<std::size_t> optional{};

    [[nodiscard]] Bytes with(std::size_t number, const Bytes& part) const {
        std::vector<Bytes> changed = parts;
        changed[number] = part;
        return der::element(tag, der::concat(changed));
    }
    [[nodiscard]] Bytes sound() const { return der::element(tag, der::concat(parts)); }
};

const Identity& onCurve() {
    static const Identity made = norvauthority::issue({.subject = {{"CN", "curve"}},
                                                       .key = norvauthority::Key::ec(),
                                                       .issuer = &identities().authority,
                                                       .serial = "5ec"});
    return made;
}

const Bytes wrapAlgorithm = der::sequence({der::oid("2.16.840.1.101.3.4.1.5")}); // id-aes128-wrap
const Bytes keyOctets = der::octetString(Bytes(24, 7));

Bytes agreedKey(const std::vector<Bytes>& parts) {
    return der::sequence(parts);
}

const Shape& keyTransport() {
    static const Shape shape{"key transport",
                             Recipient::keyTransport,
                             0x30,
                             {der::integer("0"), nameIn(alice()),
                              der::sequence({der::oid("rsaEncryption"), der::null()}),
                              der::octetString(Bytes(256, 1))}};
    return shape;
}
const Shape& keyEncryptionKey() {
    static const Shape shape{"key-encryption key",
                             Recipient::keyEncryptionKey,
                             0xA2,
                             {der::integer("4"), der::sequence({der::octetString({'k'})}), wrapAlgorithm, keyOctets}};
    return shape;
}
const Shape& password() {
    static const Shape shape{
        "password",
        Recipient::password,
        0xA3,
        {der::integer("0"),
         cmstest::context(0, der::concat({der::oid("1.2.840.113549.1.5.12"),
                                          der::sequence({der::octetString(Bytes(8, 1)), der::integer("0400")})})),
         der::sequence({der::oid("1.2.840.113549.1.9.16.3.9"),
                        der::sequence({der::oid("AES-256-CBC"), der::octetString(Bytes(16, 9))})}),
         keyOctets},
        {1}};
    return shape;
}
const Shape& agreementShape() {
    static const Shape shape{
        "key agreement",
        Recipient::keyAgreement,
        0xA1,
        {der::integer("3"), cmstest::context(0, originatorKey("1.2.840.10045.2.1", publicOctets(onCurve().key.get()))),
         cmstest::context(1, der::octetString({1, 2, 3})), der::sequence({der::oid("1.3.132.1.11.1"), wrapAlgorithm}),
         der::sequence({agreedKey({nameIn(onCurve()), keyOctets})})},
        {2}};
    return shape;
}
std::vector<const Shape*> shapes() {
    return {&keyTransport(), &keyEncryptionKey(), &password(), &agreementShape()};
}

void expectKind(Recipient::Kind kind, const Bytes& recipient) {
    const Bytes message = messageFor(recipient);
    EXPECT_TRUE(decodes(message));
    const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    ASSERT_EQ(reader.recipients().size(), 1U);
    EXPECT_EQ(reader.recipients().front().kind(), kind);
}

void expectNotDecoded(const Bytes& recipient) {
    const Bytes message = messageFor(recipient);
    EXPECT_FALSE(decodes(message));
    Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    ASSERT_EQ(reader.recipients().size(), 1U);
    EXPECT_EQ(reader.recipients().front().kind(), Recipient::other);
    EXPECT_EQ(reader.recipients().front().unsupported(), notDecoded);
    EXPECT_FALSE(reader.open(reader.recipients().front(), pairOf(alice())));
    EXPECT_EQ(reader.unsupported(), notDecoded);
}

} // namespace

TEST(RecipientShapes, EachPartStandsInItsPlace) {
    for (const Shape* shape : shapes()) {
        SCOPED_TRACE(shape->name);
        expectKind(shape->kind, shape->sound());
        expectNotDecoded(primitive(shape->sound()));
        expectNotDecoded(der::element(shape->tag, der::concat({der::concat(shape->parts), der::null()})));
        for (std::size_t part = 0; part < shape->parts.size(); ++part) {
            SCOPED_TRACE(part);
            if (std::ranges::find(shape->optional, part) != shape->optional.end()) {
                expectKind(shape->kind, shape->with(part, {}));
            } else {
                expectNotDecoded(shape->with(part, {}));
            }
        }
    }
}

TEST(RecipientShapes, NamesAreStructures) {
    for (const Bytes& recipient : {keyTransport().with(1, primitive(nameIn(alice()))),
                                   keyEncryptionKey().with(1, primitive(keyEncryptionKey().parts[1])),
                                   password().with(1, primitive(password().parts[1])),
                                   agreementShape().with(1, primitive(agreementShape().parts[1]))}) {
        expectNotDecoded(recipient);
    }
    // A SEQUENCE OF, too, which OpenSSL lets pass.
    const Reader reader(
        Norvane::MemoryMediaIn(bufferOf(messageFor(agreementShape().with(4, primitive(agreementShape().parts[4]))))));
    EXPECT_EQ(reader.recipients().front().unsupported(), notDecoded);
}

TEST(RecipientShapes, KeyIdentifiersHoldADateAndOneAttribute) {
    const Bytes octets = der::octetString({'k'});
    const Bytes date = der::element(0x18, bytesOf("20260101000000Z"));
    const Bytes other = der::sequence({der::oid("1.2.3"), der::null()});
    for (const std::vector<Bytes>& parts :
         {std::vector<Bytes>{octets}, std::vector<Bytes>{octets, date}, std::vector<Bytes>{octets, other},
          std::vector<Bytes>{octets, date, other}}) {
        expectKind(Recipient::keyEncryptionKey, keyEncryptionKey().with(1, der::sequence(parts)));
        expectKind(
            Recipient::keyAgreement,
            agreementShape().with(4, der::sequence({agreedKey({cmstest::context(0, der::concat(parts)), keyOctets})})));
        std::vector<Bytes> more = parts;
        more.push_back(other);
        if (parts.back() == other) {
            expectNotDecoded(keyEncryptionKey().with(1, der::sequence(more)));
        }
        more.back() = octets;
        expectNotDecoded(keyEncryptionKey().with(1, der::sequence(more)));
    }
}

TEST(RecipientShapes, KeysOfAnAgreement) {
    const Bytes name = nameIn(onCurve());
    const Bytes identifier = cmstest::context(0, der::octetString({'k'}));
    const auto with = [](const Bytes& key) { return agreementShape().with(4, der::sequence({key})); };
    expectKind(Recipient::keyAgreement, with(agreedKey({name, keyOctets})));
    expectKind(Recipient::keyAgreement, with(agreedKey({identifier, keyOctets})));
    for (const Bytes& key :
         {der::set({name, keyOctets}), primitive(agreedKey({name, keyOctets})), agreedKey({name}),
          agreedKey({keyOctets}), agreedKey({name, keyOctets, der::null()}), agreedKey({primitive(name), keyOctets}),
          agreedKey({primitive(identifier), keyOctets}), cmstest::context(0, der::concat({name, keyOctets}))}) {
        expectNotDecoded(with(key));
    }
    // What is wrong with one key is nothing to the others.
    const Bytes message = messageFor(agreementShape().with(
        4, der::sequence({agreedKey({identifier, keyOctets}), agreedKey({name}), agreedKey({name, keyOctets})})));
    const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    ASSERT_EQ(reader.recipients().size(), 3U);
    EXPECT_EQ(reader.recipients()[0].identifier()->namedBy(), CMS::NamedBy::subjectKeyIdentifier);
    EXPECT_EQ(reader.recipients()[1].kind(), Recipient::other);
    EXPECT_EQ(reader.recipients()[2].identifier()->namedBy(), CMS::NamedBy::issuerAndSerialNumber);
    EXPECT_TRUE(reader.recipients()[2].identifier()->names(certificateOf(onCurve())));
}

TEST(RecipientShapes, KeyingMaterialIsOneOctetString) {
    const Bytes octets = der::octetString({1});
    for (const Bytes& material :
         {cmstest::context(1, {}), cmstest::context(1, der::null()), cmstest::context(1, der::concat({octets, octets})),
          cmstest::context(1, der::concat({octets, der::null()})), primitive(cmstest::context(1, octets))}) {
        expectNotDecoded(agreementShape().with(2, material));
    }
}

// What the keys of an agreement have in common is decoded for each of them.
TEST(RecipientShapes, WhatKeysHaveInCommonIsBounded) {
    const auto& parts = agreementShape().parts;
    const std::size_t others = parts[3].size() + 2 + 4; // the algorithm, and headers of what is long
    for (const bool inMaterial : {true, false}) {
        for (const int more : {0, 1, 9000}) {
            SCOPED_TRACE(std::to_string(more) + (inMaterial ? " in the material" : ""));
            const std::size_t half = 16384 / 2 - others;
            const Bytes originatorName =
                cmstest::context(0, der::octetString(Bytes(half, 'o'))); // a subject key identifier
            const Bytes originator = cmstest::context(0, originatorName);
            const std::size_t rest = 16384 - parts[3].size() - originatorName.size() + static_cast<std::size_t>(more);
            const Bytes material = cmstest::context(1, der::octetString(Bytes(rest - 4, 'm')));
            const Bytes recipient =
                der::element(0xA1, der::concat({parts[0], originator, material, parts[3], parts[4]}));
            const Reader reader(Norvane::MemoryMediaIn(bufferOf(messageFor(recipient))));
            EXPECT_EQ(reader.recipients().front().kind(), more == 0 ? Recipient::keyAgreement : Recipient::other);
        }
    }
}

TEST(RecipientShapes, AKeyIdentifierInSegmentsIsFound) {
    const Bytes identifier = alice().keyIdentifier;
    const Bytes halves = der::concat({der::octetString(Bytes(identifier.begin(), identifier.begin() + 3)),
                                      der::octetString(Bytes(identifier.begin() + 3, identifier.end()))});
    const Bytes message =
        authEnveloped({.recipients = {der::sequence({der::integer("2"), cmstest::context(0, halves),
                                                     der::sequence({der::oid("rsaEncryption"), der::null()}),
                                                     der::octetString(wrappedFor(alice(), contentKey()))})}});
    expectBody(message, withKeys({&alice()}), bodyOf(1000));
}

TEST(RecipientShapes, AlgorithmsThatDoNotDecodeAreDamage) {
    const Bytes none = der::sequence({der::null()});
    const auto open = [](Reader& reader) -> bool {
        const auto& recipient = reader.recipients().front();
        EXPECT_EQ(recipient.unsupported(), "");
        switch (recipient.kind()) {
        case Recipient::keyEncryptionKey:
            return reader.open(recipient, bufferOf(Bytes(16, 1)));
        case Recipient::password:
            return reader.openWithPassword(recipient, bufferOf(bytesOf("secret")));
        case Recipient::keyAgreement:
            return reader.open(recipient, pairOf(onCurve()));
        default:
            return reader.open(recipient, pairOf(alice()));
        }
    };
    expectDamaged(messageFor(keyTransport().with(2, none)), open, true);
    expectDamaged(messageFor(keyEncryptionKey().with(2, none)), open, true);
    expectDamaged(messageFor(password().with(2, none)), open, true);
    expectDamaged(messageFor(password().with(1, cmstest::context(0, der::null()))), open, true);
    expectDamaged(messageFor(agreementShape().with(3, none)), open, true);
    // Without material.
    Shape without = agreementShape();
    without.parts[2] = {};
    expectDamaged(messageFor(without.with(3, none)), open, true);
}

// OriginatorPublicKey (RFC 5652, 6.2.2): the key opens nothing when there is something else.
TEST(RecipientShapes, TheKeyOfAnOriginator) {
    const auto ephemeral = norvauthority::Key::ec();
    const Bytes point = publicOctets(ephemeral.get());
    const Bytes algorithm = der::sequence({der::oid("1.2.840.10045.2.1")});
    const Bytes bits = der::bitString(point);
    const auto message = [&](const Bytes& originator) {
        AgreementParts parts{.originator = originator};
        const Bytes wrapping = x963(agreedSecret(ephemeral.get(), onCurve().key.get()), sharedInfo(parts, 128), 16);
        parts.keys = {agreedKey({nameIn(onCurve()), der::octetString(aesWrapped(wrapping, contentKey()))})};
        return authEnveloped({.recipients = {agreement(parts)}});
    };
    const Opening open = [](Reader& reader) { return reader.open(reader.recipients().front(), pairOf(onCurve())); };
    const Bytes sound = cmstest::context(1, der::concat({algorithm, bits}));
    expectBody(message(sound), open, bodyOf(1000));
    Bytes unused = bits;
    unused[2] = 1; // bits at the end that do not count
    Bytes inSegments = der::element(0x23, bits);
    for (const Bytes& originator :
         {der::concat({sound, der::null()}), primitive(sound),
          cmstest::context(1, der::concat({algorithm, bits, der::null()})),
          cmstest::context(1, der::concat({der::sequence({der::null()}), bits})), cmstest::context(1, bits),
          cmstest::context(1, algorithm), cmstest::context(1, der::concat({algorithm, unused})),
          cmstest::context(1, der::concat({algorithm, der::element(0x23, der::concat({Bytes{0}, point}))})),
          cmstest::context(1, der::concat({algorithm, inSegments})),
          cmstest::context(1, der::concat({algorithm, {3, 0}})),
          cmstest::context(1, der::concat({algorithm, {3, 1, 0}}))}) {
        expectDamaged(message(originator), open, true);
    }
}

TEST(RecipientShapes, TheirNumberIsBounded) {
    const auto countedBy = [](const Bytes& recipients, std::uint64_t most) {
        // The same message with other octets in the set.
        Bytes message = authEnveloped({.recipients = {recipients}, .body = bodyOf(10)});
        Reader::Budget budget;
        budget.recipients = static_cast<std::uint32_t>(most);
        return outcomeOf(
                   message, From::memory, [](Reader&) { return false; }, budget)
            .text;
    };
    const Bytes one = keyTransport().sound();
    const Bytes broken{0x30, 0x7F};
    const std::string tooMany = "more recipients than 1 (Budget::recipients)";
    EXPECT_EQ(countedBy(one, 1), "");
    EXPECT_EQ(countedBy(der::concat({one, one}), 1), tooMany);
    EXPECT_EQ(countedBy(der::concat({one, one, broken}), 1), tooMany);
    EXPECT_EQ(countedBy(der::concat({one, broken}), 1), noStructureText);
    EXPECT_EQ(countedBy(der::concat({one, broken}), 2), noStructureText);
    const Bytes key = agreedKey({nameIn(onCurve()), keyOctets});
    const auto keys = [](const std::vector<Bytes>& all) { return agreementShape().with(4, der::sequence(all)); };
    EXPECT_EQ(countedBy(keys({key}), 1), "");
    EXPECT_EQ(countedBy(keys({key, key}), 1), tooMany);
    EXPECT_EQ(countedBy(keys({key, key, broken}), 1), tooMany);
    EXPECT_EQ(countedBy(keys({key, broken}), 1), noStructureText);
    EXPECT_EQ(countedBy(keys({key, broken}), 2), noStructureText);
    EXPECT_EQ(countedBy(der::concat({keys({key}), one}), 1), tooMany);
}
