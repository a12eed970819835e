// What a message may cost whoever opens it: calls of OpenSSL are counted.
#include "../HandMade.h"
#include "support/Interpose.h"
#include "support/Thrown.h"

using namespace cmstest;

namespace {

struct Counts {
    int rsa = 0;
    int agreements = 0;
    int derivations = 0;
    int decoded = 0;
    int decrypted = 0;
    int names = 0;
};
Counts s_counts;
bool s_withoutProvider = false; ///< OpenSSL refuses ciphers before it is given a key

Counts countsOf(const std::function<void()>& work) {
    s_counts = {};
    work();
    return s_counts;
}

} // namespace

extern "C" int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* length, const unsigned char* in,
                                std::size_t inLength) {
    ++s_counts.rsa;
    return norvtest::next<&EVP_PKEY_decrypt>("EVP_PKEY_decrypt")(context, out, length, in, inLength);
}
extern "C" int EVP_PKEY_derive(EVP_PKEY_CTX* context, unsigned char* key, std::size_t* length) {
    s_counts.agreements += key == nullptr ? 0 : 1;
    return norvtest::next<&EVP_PKEY_derive>("EVP_PKEY_derive")(context, key, length);
}
extern "C" int PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt, int saltLength,
                                 int iterations, const EVP_MD* digest, int length, unsigned char* out) {
    ++s_counts.derivations;
    return norvtest::next<&PKCS5_PBKDF2_HMAC>("PKCS5_PBKDF2_HMAC")(password, passwordLength, salt, saltLength,
                                                                   iterations, digest, length, out);
}
extern "C" X509_ALGOR* d2i_X509_ALGOR(X509_ALGOR** reused, const unsigned char** in, long length) {
    ++s_counts.decoded;
    return norvtest::next<&d2i_X509_ALGOR>("d2i_X509_ALGOR")(reused, in, length);
}
extern "C" PKCS7_ISSUER_AND_SERIAL* d2i_PKCS7_ISSUER_AND_SERIAL(PKCS7_ISSUER_AND_SERIAL** reused,
                                                                const unsigned char** in, long length) {
    ++s_counts.names;
    return norvtest::next<&d2i_PKCS7_ISSUER_AND_SERIAL>("d2i_PKCS7_ISSUER_AND_SERIAL")(reused, in, length);
}
extern "C" int EVP_DecryptInit_ex(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, ENGINE* engine,
                                  const unsigned char* key, const unsigned char* vector) {
    if (s_withoutProvider && key == nullptr) {
        return norvtest::failIn("EVP_DecryptInit_ex", ERR_LIB_EVP, EVP_R_UNSUPPORTED_CIPHER);
    }
    return norvtest::next<&EVP_DecryptInit_ex>("EVP_DecryptInit_ex")(context, cipher, engine, key, vector);
}
extern "C" int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* length, const unsigned char* in,
                                 int inLength) {
    ++s_counts.decrypted;
    return norvtest::next<&EVP_DecryptUpdate>("EVP_DecryptUpdate")(context, out, length, in, inLength);
}

namespace {

const Identity& onCurve() {
    static const Identity made = norvauthority::issue({.subject = {{"CN", "curve"}},
                                                       .key = norvauthority::Key::ec(),
                                                       .issuer = &identities().authority,
                                                       .serial = "ec"});
    return made;
}
Bytes around(const std::vector<Bytes>& recipients) {
    return envelope({.recipients = recipients, .content = contentElement(encryptedContent(bodyOf(10)))});
}
Bytes keyAgreement(std::size_t keys, const std::string& scheme) {
    const Bytes key = der::sequence({nameIn(onCurve()), der::octetString(Bytes(24, 1))});
    return agreement({.scheme = scheme,
                      .originator = originatorKey("1.2.840.10045.2.1", publicOctets(norvauthority::Key::ec().get())),
                      .keys = std::vector<Bytes>(keys, key)});
}

} // namespace

TEST(EnvelopeWork, PasswordsAreHashedWithinTheBudgetAlone) {
    for (const char* iterations : {"989680", "0f4241", "7fffffff", "00ffffffff", "0100000001"}) {
        const Bytes message = around({passwordRecipient({.iterations = iterations, .wrapped = Bytes(32, 1)})});
        const Counts counts = countsOf([&] {
            const Outcome outcome = outcomeOf(message, From::memory, withPassword("secret"));
            EXPECT_EQ(outcome.text, "the password would be hashed more times than 1000000 (Budget::passwordIterations)")
                << iterations;
            EXPECT_EQ(outcome.verdict, Reader::Unopened);
        });
        EXPECT_EQ(counts.derivations, 0);
    }
    for (const char* iterations : {"00", "-01"}) { // not too many, but none: a random key, whose tag never fits
        const Bytes message =
            authEnveloped({.recipients = {passwordRecipient({.iterations = iterations, .wrapped = Bytes(32, 1)})}});
        const Counts counts = countsOf([&] {
            const Outcome outcome = outcomeOf(message, From::memory, withPassword("secret"));
            EXPECT_EQ(outcome.text, damagedText) << iterations;
            EXPECT_EQ(outcome.verdict, Reader::Damaged);
        });
        EXPECT_EQ(counts.derivations, 0);
    }
    Reader::Budget little;
    little.passwordIterations = 1023;
    const Bytes message = around({passwordRecipient({.wrapped = Bytes(32, 1)})}); // 1024 times
    Reader reader(Norvane::MemoryMediaIn(bufferOf(message)), little);
    EXPECT_EQ(countsOf([&] { EXPECT_THROW(withPassword("secret")(reader), Crypto::TooCostlyException); }).derivations,
              0);
    little.passwordIterations = 1024;
    Reader enough(Norvane::MemoryMediaIn(bufferOf(message)), little);
    EXPECT_EQ(countsOf([&] { EXPECT_TRUE(withPassword("secret")(enough)); }).derivations, 1);
}

TEST(EnvelopeWork, UnsupportedPasswordsAreNotHashed) {
    const auto expect = [](const PasswordParts& parts, const std::string& name) {
        const Bytes message = around({passwordRecipient(parts)});
        const Counts counts = countsOf([&] {
            const Outcome outcome = outcomeOf(message, From::memory, withPassword("secret"));
            EXPECT_FALSE(outcome.opened);
            EXPECT_EQ(outcome.verdict, Reader::Unsupported);
            EXPECT_EQ(outcome.unsupported, name);
        });
        EXPECT_EQ(counts.derivations, 0);
    };
    expect({.derivation = "1.3.6.1.4.1.11591.4.11"}, "id-scrypt (1.3.6.1.4.1.11591.4.11)");
    expect({.function = der::sequence({der::oid("1.2.3.4"), der::null()})}, "PBKDF2 with 1.2.3.4");
    expect({.inner = der::sequence({der::oid("1.2.3.5")})}, "id-alg-PWRI-KEK with 1.2.3.5");
    expect({.inner = der::sequence({der::oid("2.16.840.1.101.3.4.1.46"), gcmParameters(Bytes(12, 1), "")})},
           "id-alg-PWRI-KEK with id-aes256-GCM (2.16.840.1.101.3.4.1.46)");
}

TEST(EnvelopeWork, RecipientsWithoutAKeyAreNotDecoded) {
    const auto decodedFor = [](std::size_t others) {
        std::vector<Bytes> recipients(others, recipientInfo(bob(), Bytes(256, 1)));
        recipients.push_back(recipientInfo(alice(), wrappedFor(alice(), contentKey())));
        const Bytes message = around(recipients);
        const Counts counts =
            countsOf([&] { EXPECT_TRUE(outcomeOf(message, From::stream, withKeys({&alice()})).body == bodyOf(10)); });
        EXPECT_EQ(counts.rsa, 1);
        return counts.decoded + counts.names;
    };
    EXPECT_GT(decodedFor(0), 0);
    EXPECT_EQ(decodedFor(0), decodedFor(1000));
}

TEST(EnvelopeWork, PrivateKeysAreUsedWithinTheBudget) {
    // PKCS#1 1.5: the first one's key is used, since nothing tells whether it opened.
    const std::vector<Bytes> pkcs1(100, recipientInfo(alice(), Bytes(256, 1)));
    EXPECT_EQ(countsOf([&] { EXPECT_TRUE(outcomeOf(around(pkcs1), From::memory, withKeys({&alice()})).opened); }).rsa,
              1);

    const auto expectRefused = [](const Bytes& message, const Identity& person, int Counts::*counted) {
        const Counts counts = countsOf([&] {
            const Outcome outcome = outcomeOf(message, From::memory, withKeys({&person}));
            EXPECT_EQ(outcome.text, "more operations with private keys than 8 (Budget::privateKeyOperations)");
        });
        EXPECT_EQ(counts.*counted, 8);
    };
    const Bytes oaep = der::sequence({der::integer("0"), nameIn(alice()),
                                      der::sequence({der::oid("1.2.840.113549.1.1.7"), der::sequence({})}),
                                      der::octetString(Bytes(256, 1))});
    expectRefused(around(std::vector<Bytes>(9, oaep)), alice(), &Counts::rsa);
    expectRefused(around({keyAgreement(5000, "1.3.132.1.11.1")}), onCurve(), &Counts::agreements);
    const Bytes eight = authEnveloped({.recipients = std::vector<Bytes>(8, oaep)});
    EXPECT_EQ(countsOf([&] { expectDamaged(eight, withKeys({&alice()}), true); }).rsa, 16);
}

TEST(EnvelopeWork, AnAgreementThatIsNotSupportedIsDecodedOnce) {
    const auto decodedFor = [](std::size_t keys) {
        const Bytes message = around({keyAgreement(keys, "1.2.3.4")});
        return countsOf(
                   [&] { EXPECT_EQ(outcomeOf(message, From::memory, withKeys({&onCurve()})).unsupported, "1.2.3.4"); })
            .decoded;
    };
    EXPECT_EQ(decodedFor(1), decodedFor(5000));
}

TEST(EnvelopeWork, AnAgreementThatAKeyIsNotForIsDecodedOnce) {
    // The recipients have another name than the certificate of the key, which a store may give all the same.
    class Any : public CMS::KeyLookup {
    public:
        NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier&) const override { return pairOf(alice()); }
    };
    const auto decodedFor = [](std::size_t keys) {
        const Bytes message = around({keyAgreement(keys, "1.3.132.1.11.1")});
        return countsOf([&] {
                   EXPECT_FALSE(
                       outcomeOf(message, From::memory, [](Reader& reader) { return reader.open(Any()); }).opened);
               })
            .decoded;
    };
    EXPECT_EQ(decodedFor(2) - decodedFor(1), decodedFor(8) - decodedFor(7));
    EXPECT_LE(decodedFor(2) - decodedFor(1), 1); // its name
}

TEST(EnvelopeWork, NothingIsDoneForAnUnsupportedCipher) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .cipher = der::sequence({der::oid("1.2.3.4")}),
                                    .content = contentElement(encryptedContent(bodyOf(10)))});
    const Counts counts =
        countsOf([&] { EXPECT_EQ(outcomeOf(message, From::memory, withKeys({&alice()})).unsupported, "1.2.3.4"); });
    EXPECT_EQ(counts.rsa + counts.decrypted, 0);
}

TEST(EnvelopeWork, ACipherWithoutItsProviderIsUnsupported) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .cipher = der::sequence({der::oid("BF-CBC"), der::octetString(Bytes(8, 1))}),
                                    .content = contentElement(bodyOf(64))});
    const norvtest::During<bool> without(s_withoutProvider, true);
    const Counts counts = countsOf([&] {
        const Outcome outcome = outcomeOf(message, From::memory, withKeys({&alice()}));
        EXPECT_EQ(outcome.verdict, Reader::Unsupported);
        EXPECT_EQ(outcome.unsupported, "BF-CBC (1.3.6.1.4.1.3029.1.2)");
    });
    EXPECT_EQ(counts.rsa, 0);
}

TEST(EnvelopeWork, AuthenticatedContentIsDecryptedOnce) {
    AuthParts parts{.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}};
    // In pieces of 8 KB; beyond 64 KB the tag is checked before, without decrypting.
    for (const auto& [length, calls] : {std::pair{1000U, 1}, {8192U, 1}, {65536U, 8}, {65537U, 9}, {200000U, 25}}) {
        parts.body = bodyOf(length);
        const Bytes message = authEnveloped(parts);
        for (const From from : {From::memory, From::stream}) {
            EXPECT_EQ(countsOf([&] { static_cast<void>(outcomeOf(message, from, withKeys({&alice()}))); }).decrypted,
                      calls)
                << length;
        }
    }
}

TEST(EnvelopeBudget, HeadTailAndRecipients) {
    const auto textWith = [](const Bytes& message, const Reader::Budget& budget, From from) {
        const Outcome outcome = outcomeOf(message, from, withKeys({&alice()}), budget);
        EXPECT_TRUE(outcome.text.empty() || outcome.body.empty() || outcome.verdict == Reader::Damaged);
        return outcome.text;
    };
    AuthParts parts{.recipients = std::vector<Bytes>(20, recipientInfo(alice(), wrappedFor(alice(), contentKey())))};
    parts.originatorInfo = cmstest::context(0, cmstest::context(0, Bytes(20000, 0)));
    parts.behind = cmstest::context(2, attribute("1.2.3.4", der::octetString(Bytes(20000, 1))));
    const Bytes message = authEnveloped(parts);
    for (const From from : {From::memory, From::stream}) {
        EXPECT_EQ(textWith(message, {}, from), "");
        Reader::Budget budget;
        for (const unsigned int head : {0U, 19000U, 21000U}) {
            budget.head = head;
            EXPECT_EQ(textWith(message, budget, from),
                      "more octets before the content than " + std::to_string(head) + " (Budget::head)");
        }
        budget.head = 30000;
        EXPECT_EQ(textWith(message, budget, from), "");
        budget.tail = 20000;
        EXPECT_EQ(textWith(message, budget, from), "more octets behind the content than 20000 (Budget::tail)");
        budget.tail = 20200;
        EXPECT_EQ(textWith(message, budget, from), "");
        budget.recipients = 20;
        EXPECT_EQ(textWith(message, budget, from), "");
        budget.recipients = 19;
        EXPECT_EQ(textWith(message, budget, from), "more recipients than 19 (Budget::recipients)");
    }
    Reader::Budget budget;
    budget.recipients = 99;
    EXPECT_EQ(textWith(around({keyAgreement(100, "1.3.132.1.11.1")}), budget, From::memory),
              "more recipients than 99 (Budget::recipients)");
}

TEST(EnvelopeBudget, WhatIsKept) {
    AuthParts parts{.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))}, .body = bodyOf(100000)};
    Reader::Budget budget;
    budget.spill = 99999;
    const Bytes message = authEnveloped(parts);
    const Outcome refused = outcomeOf(message, From::stream, withKeys({&alice()}), budget);
    EXPECT_EQ(refused.text, "more octets of authenticated content than 99999 (Budget::spill)");
    EXPECT_TRUE(refused.body.empty());
    EXPECT_EQ(outcomeOf(message, From::memory, withKeys({&alice()}), budget).verdict, Reader::Complete);
    budget.spill = 100000;
    EXPECT_EQ(outcomeOf(message, From::stream, withKeys({&alice()}), budget).verdict, Reader::Complete);
}
