// AuthEnvelopedData: what is authentic, and that nothing else gets out.
#include "HandMade.h"

#include <filesystem>

using namespace cmstest;

namespace {

Bytes toAlice() {
    return recipientInfo(alice(), wrappedFor(alice(), contentKey()));
}
AuthParts forAlice() {
    return {.recipients = {toAlice()}};
}
void expectOpens(const AuthParts& parts) {
    expectBody(authEnveloped(parts), withKeys({&alice()}), parts.body);
}
void expectDamaged(const AuthParts& parts) {
    cmstest::expectDamaged(authEnveloped(parts), withKeys({&alice()}), true);
}
void expectNoStructure(const AuthParts& parts) {
    for (const From from : {From::memory, From::stream}) {
        const Outcome outcome = outcomeOf(authEnveloped(parts), from, withKeys({&alice()}));
        EXPECT_FALSE(outcome.constructed);
        EXPECT_EQ(outcome.text, noStructureText);
    }
}
void expectUnsupported(const Bytes& message, const std::string& name) {
    for (const From from : {From::memory, From::stream}) {
        const Outcome outcome = outcomeOf(message, from, withKeys({&alice()}));
        EXPECT_TRUE(outcome.constructed) << outcome.text;
        EXPECT_FALSE(outcome.opened);
        EXPECT_EQ(outcome.verdict, Reader::Unsupported);
        EXPECT_EQ(outcome.unsupported, name);
    }
}

} // namespace

TEST(EnvelopeAuthenticated, ContentOfEveryLength) {
    for (const std::size_t length : {0U, 1U, 16U, 65535U, 65536U, 65537U, 65552U, 200000U}) {
        for (const bool inPieces : {false, true}) {
            SCOPED_TRACE(length);
            AuthParts parts = forAlice();
            parts.body = bodyOf(length);
            parts.inPieces = inPieces;
            expectOpens(parts);
        }
    }
}

TEST(EnvelopeAuthenticated, TagsOfTwelveToSixteenOctets) {
    for (std::size_t length = 12; length <= 16; ++length) {
        AuthParts parts = forAlice();
        parts.tagLength = length;
        expectOpens(parts);
        for (std::size_t sent = 1; sent <= 16; ++sent) {
            if (sent != length) {
                parts.tagSent = sent;
                expectDamaged(parts);
            }
        }
    }
    for (const char* announced : {"00", "01", "04", "08", "0b", "11", "20", "7f", "0100", "-0c", "000000000c"}) {
        AuthParts parts = forAlice();
        parts.parameters = gcmParameters(parts.nonce, announced);
        if (std::string(announced) != "000000000c") {
            expectNoStructure(parts);
        }
    }
}

TEST(EnvelopeAuthenticated, NoncesOfOneToAHundredAndTwentyEightOctets) {
    for (const std::size_t length : {1U, 8U, 12U, 13U, 16U, 128U}) {
        for (const std::size_t body : {1000U, 100000U}) {
            AuthParts parts = forAlice();
            parts.nonce = Bytes(length, 0x44);
            parts.body = bodyOf(body);
            expectOpens(parts);
        }
    }
    AuthParts parts = forAlice();
    parts.parameters = gcmParameters(Bytes(), "");
    expectNoStructure(parts);
    for (const std::size_t length : {129U, 1000U}) { // of any length by NIST SP 800-38D, 5.2.1.1
        parts.parameters = gcmParameters(Bytes(length, 0x44), "");
        for (const From from : {From::memory, From::stream}) {
            const Outcome outcome = outcomeOf(authEnveloped(parts), from, withKeys({&alice()}));
            EXPECT_FALSE(outcome.opened);
            EXPECT_EQ(outcome.verdict, Reader::Unsupported);
            EXPECT_EQ(outcome.unsupported,
                      "id-aes128-GCM (2.16.840.1.101.3.4.1.6) with a nonce of " + std::to_string(length) + " octets");
        }
    }
}

TEST(EnvelopeAuthenticated, ParametersThatAreNone) {
    for (const Bytes& parameters :
         {Bytes(), der::null(), der::octetString(Bytes(12, 1)), der::sequence({}), der::sequence({der::integer("0c")}),
          der::sequence({der::octetString(Bytes(12, 1)), der::integer("0c"), der::null()})}) {
        AuthParts parts = forAlice();
        parts.parameters = parameters;
        expectNoStructure(parts);
    }
}

TEST(EnvelopeAuthenticated, ChaCha20AndPoly1305) {
    for (const std::size_t length : {0U, 1000U, 65537U, 200000U}) {
        const Bytes key(32, 0x21);
        AuthParts parts{.recipients = {recipientInfo(alice(), wrappedFor(alice(), key))},
                        .body = bodyOf(length),
                        .key = key,
                        .cipher = EVP_chacha20_poly1305(),
                        .algorithm = "1.2.840.113549.1.9.16.3.18",
                        .tagLength = 16,
                        .parameters = der::octetString(Bytes(12, 0x33))};
        expectOpens(parts);
        parts.tagSent = 12;
        expectDamaged(parts);
        parts.tagSent = 0;
        for (const Bytes& parameters : {Bytes(), der::octetString(Bytes(11, 0x33)), gcmParameters(parts.nonce, "10")}) {
            parts.parameters = parameters;
            expectNoStructure(parts);
        }
    }
}

TEST(EnvelopeAuthenticated, AttributesBehindTheContent) {
    const std::string data = "1.2.840.113549.1.7.1";
    const Bytes both = der::concat({contentTypeAttribute(data), attribute("1.2.3.4", der::octetString({1, 2}))});
    for (const std::size_t length : {0U, 1000U, 100000U}) {
        AuthParts parts = forAlice();
        parts.body = bodyOf(length);
        parts.attributes = both;
        expectOpens(parts);
        // Of indefinite length: what is authenticated is the DER of it.
        Bytes indefinite{0xA1, 0x80};
        der::append(indefinite, both);
        der::append(indefinite, {0, 0});
        parts.sentAttributes = indefinite;
        expectOpens(parts);
        Bytes altered = both;
        altered.back() ^= 1;
        parts.sentAttributes = cmstest::context(1, altered);
        expectDamaged(parts);
        parts.sentAttributes = Bytes();
        expectDamaged(parts);
    }
}

TEST(EnvelopeAuthenticated, TheTypeOfTheContentIsAuthentic) {
    const std::string data = "1.2.840.113549.1.7.1";
    const std::string signedData = "1.2.840.113549.1.7.2";
    AuthParts parts = forAlice();
    parts.contentType = signedData;
    expectDamaged(parts);
    parts.attributes = contentTypeAttribute(data);
    expectDamaged(parts);
    parts.attributes = contentTypeAttribute(signedData);
    expectOpens(parts);
    EXPECT_EQ(Reader(Norvane::MemoryMediaIn(bufferOf(authEnveloped(parts)))).contentType(), signedData);
    for (const Bytes& odd : {attribute("1.2.3.4", der::octetString({1})),
                             der::concat({contentTypeAttribute(signedData), contentTypeAttribute(signedData)}),
                             der::sequence({der::oid("1.2.840.113549.1.9.3"),
                                            der::element(0x31, der::concat({der::oid(signedData), der::oid(data)}))}),
                             der::sequence({der::oid("1.2.840.113549.1.9.3"), der::element(0x31, Bytes())}),
                             der::sequence({der::oid("1.2.840.113549.1.9.3")}), der::octetString({1}), Bytes()}) {
        parts.attributes = odd;
        expectDamaged(parts);
    }
}

/// RFC 5652, 5.3: an attribute is a type and a set of values. Whoever encrypts authenticates what he likes.
TEST(EnvelopeAuthenticated, WhatIsNoAttributeIsRefused) {
    const Bytes named = contentTypeAttribute("1.2.840.113549.1.7.1");
    AuthParts parts = forAlice();
    parts.attributes = named;
    expectOpens(parts);
    for (const Bytes& odd : {der::sequence({}), der::sequence({der::integer("01"), der::element(0x31, der::null())}),
                             der::sequence({der::element(0x31, der::null())})}) {
        parts.attributes = odd;
        expectDamaged(parts);
        parts.attributes = der::concat({named, odd});
        expectDamaged(parts);
    }
}

/// Attributes that are none were not left out: a tag that is made without them does not make the message authentic.
TEST(EnvelopeAuthenticated, AttributesThatTheTagLeavesOutAreRefused) {
    for (const Bytes& odd : {der::octetString({1}), der::sequence({}), contentTypeAttribute("1.2.840.113549.1.7.2")}) {
        AuthParts parts = forAlice();
        parts.unauthentic = cmstest::context(1, odd);
        expectDamaged(parts);
    }
}

TEST(EnvelopeAuthenticated, NothingGetsOutOfADamagedMessage) {
    for (const std::size_t length : {1000U, 300000U}) {
        AuthParts parts = forAlice();
        parts.body = bodyOf(length);
        const Bytes message = authEnveloped(parts);
        for (const std::size_t fromEnd : {1U, 11U, 15U, 16U, 200U, 900U}) {
            Bytes altered = message;
            altered[altered.size() - fromEnd] ^= 0x10;
            cmstest::expectDamaged(altered, withKeys({&alice()}), true);
        }
        const auto cut = Bytes(message.begin(), message.end() - 1);
        cmstest::expectDamaged(cut, withKeys({&alice()}), true);
    }
}

TEST(EnvelopeAuthenticated, WhatNothingProtectsIsPassed) {
    AuthParts parts = forAlice();
    parts.originatorInfo = cmstest::context(0, cmstest::context(0, alice().certificate.der));
    parts.behind = cmstest::context(2, attribute("1.2.3.4", der::octetString(Bytes(70000, 1))));
    expectOpens(parts);
    parts.behind = cmstest::context(3, attribute("1.2.3.4", der::octetString({1})));
    expectDamaged(parts);
}

TEST(EnvelopeAuthenticated, CiphersOfTheOtherStructureAreUnsupported) {
    AuthParts parts = forAlice();
    parts.algorithm = "AES-128-CBC";
    expectUnsupported(authEnveloped(parts), "AES-128-CBC (2.16.840.1.101.3.4.1.2)");
    parts.algorithm = "2.16.840.1.101.3.4.1.7";
    expectUnsupported(authEnveloped(parts), "id-aes128-CCM (2.16.840.1.101.3.4.1.7)");
    parts.algorithm = "1.2.3.4.5";
    expectUnsupported(authEnveloped(parts), "1.2.3.4.5");
    const Bytes gcm =
        envelope({.recipients = {toAlice()},
                  .cipher = der::sequence({der::oid("2.16.840.1.101.3.4.1.6"), gcmParameters(Bytes(12, 1), "")}),
                  .content = contentElement(Bytes(32, 1))});
    expectUnsupported(gcm, "id-aes128-GCM (2.16.840.1.101.3.4.1.6)");
    const Bytes unknown = envelope({.recipients = {toAlice()},
                                    .cipher = der::sequence({der::oid("1.2.3.4")}),
                                    .content = contentElement(Bytes(32, 1))});
    expectUnsupported(unknown, "1.2.3.4");
    const Outcome read = outcomeOf(unknown, From::memory, [](Reader&) { return true; });
    EXPECT_EQ(read.text, "not supported: 1.2.3.4");
}

/// What the caller has to see: the same content key decrypts under a cipher without a tag, too (RFC 9709, 1).
TEST(EnvelopeAuthenticated, OnTheWayAMessageCanBeMadeOneThatIsNot) {
    const AuthParts parts = forAlice();
    Bytes counter = parts.nonce;
    der::append(counter, {0, 0, 0, 2});
    const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_EncryptInit_ex(context.get(), EVP_aes_128_ctr(), nullptr, parts.key.data(), counter.data());
    const Bytes first(parts.body.begin(), parts.body.begin() + 16);
    const Bytes message =
        envelope({.recipients = parts.recipients,
                  .cipher = der::sequence({der::oid("2.16.840.1.101.3.4.1.4"), der::octetString(counter)}), // CFB
                  .content = contentElement(encryptedWith(context.get(), first))});
    EXPECT_TRUE(Reader(Norvane::MemoryMediaIn(bufferOf(authEnveloped(parts)))).isAuthenticated());
    EXPECT_FALSE(Reader(Norvane::MemoryMediaIn(bufferOf(message))).isAuthenticated());
    EXPECT_EQ(outcomeOf(message, From::memory, withKeys({&alice()})).body, first);
}

TEST(EnvelopeAuthenticated, LargeContentGoesToAFileWithoutAName) {
    const std::string folder = testing::TempDir() + "envelope-spill";
    std::filesystem::create_directories(folder);
    AuthParts parts = forAlice();
    for (const std::size_t length : {65536U, 65537U, 1000000U}) {
        parts.body = bodyOf(length);
        for (const bool exists : {true, false}) {
            Reader reader(PiecewiseIn(authEnveloped(parts)));
            reader.spillTo(exists ? folder + "/swapXXXXXX" : folder + "/none/swapXXXXXX");
            ASSERT_TRUE(withKeys({&alice()})(reader));
            Norvane::MemoryMediaOut out;
            if (exists || length <= 65536) {
                reader.write(out);
                EXPECT_TRUE(bytesOf(out.content()) == parts.body);
            } else {
                EXPECT_THROW(reader.write(out), Norvane::MediaException);
                EXPECT_EQ(reader.verdict(), Reader::Damaged);
            }
            EXPECT_TRUE(std::filesystem::is_empty(folder));
        }
    }
    std::filesystem::remove_all(folder);
}

TEST(EnvelopeAuthenticated, APasswordOpensThemToo) {
    for (const char* digest : {"hmacWithSHA1", "hmacWithSHA256", "hmacWithSHA512"}) {
        Bytes wrapping(32);
        PKCS5_PBKDF2_HMAC("secret", 6, Bytes(8, 1).data(), 8, 1024,
                          EVP_get_digestbyname(std::string(digest).substr(8).c_str()), 32, wrapping.data());
        AuthParts parts;
        parts.recipients = {passwordRecipient({.function = der::sequence({der::oid(digest), der::null()}),
                                               .wrapped = wrappedUnderPassword(wrapping, Bytes(16, 9), contentKey())})};
        const Bytes message = authEnveloped(parts);
        expectBody(message, withPassword("secret"), parts.body);
        cmstest::expectDamaged(message, withPassword("secrets"), true);
    }
}
