// Key agreements that OpenSSL does not make: several keys in one, and the curves of RFC 7748.
#include "HandMade.h"

using namespace cmstest;

namespace {

norvauthority::Key keyOn(const std::string& type) {
    EVP_PKEY* made = type.starts_with("P-") ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", type.c_str())
                                            : EVP_PKEY_Q_keygen(nullptr, nullptr, type.c_str());
    const norvauthority::Key key = norvauthority::Key::of(made);
    EVP_PKEY_free(made);
    return key;
}
Identity personWith(const std::string& type, const std::string& serial) {
    return norvauthority::issue(
        {.subject = {{"CN", type}}, .key = keyOn(type), .issuer = &identities().authority, .serial = serial});
}
Bytes byIdentifier(const Identity& person) {
    return cmstest::context(0, der::octetString(person.key.identifier()));
}

using Derive = std::function<Bytes(const Bytes& secret, const Bytes& info)>;
Bytes x963For16(const Bytes& secret, const Bytes& info) {
    return x963(secret, info, 16);
}

/// The content key for each person, under one key of the sender's.
Bytes agreementWith(AgreementParts parts, const std::string& type,
                    const std::vector<std::pair<const Identity*, Bytes>>& people, const std::string& algorithm,
                    const Derive& derive = x963For16) {
    const norvauthority::Key sender = keyOn(type);
    parts.originator = originatorKey(algorithm, publicOctets(sender.get()));
    for (const auto& [person, name] : people) {
        const Bytes wrapping = derive(agreedSecret(sender.get(), person->key.get()), sharedInfo(parts, 128));
        parts.keys.push_back(der::sequence({name, der::octetString(aesWrapped(wrapping, contentKey()))}));
    }
    return agreement(parts);
}

constexpr const char* ecPublicKey = "1.2.840.10045.2.1";

} // namespace

TEST(EnvelopeAgreement, SeveralKeysUnderOneOfTheSenders) {
    const Identity one = personWith("P-256", "101");
    const Identity two = personWith("P-256", "102");
    const Identity three = personWith("P-256", "103");
    for (const Bytes& material : {Bytes(), bytesOf(std::string("material"))}) {
        const AuthParts parts{
            .recipients = {agreementWith({.material = material}, "P-256",
                                         {{&one, nameIn(one)}, {&two, byIdentifier(two)}, {&three, nameIn(three)}},
                                         ecPublicKey)}};
        const Bytes message = authEnveloped(parts);
        for (const Identity* person : {&one, &two, &three}) {
            expectBody(message, withKeys({person}), parts.body);
        }
        EXPECT_FALSE(outcomeOf(message, From::memory, withKeys({&alice()})).opened);
        const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
        ASSERT_EQ(reader.recipients().size(), 3U);
        EXPECT_TRUE(reader.recipients()[1].identifier()->names(certificateOf(two)));
        EXPECT_FALSE(reader.recipients()[1].identifier()->names(certificateOf(one)));
    }
}

TEST(EnvelopeAgreement, CurvesOfRfc7748) {
    const struct {
        const char* type;
        const char* algorithm;
    } curves[] = {{"X25519", "1.3.101.110"}, {"X448", "1.3.101.111"}};
    for (const auto& curve : curves) {
        const Identity person = personWith(curve.type, "111");
        const auto opens = [&](const std::string& scheme, const Derive& derive) {
            SCOPED_TRACE(scheme);
            const AuthParts parts{.recipients = {agreementWith({.scheme = scheme}, curve.type,
                                                               {{&person, nameIn(person)}}, curve.algorithm, derive)}};
            expectBody(authEnveloped(parts), withKeys({&alice(), &person}), parts.body);
            expectDamaged(
                authEnveloped(parts),
                [&](Reader& reader) {
                    return reader.open(reader.recipients().front(), pairOf(personWith(curve.type, "112")));
                },
                true);
        };
        opens("1.3.132.1.11.1", x963For16);
        const struct {
            const char* scheme;
            const EVP_MD* digest;
        } derivations[] = {{"1.2.840.113549.1.9.16.3.19", EVP_sha256()},
                           {"1.2.840.113549.1.9.16.3.20", EVP_sha384()},
                           {"1.2.840.113549.1.9.16.3.21", EVP_sha512()}};
        for (const auto& derivation : derivations) {
            opens(derivation.scheme,
                  [&](const Bytes& secret, const Bytes& info) { return hkdf(derivation.digest, secret, info, 16); });
        }
    }
}

/// Both ways to derive a key take it (RFC 5753, 7.2; RFC 8418, 2.2), up to the bound on what stands beside the keys.
TEST(EnvelopeAgreement, LongUserKeyingMaterial) {
    for (const std::size_t length : {1U, 2048U, 5000U, 16000U}) {
        SCOPED_TRACE(length);
        const Bytes material(length, 0x5A);
        const Identity onCurve = personWith("P-256", "101");
        const AuthParts x963{
            .recipients = {agreementWith({.material = material}, "P-256", {{&onCurve, nameIn(onCurve)}}, ecPublicKey)}};
        expectBody(authEnveloped(x963), withKeys({&onCurve}), x963.body);
        const Identity person = personWith("X25519", "111");
        const auto derive = [](const Bytes& secret, const Bytes& info) { return hkdf(EVP_sha256(), secret, info, 16); };
        const AuthParts parts{
            .recipients = {agreementWith({.scheme = "1.2.840.113549.1.9.16.3.19", .material = material}, "X25519",
                                         {{&person, nameIn(person)}}, "1.3.101.110", derive)}};
        expectBody(authEnveloped(parts), withKeys({&person}), parts.body);
    }
}

TEST(EnvelopeAgreement, WhatIsNotSupportedIsNamed) {
    const Identity person = personWith("P-256", "101");
    const auto expectUnsupported = [&](const Bytes& recipient, const std::string& name) {
        const Bytes message = authEnveloped({.recipients = {recipient}});
        for (const From from : {From::memory, From::stream}) {
            const Outcome outcome = outcomeOf(message, from, withKeys({&person}));
            EXPECT_FALSE(outcome.opened);
            EXPECT_EQ(outcome.verdict, Reader::Unsupported);
            EXPECT_EQ(outcome.unsupported, name);
        }
        const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
        EXPECT_EQ(reader.recipients().front().unsupported(), name);
    };
    const auto with = [&](const AgreementParts& parts) {
        return agreementWith(parts, "P-256", {{&person, nameIn(person)}}, ecPublicKey);
    };
    expectUnsupported(with({.scheme = "1.2.3.4"}), "1.2.3.4");
    expectUnsupported(with({.scheme = "1.3.132.1.15.1"}), "1.3.132.1.15.1");
    expectUnsupported(with({.wrap = der::sequence({der::oid("1.2.3.5")})}), "1.2.3.5");
    expectUnsupported(with({.wrap = der::sequence({der::oid("AES-128-CBC")})}), "AES-128-CBC (2.16.840.1.101.3.4.1.2)");
    const Bytes key = der::sequence({nameIn(person), der::octetString(Bytes(24, 1))});
    for (const Bytes& originator :
         {nameIn(person), cmstest::context(0, Bytes(4, 1)), der::element(0x80, Bytes(4, 1))}) {
        expectUnsupported(agreement({.originator = originator, .keys = {key}}),
                          "key agreement with an originator's key that is not in the message");
    }
    expectUnsupported(
        agreement({.originator = originatorKey(ecPublicKey, Bytes(65, 4), der::sequence({der::integer("1")})),
                   .keys = {key}}),
        "explicit elliptic curve parameters");
    expectUnsupported(agreement({.originator = originatorKey("1.2.840.10046.2.1", Bytes(65, 4)), .keys = {key}}),
                      "dhpublicnumber (1.2.840.10046.2.1)");
}

TEST(EnvelopeAgreement, WhatIsNotSupportedIsNamedWhateverTheKeyIs) {
    // Who has a key for an agreement that is unknown here has one of a kind that agrees to nothing here.
    const Identity person = personWith("ED25519", "113");
    const Bytes key = der::sequence({nameIn(person), der::octetString(Bytes(24, 1))});
    const Bytes originator = originatorKey("1.2.840.10046.2.1", Bytes(65, 4));
    const Bytes message =
        authEnveloped({.recipients = {agreement(
                           {.scheme = "1.2.840.113549.1.9.16.3.5", .originator = originator, .keys = {key, key}})}});
    const Outcome outcome = outcomeOf(message, From::memory, withKeys({&person}));
    EXPECT_FALSE(outcome.opened);
    EXPECT_EQ(outcome.verdict, Reader::Unsupported);
    EXPECT_EQ(outcome.unsupported, "id-smime-alg-ESDH (1.2.840.113549.1.9.16.3.5)");
}

TEST(EnvelopeAgreement, KeysOfTheSenderThatAreNone) {
    const Identity person = personWith("P-256", "101");
    const norvauthority::Key other = keyOn("P-384");
    Bytes offCurve = publicOctets(keyOn("P-256").get());
    offCurve.back() ^= 1;
    const Bytes key = der::sequence({nameIn(person), der::octetString(Bytes(24, 1))});
    const Bytes point = publicOctets(keyOn("P-256").get());
    for (const Bytes& originator :
         {originatorKey(ecPublicKey, {0}), originatorKey(ecPublicKey, offCurve), originatorKey(ecPublicKey, Bytes()),
          originatorKey(ecPublicKey, publicOctets(other.get())), originatorKey(ecPublicKey, Bytes(5000, 4)),
          originatorKey(ecPublicKey, point, der::oid("1.3.132.0.34")),
          originatorKey(ecPublicKey, point, der::octetString({1})), originatorKey("1.3.101.110", Bytes(32, 9)),
          cmstest::context(1, Bytes(6, 0x30))}) {
        expectDamaged(authEnveloped({.recipients = {agreement({.originator = originator, .keys = {key}})}}),
                      withKeys({&person}), true);
    }
}

// One that was put in by somebody else, or for another key of the same name, does not hide the right one.
TEST(EnvelopeAgreement, AKeyThatDoesNotOpenIsPassed) {
    const Identity person = personWith("P-256", "101");
    const Bytes good = agreementWith({}, "P-256", {{&person, nameIn(person)}}, ecPublicKey);
    const Bytes bad = agreement({.originator = originatorKey(ecPublicKey, publicOctets(keyOn("P-256").get())),
                                 .keys = {der::sequence({nameIn(person), der::octetString(Bytes(24, 1))})}});
    const AuthParts parts{.recipients = {bad, bad, good}};
    expectBody(authEnveloped(parts), withKeys({&person}), parts.body);
}
