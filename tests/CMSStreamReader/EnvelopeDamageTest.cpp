// Damaged messages: one text for all of it, and nothing that looks sound.
#include "HandMade.h"
#include "support/HostileDer.h"

#include <algorithm>

using namespace cmstest;

namespace {

struct Message {
    const char* name;
    Bytes bytes;
    Opening open;
    bool authenticated;
};

const Identity& onCurve() {
    static const Identity made = norvauthority::issue({.subject = {{"CN", "curve"}},
                                                       .key = norvauthority::Key::ec(),
                                                       .issuer = &identities().authority,
                                                       .serial = "ec"});
    return made;
}

/// Short ones of many kinds.
std::vector<Message> messages() {
    std::vector<Message> all;
    const Bytes body = bodyOf(40);
    for (const unsigned int flags : {0U, static_cast<unsigned int>(CMS_STREAM)}) {
        for (const EVP_CIPHER* cipher : {EVP_aes_128_cbc(), EVP_aes_128_gcm()}) {
            const bool authenticated = EVP_CIPHER_get_mode(cipher) == EVP_CIPH_GCM_MODE;
            all.push_back({"RSA", madeByOpenssl(cipher, toCertificate(alice()), flags, body), withKeys({&alice()}),
                           authenticated});
            all.push_back({"ECDH", madeByOpenssl(cipher, toCertificate(onCurve()), flags, body), withKeys({&onCurve()}),
                           authenticated});
            if (flags != 0) {
                continue;
            }
            all.push_back({"OAEP",
                           madeByOpenssl(cipher, toCertificate(alice(), CMS_USE_KEYID, {{"rsa_padding_mode", "oaep"}}),
                                         flags, body),
                           withKeys({&alice()}), authenticated});
            all.push_back(
                {"KEK", madeByOpenssl(cipher, addSecretKey, flags, body), withSecretKey(Bytes(32, 1)), authenticated});
        }
        all.push_back(
            {"password", madeByOpenssl(EVP_aes_128_cbc(), addPassword, flags, body), withPassword("secret"), false});
    }
    AuthParts parts{.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}, .body = body};
    parts.attributes = contentTypeAttribute("1.2.840.113549.1.7.1");
    parts.behind = cmstest::context(2, attribute("1.2.3.4", der::octetString({1})));
    parts.inPieces = true;
    all.push_back({"attributes", authEnveloped(parts), withKeys({&alice()}), true});
    return all;
}

/// What everybody can see: the frame is none, the type or an algorithm is another one, or the recipient has another name.
bool isVisible(const Outcome& outcome) {
    return outcome.text == noStructureText || outcome.text.starts_with("the structure is of another type: ") ||
           (outcome.constructed && !outcome.opened && outcome.verdict == Reader::Unsupported &&
            !outcome.unsupported.empty()) ||
           (outcome.constructed && !outcome.opened && outcome.verdict == Reader::Unopened) ||
           outcome.text.find("(Budget::") != std::string::npos;
}

} // namespace

TEST(EnvelopeDamage, CutAnywhere) {
    for (const Message& message : messages()) {
        SCOPED_TRACE(message.name);
        expectBody(message.bytes, message.open, bodyOf(40));
        for (const Bytes& prefix : norvtest::properPrefixes(message.bytes)) {
            SCOPED_TRACE(prefix.size());
            for (const From from : {From::memory, From::stream}) {
                const Outcome outcome = outcomeOf(prefix, from, message.open);
                EXPECT_EQ(outcome.text, outcome.constructed ? damagedText : noStructureText);
                EXPECT_EQ(outcome.verdict, outcome.constructed ? Reader::Damaged : Reader::Unopened);
                EXPECT_TRUE(!message.authenticated || outcome.body.empty());
            }
        }
    }
}

TEST(EnvelopeDamage, OneOctetAnywhere) {
    for (const Message& message : messages()) {
        SCOPED_TRACE(message.name);
        std::size_t damaged = 0;
        std::size_t same = 0;
        for (std::size_t at = 0; at < message.bytes.size(); ++at) {
            SCOPED_TRACE(at);
            Bytes altered = message.bytes;
            altered[at] ^= static_cast<unsigned char>(1U << (at % 8));
            const Outcome outcome = outcomeOf(altered, at % 4 == 0 ? From::stream : From::memory, message.open);
            if (outcome.verdict == Reader::Complete) {
                EXPECT_TRUE(!message.authenticated || outcome.body == bodyOf(40));
            } else if (outcome.opened) {
                EXPECT_EQ(outcome.text, damagedText);
                EXPECT_EQ(outcome.verdict, Reader::Damaged);
                EXPECT_TRUE(!message.authenticated || outcome.body.empty());
            } else {
                EXPECT_TRUE(isVisible(outcome)) << outcome.text;
            }
            damaged += outcome.verdict == Reader::Damaged ? 1U : 0U;
            same += outcome.verdict == Reader::Complete && outcome.body == bodyOf(40) ? 1U : 0U;
        }
        // Encrypted keys, tags and content are most of it; versions, attributes that nothing protects and dates are not.
        EXPECT_GT(damaged, message.bytes.size() / 8);
        EXPECT_LT(same, message.bytes.size() / 4);
    }
}

TEST(EnvelopeDamage, WrongKeysLookLikeDamage) {
    const auto choosing = [](const Identity& person) -> Opening {
        return [&person](Reader& reader) { return reader.open(reader.recipients().front(), pairOf(person)); };
    };
    std::size_t damaged = 0;
    for (int turn = 0; turn < 50; ++turn) {
        const Bytes message = madeByOpenssl(EVP_aes_256_cbc(), toCertificate(alice()));
        const Outcome outcome = outcomeOf(message, From::memory, choosing(bob()));
        EXPECT_TRUE(outcome.opened);
        EXPECT_NE(outcome.body, bodyOf(1000));
        damaged += outcome.text == damagedText && outcome.verdict == Reader::Damaged ? 1U : 0U;
    }
    EXPECT_GE(damaged, 45U); // one in 256 has a padding that looks right
    expectDamaged(madeByOpenssl(EVP_aes_256_gcm(), toCertificate(alice())), choosing(bob()), true);
}

// The content is decrypted under a random key then, whose last octets look like a padding one time in 256.
TEST(EnvelopeDamage, WhatCertainlyDidNotOpenIsNeverASuccess) {
    const auto of = [](const Identity& person) -> Opening {
        return [&person](Reader& reader) { return reader.open(reader.recipients().front(), pairOf(person)); };
    };
    static const Identity other = norvauthority::issue({.subject = {{"CN", "other"}},
                                                        .key = norvauthority::Key::ec(),
                                                        .issuer = &identities().authority,
                                                        .serial = "ec2"});
    const auto made = [](const AddRecipients& add) { return madeByOpenssl(EVP_aes_128_cbc(), add, 0, bodyOf(40)); };
    const auto oaep = toCertificate(alice(), CMS_USE_KEYID, {{"rsa_padding_mode", "oaep"}});
    Bytes changed = made(oaep);
    const auto wrapped = std::ranges::search(changed, Bytes{0x04, 0x82, 0x01, 0x00}); // 256 octets
    ASSERT_FALSE(wrapped.empty());
    wrapped.begin()[100] ^= 1U;
    // A content key that opens, and that the cipher does not take.
    const Bytes odd =
        envelope({.recipients = {context(2, der::concat({der::integer("4"), der::sequence({der::octetString({1})}),
                                                         der::sequence({der::oid("2.16.840.1.101.3.4.1.45")}),
                                                         der::octetString(aesWrapped(Bytes(32, 1), Bytes(24, 2)))}))},
                  .content = contentElement(encryptedContent(bodyOf(40)))});
    struct Case {
        const char* name;
        Bytes message;
        Opening wrong;
        int turns; ///< as many as the work for the key allows
    };
    const std::vector<Case> cases{
        {"KEK", made(addSecretKey), withSecretKey(Bytes(32, 2)), 4000},
        {"KEK of another length", made(addSecretKey), withSecretKey(Bytes(16, 1)), 4000},
        {"password", made(addPassword), withPassword("Secret"), 1000},
        {"ECDH", made(toCertificate(onCurve())), of(other), 1000},
        {"OAEP", made(oaep), of(bob()), 500},
        {"OAEP, changed", changed, withKeys({&alice()}), 1000},
        {"a content key of another length", odd, withSecretKey(Bytes(32, 1)), 4000},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        for (int turn = 0; turn != one.turns; ++turn) {
            const Outcome outcome = outcomeOf(one.message, From::memory, one.wrong);
            ASSERT_TRUE(outcome.opened);
            ASSERT_EQ(outcome.verdict, Reader::Damaged) << turn;
            ASSERT_EQ(outcome.text, damagedText);
        }
    }
}

TEST(EnvelopeDamage, TheWorkOfABrokenKeyIsDoneOnTheContent) {
    // A random key takes the place of one that does not open: what comes out is different each time.
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), Bytes(256, 1))},
                                    .content = contentElement(encryptedContent(bodyOf(1000)))});
    std::set<Bytes> bodies;
    for (int turn = 0; turn < 5; ++turn) {
        const Outcome outcome = outcomeOf(message, From::memory, withKeys({&alice()}));
        EXPECT_GT(outcome.body.size(), 900U);
        bodies.insert(outcome.body);
    }
    EXPECT_EQ(bodies.size(), 5U);
}

TEST(EnvelopeDamage, CiphersWithoutPaddingTakeNoOtherKey) {
    const auto with = [](const Bytes& wrapped, const Bytes& cipher) {
        return envelope({.recipients = {recipientInfo(alice(), wrapped)},
                         .cipher = cipher,
                         .content = contentElement(bodyOf(1000))});
    };
    const Bytes cfb = der::sequence({der::oid("AES-128-CFB"), der::octetString(Bytes(16, 1))});
    EXPECT_EQ(outcomeOf(with(wrappedFor(alice(), contentKey()), cfb), From::memory, withKeys({&alice()})).verdict,
              Reader::Complete);
    expectDamaged(with(wrappedFor(alice(), Bytes(15, 1)), cfb), withKeys({&alice()}), false);
    expectDamaged(with(Bytes(256, 1), cfb), withKeys({&alice()}), false);
    for (const Bytes& parameters : {Bytes(), der::null(), der::octetString(Bytes(15, 1))}) {
        const Outcome outcome =
            outcomeOf(with(wrappedFor(alice(), contentKey()), der::sequence({der::oid("AES-128-CBC"), parameters})),
                      From::memory, withKeys({&alice()}));
        EXPECT_EQ(outcome.text, noStructureText);
    }
}

// RFC 2268, 6: every length has a number, of which OpenSSL takes three.
TEST(EnvelopeDamage, Rc2OfAnotherEffectiveKeyLengthIsUnsupported) {
    const auto withParameters = [](const Bytes& parameters) {
        return outcomeOf(envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                   .cipher = der::sequence({der::oid("RC2-CBC"), parameters}),
                                   .content = contentElement(bodyOf(63))}),
                         From::memory, withKeys({&alice()}));
    };
    const auto with = [&](const char* version, std::size_t vectorLength) {
        return withParameters(der::sequence({der::integer(version), der::octetString(Bytes(vectorLength, 1))}));
    };
    for (const char* version : {"34", "0100"}) {
        const Outcome outcome = with(version, 8);
        EXPECT_EQ(outcome.verdict, Reader::Unsupported);
        EXPECT_EQ(outcome.unsupported, "RC2-CBC (1.2.840.113549.3.2) with another effective key length");
    }
    EXPECT_EQ(with("3a", 8).text, damagedText);
    EXPECT_EQ(with("34", 7).text, noStructureText);
    const Bytes number = der::integer("34");
    const Bytes vector = der::octetString(Bytes(8, 1));
    for (const Bytes& parameters :
         {der::sequence({}), der::sequence({number}), der::sequence({vector}), der::sequence({number, vector, number}),
          der::sequence({der::integer("0100000000"), vector}), der::sequence({number, der::element(0x24, vector)}),
          der::sequence({number, der::element(0x24, Bytes(8, 0))}), der::set({number, vector}), vector}) {
        const Outcome outcome = withParameters(parameters);
        EXPECT_NE(outcome.verdict, Reader::Unsupported) << norvauthority::toHex(parameters);
        EXPECT_NE(outcome.text, "") << norvauthority::toHex(parameters);
    }
}

// RFC 3058, 2.1; OpenSSL itself puts the vector there alone.
TEST(EnvelopeDamage, IdeaWithItsVectorInASequence) {
    const Bytes body = bodyOf(5003);
    const Bytes content = encryptedContent(body, Crypto::initializeCipher(Crypto::IDEA_CBC));
    const auto with = [&content](const Bytes& parameters) {
        return outcomeOf(envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                   .cipher = der::sequence({der::oid("IDEA-CBC"), parameters}),
                                   .content = contentElement(content)}),
                         From::memory, withKeys({&alice()}));
    };
    const Bytes vector = der::octetString(Bytes(8, 0xA5));
    for (const Bytes& parameters : {der::sequence({vector}), vector}) {
        const Outcome outcome = with(parameters);
        EXPECT_EQ(outcome.verdict, Reader::Complete) << outcome.text << outcome.unsupported;
        EXPECT_TRUE(outcome.body == body);
    }
    const Outcome without = with(der::sequence({}));
    EXPECT_EQ(without.verdict, Reader::Unsupported);
    EXPECT_EQ(without.unsupported, "IDEA-CBC (1.3.6.1.4.1.188.7.1.1.2) without an initialization vector");
    for (const Bytes& parameters :
         {der::sequence({der::octetString(Bytes(7, 0xA5))}), der::sequence({der::octetString(Bytes(9, 0xA5))}),
          der::sequence({vector, vector}), der::sequence({der::null()}), der::sequence({der::sequence({vector})}),
          der::sequence({der::element(0x24, vector)}), der::sequence({vector, der::null()})}) {
        EXPECT_EQ(with(parameters).text, noStructureText);
    }
}

// Whether PKCS#1 1.5 gave a content key of some odd length is told no more than whether it gave one.
TEST(EnvelopeDamage, ContentKeysOfAnyLengthLookLikeDamage) {
    for (const char* cipher : {"BF-CBC", "RC2-CBC", "CAST5-CBC", "AES-128-CBC", "AES-128-CFB", "DES-EDE3-CBC", "RC4"}) {
        for (const std::size_t length : {0U, 1U, 5U, 15U, 17U, 57U, 73U, 129U, 200U, 245U}) {
            SCOPED_TRACE(std::string(cipher) + " " + std::to_string(length));
            const std::string name = cipher;
            const Bytes vector = der::octetString(Bytes(name.starts_with("AES") ? 16 : 8, 1));
            const Bytes parameters = name == "RC2-CBC" ? der::sequence({der::integer("3a"), vector})
                                     : name == "RC4"   ? Bytes()
                                                       : vector;
            const Bytes message =
                envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), Bytes(length, 1)))},
                          .cipher = der::sequence({der::oid(cipher), parameters}),
                          .content = contentElement(bodyOf(64))});
            const Outcome outcome = outcomeOf(message, From::memory, withKeys({&alice()}));
            EXPECT_TRUE(outcome.opened) << outcome.text << outcome.unsupported;
            EXPECT_TRUE(outcome.verdict == Reader::Complete || outcome.text == damagedText) << outcome.text;
        }
    }
}

TEST(EnvelopeDamage, StaysDamaged) {
    Bytes message = madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice()), 0, bodyOf(100000));
    message.resize(message.size() - 20);
    Reader reader(PiecewiseIn(message, 1000));
    ASSERT_TRUE(withKeys({&alice()})(reader));
    Norvane::MemoryMediaOut out;
    for (int turn = 0; turn < 3; ++turn) {
        try {
            reader.write(out);
            ADD_FAILURE();
        } catch (const Norvane::Exception& thrown) {
            EXPECT_EQ(textOf(thrown), damagedText);
        }
        EXPECT_EQ(reader.verdict(), Reader::Damaged);
    }
    EXPECT_GT(out.content().length(), 60000U); // unauthenticated content is out by then
    EXPECT_THROW(static_cast<void>(reader.atEnd()), Norvane::Exception);
    EXPECT_THROW(static_cast<void>(reader.peek()), Norvane::Exception);
}

TEST(EnvelopeDamage, AbsentContent) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}});
    const Outcome outcome = outcomeOf(message, From::stream, withKeys({&alice()}));
    EXPECT_EQ(outcome.text, "the message carries no encrypted content");
    EXPECT_EQ(outcome.verdict, Reader::Unopened);
    EXPECT_FALSE(Reader(Norvane::MemoryMediaIn(bufferOf(message))).hasContent());
}

TEST(EnvelopeDamage, OtherStructuresAreNamed) {
    const Outcome outcome =
        outcomeOf(signedByOpenssl(alice(), bodyOf(100), "SHA256", 0), From::memory, withKeys({&alice()}));
    EXPECT_EQ(outcome.text, "the structure is of another type: pkcs7-signedData (1.2.840.113549.1.7.2)");
    for (const std::string& text :
         {std::string(), std::string("0"), std::string("no structure"), std::string("0\x80")}) {
        EXPECT_EQ(outcomeOf(bytesOf(text), From::stream, withKeys({&alice()})).text, noStructureText) << text;
    }
    for (const char* huge : norvtest::hugeHeaders) {
        EXPECT_EQ(outcomeOf(norvauthority::fromHex(huge), From::stream, withKeys({&alice()})).text, noStructureText)
            << huge;
    }
}

TEST(EnvelopeDamage, WhatSourcesAndTargetsThrowPassesUnchanged) {
    const Bytes message = madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice()), 0, bodyOf(100000));
    EXPECT_THROW(Reader(PiecewiseIn(message, 10, 100)), std::runtime_error);
    Reader broken(PiecewiseIn(message, 1000, 50000));
    ASSERT_TRUE(withKeys({&alice()})(broken));
    Norvane::NullMediaOut nowhere;
    EXPECT_THROW(broken.write(nowhere), std::runtime_error);
    EXPECT_EQ(broken.verdict(), Reader::Damaged);
    Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    ASSERT_TRUE(withKeys({&alice()})(reader));
    FailingOut full(false);
    EXPECT_THROW(reader.write(full), std::runtime_error);
    EXPECT_EQ(reader.verdict(), Reader::Running);
    Norvane::MemoryMediaOut out;
    reader.write(out); // what the target did not take is still there
    EXPECT_TRUE(bytesOf(out.content()) == bodyOf(100000));
}

TEST(EnvelopeDamage, IsReadInOrder) {
    const Bytes message = madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice()));
    Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    const auto textFrom = [](const std::function<void()>& call) {
        try {
            call();
        } catch (const Norvane::Exception& thrown) {
            return textOf(thrown);
        }
        return std::string();
    };
    EXPECT_EQ(textFrom([&] { static_cast<void>(reader.peek()); }), "no key was chosen");
    EXPECT_FALSE(withKeys({&bob()})(reader));
    EXPECT_TRUE(withKeys({&alice()})(reader));
    EXPECT_EQ(textFrom([&] { withKeys({&alice()})(reader); }), "a key was chosen before");
    EXPECT_EQ(reader.read(nullptr, 0), 0);
}
