// Decrypting into a buffer that each try starts afresh, and what is told of the tries.
#include "support/Decrypting.h"

#include <norvcmsg/SwapBufferMediaOut.h>

using namespace cmstest;
using Attempt = CMS::DecrypterMediaIn::Attempt;

namespace {

Bytes bytesIn(const Norvane::SwapBufferMediaOut& buffer) {
    Norvane::MemoryMediaOut out;
    buffer.in().write(out);
    return bytesOf(out.content());
}

Norvane::SwapBufferMediaOut bufferOf(unsigned int limit = 0x10000) {
    return {limit, "/tmp/norvattemptsXXXXXX"};
}

/// A content key of the sender's own that the content's padding is wrong under.
const Bytes& anotherContentKey(const Bytes& body) {
    static Bytes key;
    for (unsigned char value = 1; key.empty(); ++value) {
        const Bytes candidate(16, value);
        const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), candidate))},
                                        .content = contentElement(encryptedContent(body))});
        if (!openedByOpenssl(message, alice())) {
            key = candidate;
        }
    }
    return key;
}

std::vector<int> outcomesOf(const CMS::DecrypterMediaIn& decrypter) {
    std::vector<int> outcomes;
    for (const Attempt& attempt : decrypter.attempts()) {
        outcomes.push_back(attempt.outcome());
    }
    return outcomes;
}

/// RSAES-OAEP, by OpenSSL's own call.
Bytes withOaep(const Identity& person, const Bytes& body) {
    const Bio content(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())));
    const CmsStructure structure(CMS_encrypt(nullptr, nullptr, EVP_aes_128_cbc(), CMS_PARTIAL | CMS_BINARY));
    const auto certificate = person.certificate.x509();
    CMS_RecipientInfo* recipient =
        CMS_add1_recipient_cert(structure.get(), certificate.get(), CMS_KEY_PARAM | CMS_BINARY);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(CMS_RecipientInfo_get0_pkey_ctx(recipient), RSA_PKCS1_OAEP_PADDING), 1);
    EXPECT_EQ(CMS_final(structure.get(), content.get(), nullptr, CMS_BINARY), 1);
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_CMS_bio(out.get(), structure.get()), 1);
    return contentOf(out.get());
}

} // namespace

// Whoever may put a recipient before the right one owns the beginning of what `write` writes.
TEST(DecrypterAttempts, EachStartsAfresh) {
    const RecordedLog log;
    const Bytes body = bodyOf(20000);
    const Bytes structure =
        handMade(body, {recipientInfo(alice(), wrappedFor(alice(), anotherContentKey(body))), recipient(alice())});
    for (const unsigned int limit : {0x10000U, 100U, 0U}) {
        PiecewiseIn in(structure);
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
        auto clear = bufferOf(limit);
        EXPECT_TRUE(decrypter.decrypt(clear));
        EXPECT_TRUE(bytesIn(clear) == body);
        EXPECT_EQ(outcomesOf(decrypter), (std::vector<int>{1, 0}));
        EXPECT_EQ(decrypter.attempts().front().bytesWritten(), 20000U);
        EXPECT_EQ(decrypter.attempts().back().bytesWritten(), body.size());
        EXPECT_EQ(decrypter.failed().size(), 1U);
        EXPECT_EQ(decrypter.succeeded().size(), 1U);
    }
    EXPECT_EQ(log.events(), Events(3, attemptFailed));
}

// Deliberate: `write` goes on behind what a failed try wrote. The counts tell where the body begins.
TEST(DecrypterAttempts, WriteGoesOnBehindAFailedOneAndTellsHowFar) {
    const RecordedLog log;
    const Bytes body = bodyOf(20000);
    PiecewiseIn in(
        handMade(body, {recipientInfo(alice(), wrappedFor(alice(), anotherContentKey(body))), recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    const Bytes written = bytesOf(out.content());
    const unsigned long before = decrypter.attempts().front().bytesWritten();
    EXPECT_GT(before, 0U);
    ASSERT_EQ(written.size(), before + body.size());
    EXPECT_TRUE(std::equal(body.begin(), body.end(), written.begin() + static_cast<std::ptrdiff_t>(before)));
    EXPECT_EQ(outcomesOf(decrypter), (std::vector<int>{1, 0}));
}

TEST(DecrypterAttempts, NothingIsLeftOfAFailure) {
    const RecordedLog log;
    Bytes content = encryptedContent(bodyOf(20000));
    content.pop_back();
    for (const unsigned int limit : {0x10000U, 100U}) {
        PiecewiseIn in(
            envelope({.recipients = {recipient(alice()), recipient(bob())}, .content = contentElement(content)}));
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
        auto clear = bufferOf(limit);
        clear.write(reinterpret_cast<const unsigned char*>("before"), 6);
        EXPECT_FALSE(decrypter.decrypt(clear));
        EXPECT_EQ(clear.length(), 0U);
        EXPECT_FALSE(clear.isSwapped());
        EXPECT_EQ(outcomesOf(decrypter), (std::vector<int>{1, 2}));
        EXPECT_GT(decrypter.attempts().front().bytesWritten(), 0U);
        EXPECT_EQ(decrypter.attempts().back().bytesWritten(), 0U);
    }
}

TEST(DecrypterAttempts, WhatTheBufferHeldGoes) {
    const Bytes body = bodyOf(100);
    PiecewiseIn in(handMade(body, {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    auto clear = bufferOf();
    const Norvane::SwapBufferMediaOut shared(clear);
    clear.write(bodyOf(1000).data(), 1000);
    EXPECT_TRUE(decrypter.decrypt(clear));
    EXPECT_EQ(bytesIn(clear), body);
    EXPECT_EQ(bytesIn(shared), body);
}

TEST(DecrypterAttempts, OtherStructuresEmptyTheBufferToo) {
    const RecordedLog log;
    PiecewiseIn in(signedByOpenssl(alice(), bodyOf(100), "SHA256", 0));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    auto clear = bufferOf();
    clear.write(bodyOf(10).data(), 10);
    EXPECT_FALSE(decrypter.decrypt(clear));
    EXPECT_EQ(clear.length(), 0U);
    EXPECT_TRUE(decrypter.attempts().empty());
    EXPECT_EQ(log.events(), Events{notEnveloped});
}

TEST(DecrypterAttempts, AFullBufferThrowsAndIsEmpty) {
    PiecewiseIn in(handMade(bodyOf(50000), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::SwapBufferMediaOut nowhere(20000, "/nonexistent/XXXXXX");
    EXPECT_THROW(decrypter.decrypt(nowhere), Norvane::MediaException);
    EXPECT_EQ(nowhere.length(), 0U);
    EXPECT_TRUE(decrypter.attempts().empty());
    Norvane::SwapBufferMediaOut none(bufferOf());
    static_cast<Norvane::MediaOut&>(none) = Norvane::MediaOut();
    EXPECT_THROW(decrypter.decrypt(none), Norvane::MediaException);
}

TEST(DecrypterAttempts, TheirNumbersAreFixed) {
    EXPECT_EQ(static_cast<int>(Attempt::Succeeded), 0);
    EXPECT_EQ(static_cast<int>(Attempt::Failed), 1);
    EXPECT_EQ(static_cast<int>(Attempt::NoKey), 2);
    EXPECT_EQ(static_cast<int>(Attempt::KeyOfAnotherCertificate), 3);
    EXPECT_EQ(static_cast<int>(Attempt::UnsupportedAlgorithm), 4);
    EXPECT_EQ(static_cast<int>(Attempt::NotTried), 5);
    EXPECT_EQ(static_cast<int>(Attempt::NegativeSerialNumber), 6);
}

TEST(DecrypterAttempts, EachRecipientIsToldApart) {
    const RecordedLog log;
    const Bytes issuer = identities().authority.name.der();
    Bytes content = encryptedContent(bodyOf(20000));
    content.pop_back();
    std::vector<Bytes> recipients{recipientInfo(issuer, "-1f", Bytes(256, 1)),
                                  recipientInfo(issuer, "77", Bytes(256, 1)), recipient(bob())};
    recipients.insert(recipients.end(), 4, recipient(alice()));
    PiecewiseIn in(envelope({.recipients = recipients, .content = contentElement(content)}));
    CMS::DecrypterMediaIn decrypter(
        in, storeOfPairs({NVX509::KeyCertificatePair(keyOf(carol()), certificateOf(bob())), pairOf(alice())}));
    auto clear = bufferOf();
    EXPECT_FALSE(decrypter.decrypt(clear));
    EXPECT_EQ(outcomesOf(decrypter), (std::vector<int>{6, 2, 3, 1, 1, 1, 5}));
    const Attempt& unnamed = decrypter.attempts().front();
    EXPECT_EQ(unnamed.recipient().issuer()->asString(), "O=Mail,CN=Test Authority");
    EXPECT_TRUE(unnamed.recipient().serialNumber().isNull());
    EXPECT_EQ(decrypter.attempts().back().recipient().serialNumber()->hex(), aliceSerial);
    for (const Attempt& attempt : decrypter.attempts()) {
        EXPECT_EQ(attempt.algorithm(), "");
    }
}

TEST(DecrypterAttempts, OaepIsToldByNameAndNotTried) {
    const RecordedLog log;
    PiecewiseIn in(withOaep(alice(), bodyOf(1000)));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    auto clear = bufferOf();
    EXPECT_FALSE(decrypter.decrypt(clear));
    ASSERT_EQ(outcomesOf(decrypter), std::vector<int>{4});
    EXPECT_EQ(decrypter.attempts().front().algorithm(), "RSAES-OAEP (1.2.840.113549.1.1.7)");
    EXPECT_EQ(decrypter.attempts().front().bytesWritten(), 0U);
    EXPECT_EQ(decrypter.failed().size(), 1U);
    EXPECT_EQ(log.events(), Events{attemptFailed});
}

TEST(DecrypterAttempts, ContentCiphersThatAreNoneAreToldByName) {
    const RecordedLog log;
    const std::vector<std::pair<std::string, std::string>> ciphers{
        {"1.2.3.4.5", "1.2.3.4.5"},
        {"id-aes128-GCM", "id-aes128-GCM (2.16.840.1.101.3.4.1.6)"},
        {"id-aes128-wrap", "id-aes128-wrap (2.16.840.1.101.3.4.1.5)"},
        {"SHA256", "SHA256 (2.16.840.1.101.3.4.2.1)"}};
    for (const auto& [cipher, name] : ciphers) {
        PiecewiseIn in(envelope({.recipients = {recipient(bob()), recipient(alice())},
                                 .cipher = der::sequence({der::oid(cipher), der::octetString(initializationVector())}),
                                 .content = contentElement(encryptedContent(bodyOf(100)))}));
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
        auto clear = bufferOf();
        EXPECT_FALSE(decrypter.decrypt(clear));
        EXPECT_EQ(outcomesOf(decrypter), (std::vector<int>{2, 4})) << cipher;
        EXPECT_EQ(decrypter.attempts().back().algorithm(), name);
    }
}

// An unknown name may stand for what is meant: it is tried, and named when that fails.
TEST(DecrypterAttempts, AnOddKeyAlgorithmIsTriedAndNamed) {
    const RecordedLog log;
    const Bytes body = bodyOf(100);
    const auto odd = [](const Bytes& wrapped) {
        return der::sequence({der::integer("0"),
                              der::sequence({identities().authority.name.der(), der::integer(alice().serial)}),
                              der::sequence({der::oid("1.2.3.4"), der::null()}), der::octetString(wrapped)});
    };
    EXPECT_EQ(openedBy(handMade(body, {odd(wrappedFor(alice(), contentKey()))}), storeOfKeys({&alice()})).body, body);
    PiecewiseIn in(handMade(body, {odd(wrappedFor(alice(), anotherContentKey(body)))}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    auto clear = bufferOf();
    EXPECT_FALSE(decrypter.decrypt(clear));
    ASSERT_EQ(outcomesOf(decrypter), std::vector<int>{4});
    EXPECT_EQ(decrypter.attempts().front().algorithm(), "1.2.3.4");
}

// RFC 2268, 6: every length has a number, of which OpenSSL takes three.
TEST(DecrypterAttempts, Rc2OfAnotherEffectiveKeyLengthIsToldByName) {
    const RecordedLog log;
    const auto attemptsAt = [](const Bytes& version, std::size_t vectorLength) {
        const Bytes parameters = der::sequence({version, der::octetString(Bytes(vectorLength, 1))});
        PiecewiseIn in(envelope({.recipients = {recipient(alice())},
                                 .cipher = der::sequence({der::oid("RC2-CBC"), parameters}),
                                 .content = contentElement(Bytes(63, 1))}));
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
        auto clear = bufferOf();
        EXPECT_FALSE(decrypter.decrypt(clear));
        return decrypter.attempts();
    };
    for (const char* version : {"34", "39", "0100", "0400"}) {
        const auto attempts = attemptsAt(der::integer(version), 8);
        ASSERT_EQ(attempts.size(), 1U);
        EXPECT_EQ(attempts.front().outcome(), Attempt::UnsupportedAlgorithm) << version;
        EXPECT_EQ(attempts.front().algorithm(), "RC2-CBC (1.2.840.113549.3.2) with another effective key length");
    }
    for (const char* version : {"3a", "78", "a0"}) { // 63 octets are no whole blocks
        EXPECT_EQ(attemptsAt(der::integer(version), 8).front().outcome(), Attempt::Failed) << version;
    }
    EXPECT_EQ(attemptsAt(der::integer("34"), 7).front().outcome(), Attempt::Failed);
    EXPECT_EQ(attemptsAt(der::octetString({0x34}), 8).front().outcome(), Attempt::Failed);
}

// RFC 3058, 2.1; OpenSSL itself puts the vector there alone.
TEST(DecrypterAttempts, IdeaWithItsVectorInASequence) {
    const RecordedLog log;
    const Bytes body = bodyOf(5003);
    const Bytes content = encryptedContent(body, Crypto::initializeCipher(Crypto::IDEA_CBC));
    const auto with = [&content](const Bytes& parameters) {
        return envelope({.recipients = {recipient(alice())},
                         .cipher = der::sequence({der::oid("IDEA-CBC"), parameters}),
                         .content = contentElement(content)});
    };
    const Opened opened = openedBy(with(der::sequence({der::octetString(Bytes(8, 0xA5))})), storeOfKeys({&alice()}));
    EXPECT_TRUE(opened.good);
    EXPECT_TRUE(opened.body == body);
    PiecewiseIn in(with(der::sequence({})));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    auto clear = bufferOf();
    EXPECT_FALSE(decrypter.decrypt(clear));
    ASSERT_EQ(outcomesOf(decrypter), std::vector<int>{4});
    EXPECT_EQ(decrypter.attempts().front().algorithm(),
              "IDEA-CBC (1.3.6.1.4.1.188.7.1.1.2) without an initialization vector");
}

// The content key is shorter than RC2's usual one, as its parameters say.
TEST(DecrypterAttempts, Rc2OfEveryLengthOpens) {
    const Bytes body = bodyOf(5003);
    for (const EVP_CIPHER* cipher : {EVP_rc2_40_cbc(), EVP_rc2_64_cbc(), EVP_rc2_cbc()}) {
        const X509Stack stack(sk_X509_new_null());
        const auto certificate = alice().certificate.x509();
        sk_X509_push(stack.get(), certificate.get());
        const Bio content(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())));
        const Pkcs7 made(PKCS7_encrypt(stack.get(), content.get(), cipher, PKCS7_BINARY));
        ASSERT_NE(made, nullptr);
        ERR_clear_error();
        const Opened opened = openedBy(derOf(made.get()), storeOfKeys({&alice()}));
        EXPECT_TRUE(opened.good) << EVP_CIPHER_get0_name(cipher);
        EXPECT_TRUE(opened.body == body);
        const Opened byAnotherName =
            openedBy(derOf(made.get()), storeOf(new Answering([] { return pairOf(alice()); })));
        EXPECT_TRUE(byAnotherName.body == body);
    }
}
