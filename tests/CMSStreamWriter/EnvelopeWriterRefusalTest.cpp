// What the envelope writer refuses, and what it says then.
#include "support/EnvelopeWriting.h"
#include "support/Streams.h"
#include "support/Thrown.h"

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;
using CMS::NamedBy;
using Crypto::Hasher;
using norvtest::detailOf;
using norvtest::thrownBy;

namespace {

EnvelopeRecipient alice() {
    return EnvelopeRecipient(certificateOf(identities().rsa));
}
Buffer secret(std::size_t length) {
    return bufferOf(bodyOf(length));
}

/// What making a recipient is refused with.
template <class Make> std::string refused(Make make) {
    ERR_clear_error();
    const auto thrown = thrownBy([&] { static_cast<void>(make()); });
    norvtest::expectFailure(thrown, "CMS::EnvelopeRecipient", 4, "CMSEnvelopeWriter");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    return detailOf(thrown);
}
std::string writerRefuses(const std::vector<EnvelopeRecipient>& recipients,
                          const EnvelopeOptions& options = EnvelopeOptions()) {
    ERR_clear_error();
    const auto thrown = thrownBy([&] { const CMS::EnvelopeWriter writer(recipients, options); });
    norvtest::expectFailure(thrown, "CMS::EnvelopeWriter", 4, "CMSEnvelopeWriter");
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    return detailOf(thrown);
}
template <class Work> std::string writeRefuses(Work work) {
    const auto thrown = thrownBy(work);
    norvtest::expectFailure(thrown, "CMS::EnvelopeWriter::write", 4, "CMSEnvelopeWriter");
    return detailOf(thrown);
}
template <class Work> std::string endRefuses(Work work) {
    const auto thrown = thrownBy(work);
    norvtest::expectFailure(thrown, "CMS::EnvelopeWriter::end", 4, "CMSEnvelopeWriter");
    return detailOf(thrown);
}

constexpr const char* broken =
    "the message is broken: writing to it failed before, and what the target has is not all of it";

} // namespace

TEST(EnvelopeRefusal, CertificatesThatCannotBeEncryptedFor) {
    EXPECT_EQ(refused([] { return EnvelopeRecipient(NVX509::RefCertificate()); }), "there is no certificate");
    EXPECT_EQ(refused([] { return EnvelopeRecipient(certificateOf(identities().dsa)); }),
              "the key is DSA, which cannot encrypt here");
    const auto with = [](const norvauthority::Key& key) {
        return certificateOf(
            norvauthority::issue({.subject = {{"CN", "odd"}}, .key = key, .issuer = &identities().authority}));
    };
    EXPECT_EQ(refused([&] { return EnvelopeRecipient(with(norvauthority::Key::ed25519())); }),
              "the key is ED25519, which cannot encrypt here");
    EXPECT_EQ(refused([&] { return EnvelopeRecipient(with(norvauthority::Key::ec("brainpoolP256r1"))); }),
              "the key is EC on brainpoolP256r1, which cannot encrypt here");
    EXPECT_EQ(refused([&] { return EnvelopeRecipient(with(norvauthority::Key::ec("secp256k1"))); }),
              "the key is EC on secp256k1, which cannot encrypt here");
}

TEST(EnvelopeRefusal, KindsThatAreNotTheKeys) {
    const auto rsa = certificateOf(identities().rsa);
    const auto ec = certificateOf(onCurve("P-256"));
    const auto x25519 = certificateOf(onCurve("X25519"));
    EXPECT_EQ(refused([&] { return EnvelopeRecipient::rsaPkcs1(ec); }), "the key is EC on prime256v1, not RSA");
    EXPECT_EQ(refused([&] { return EnvelopeRecipient::rsaOaep(x25519); }), "the key is X25519, not RSA");
    EXPECT_EQ(refused([&] { return EnvelopeRecipient::keyAgreement(rsa); }),
              "the key is RSA, with which there is no key agreement");
    EXPECT_EQ(refused([&] { return EnvelopeRecipient::keyAgreement(x25519, {Hasher::SHA1}); }),
              "X25519 has no key derivation with this digest");
    EXPECT_EQ(refused([&] {
                  return EnvelopeRecipient::keyAgreement(x25519, {{}, true});
              }),
              "X25519 has no cofactor variant");
}

TEST(EnvelopeRefusal, DigestsThatAreNeitherSha1NorSha2) {
    const auto rsa = certificateOf(identities().rsa);
    EXPECT_EQ(refused([&] { return EnvelopeRecipient::rsaOaep(rsa, {Hasher::MD5}); }),
              "the digest 4 is neither SHA-1 nor SHA-2");
    EXPECT_EQ(refused([&] {
                  return EnvelopeRecipient::rsaOaep(rsa, {Hasher::MD5, Hasher::SHA1});
              }),
              "the digest 4 is neither SHA-1 nor SHA-2");
    EXPECT_EQ(refused([&] {
                  return EnvelopeRecipient::rsaOaep(rsa, {Hasher::SHA1, Hasher::SHA3_256});
              }),
              "the digest 1097 is neither SHA-1 nor SHA-2");
    EXPECT_EQ(refused([&] {
                  return EnvelopeRecipient::keyAgreement(certificateOf(onCurve("P-256")),
                                                         {static_cast<Hasher::Type>(-1)});
              }),
              "the digest -1 is neither SHA-1 nor SHA-2");
    EXPECT_EQ(refused([] {
                  return EnvelopeRecipient::password(secret(8), {1000, Hasher::SM3});
              }),
              "the digest 1143 is neither SHA-1 nor SHA-2");
}

TEST(EnvelopeRefusal, AKeyIdentifierThatIsNotThere) {
    const auto without = certificateOf(norvauthority::issue({.subject = {{"CN", "none"}},
                                                             .key = storedKey("alice"),
                                                             .issuer = &identities().authority,
                                                             .subjectKeyIdentifier = false}));
    EXPECT_EQ(refused([&] { return EnvelopeRecipient(without, NamedBy::subjectKeyIdentifier); }),
              "the certificate has no subject key identifier");
}

TEST(EnvelopeRefusal, LengthsOfSecretsAndNames) {
    for (const std::size_t length : {0U, 15U, 17U, 33U, 64U}) {
        EXPECT_EQ(refused([&] { return EnvelopeRecipient::keyEncryptionKey(secret(length), secret(4)); }),
                  "the key-encryption key has " + std::to_string(length) + " bytes, must have 16, 24 or 32");
    }
    EXPECT_EQ(refused([] { return EnvelopeRecipient::keyEncryptionKey(secret(16), Buffer()); }),
              "the identifier of the key-encryption key has 0 bytes, must have 1 to 1024");
    EXPECT_EQ(refused([] { return EnvelopeRecipient::keyEncryptionKey(secret(16), secret(1025)); }),
              "the identifier of the key-encryption key has 1025 bytes, must have 1 to 1024");
    EXPECT_EQ(refused([] { return EnvelopeRecipient::password(Buffer()); }),
              "the password has 0 bytes, must have 1 to 1024");
    EXPECT_EQ(refused([] { return EnvelopeRecipient::password(secret(1025)); }),
              "the password has 1025 bytes, must have 1 to 1024");
    EXPECT_EQ(refused([] {
                  return EnvelopeRecipient::rsaOaep(certificateOf(identities().rsa), {Hasher::SHA1, {}, secret(1025)});
              }),
              "the label has 1025 bytes, must have 0 to 1024");
    const Addressee longest{"kek", EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(16)), secret(1024)), nullptr,
                            kekOf(16)};
    EXPECT_NO_THROW(
        written({longest.recipient, EnvelopeRecipient::password(secret(1024), {1000})}, EnvelopeOptions(), {}));
}

TEST(EnvelopeRefusal, IterationsThatProtectNothingOrThatReadersRefuse) {
    for (const unsigned int iterations : {0U, 1U, 999U, 1000001U, 0xFFFFFFFFU}) {
        EXPECT_EQ(refused([&] { return EnvelopeRecipient::password(secret(8), {iterations}); }),
                  std::to_string(iterations) + " iterations, must be 1000 to 1000000");
    }
    for (const unsigned int iterations : {1000U, 1000000U}) {
        EXPECT_NO_THROW(EnvelopeRecipient::password(secret(8), {iterations}));
    }
}

TEST(EnvelopeRefusal, NobodyToEncryptFor) {
    EXPECT_EQ(writerRefuses({}), "there is no recipient");
}

TEST(EnvelopeRefusal, KeysTooShortForTheirPadding) {
    const auto withKey = [](unsigned int bits, std::optional<Hasher::Type> digest) {
        const auto certificate = certificateOf(withRsa(bits));
        return digest ? EnvelopeRecipient::rsaOaep(certificate, {*digest}) : EnvelopeRecipient(certificate);
    };
    EnvelopeOptions aes256;
    aes256.cipher = ContentCipher::aes256Cbc;
    // RFC 8017, 7.1.1: k - 2 hLen - 2 octets; 1024 bits leave none beyond SHA-384.
    const std::string text = writerRefuses({alice(), withKey(1024, Hasher::SHA384)}, aes256);
    EXPECT_TRUE(text.starts_with("recipient 2 (serial number 1024 of ")) << text;
    EXPECT_TRUE(text.ends_with(": an RSA key of 1024 bits is too short for the content key and its padding")) << text;
    EXPECT_NE(writerRefuses({withKey(1024, Hasher::SHA512)}), "");
    EXPECT_NE(writerRefuses({withKey(512, Hasher::SHA1)}, aes256), ""); // 22 octets of room
    const Addressee fits{"short", withKey(512, Hasher::SHA1), &withRsa(512)};
    const Addressee also{"short", withKey(1024, Hasher::SHA256), &withRsa(1024)};
    const Addressee exactly{"short", withKey(592, Hasher::SHA1), &withRsa(592)}; // 74 octets: 42, and a key of 32
    EXPECT_NE(writerRefuses({withKey(584, Hasher::SHA1)}, aes256), "");
    EXPECT_EQ(opened(written({exactly.recipient}, aes256, bodyOf(9)), exactly), bodyOf(9));
    const Addressee plain{"short", withKey(512, {}), &withRsa(512)};
    EXPECT_EQ(opened(written({fits.recipient}, EnvelopeOptions(), bodyOf(9)), fits), bodyOf(9));
    EXPECT_EQ(opened(written({also.recipient}, aes256, bodyOf(9)), also), bodyOf(9));
    EXPECT_EQ(opened(written({plain.recipient}, aes256, bodyOf(9)), plain), bodyOf(9));
}

TEST(EnvelopeRefusal, OptionsThatMakeNoSense) {
    const auto refusedWith = [](const std::function<void(EnvelopeOptions&)>& set) {
        EnvelopeOptions options;
        set(options);
        return writerRefuses({alice()}, options);
    };
    EXPECT_EQ(refusedWith([](auto& options) { options.cipher = static_cast<ContentCipher>(7); }), "no such cipher: 7");
    EXPECT_EQ(refusedWith([](auto& options) { options.cipher = static_cast<ContentCipher>(-1); }),
              "no such cipher: -1");
    EXPECT_EQ(refusedWith([](auto& options) { options.encoding = static_cast<EnvelopeEncoding>(2); }),
              "no such encoding: 2");
    for (const std::string& type :
         {std::string(), std::string("data"), std::string("1"), std::string("1.2.x"), std::string("1.2..3"),
          std::string("1.2."), std::string("9.9"), "1.2." + std::string(300, '1')}) {
        EXPECT_EQ(refusedWith([&](auto& options) { options.contentType = type; }),
                  "the content type is no object identifier");
    }
    EXPECT_EQ(refusedWith([](auto& options) { options.bodyLength = (std::uint64_t{1} << 62U) + 1; }),
              "a body of 4611686018427387905 bytes is longer than 4611686018427387904 bytes");
    EXPECT_EQ(refusedWith([](auto& options) { options.bodyLength = ~std::uint64_t{0}; }),
              "a body of 18446744073709551615 bytes is longer than 4611686018427387904 bytes");
    EXPECT_EQ(refusedWith([](auto& options) {
                  options.cipher = ContentCipher::aes128Gcm;
                  options.bodyLength = 68719476705U;
              }),
              "a body of 68719476705 bytes is longer than 68719476704 bytes");
}

TEST(EnvelopeRefusal, ABodyLongerThanAnnounced) {
    for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
        EnvelopeOptions options;
        options.encoding = encoding;
        options.bodyLength = 100000;
        Norvane::MemoryMediaOut target;
        CMS::EnvelopeWriter writer({alice()}, options);
        writer.attach(target);
        writer.write(secret(99999));
        const auto before = target.content().length();
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(2)); }),
                  "the body is longer than the 100000 bytes that were announced");
        // Nobody completes it by accident.
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(1)); }), broken);
        EXPECT_EQ(endRefuses([&] { writer.end(); }), broken);
        EXPECT_EQ(target.content().length(), before);
        EXPECT_FALSE(target.ended());
    }
}

TEST(EnvelopeRefusal, ABodyShorterThanAnnounced) {
    for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
        EnvelopeOptions options;
        options.encoding = encoding;
        options.bodyLength = 10;
        Norvane::MemoryMediaOut target;
        CMS::EnvelopeWriter writer({alice()}, options);
        writer.attach(target);
        writer.write(secret(1));
        EXPECT_EQ(endRefuses([&] { writer.end(); }), "the body has 1 byte, 10 were announced");
        EXPECT_EQ(endRefuses([&] { writer.end(); }), broken);
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(9)); }), broken);
        EXPECT_FALSE(target.ended());
        // Nothing at all is as wrong.
        CMS::EnvelopeWriter empty({alice()}, options);
        empty.attach(target);
        EXPECT_EQ(endRefuses([&] { empty.end(); }), "the body has 0 bytes, 10 were announced");
    }
}

TEST(EnvelopeRefusal, WritingAfterTheEnd) {
    for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
        EnvelopeOptions options;
        options.encoding = encoding;
        Norvane::MemoryMediaOut target;
        CMS::EnvelopeWriter writer({alice()}, options);
        writer.attach(target);
        writer.write(secret(10));
        writer.end();
        const Bytes message = bytesOf(target.content());
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(1)); }), "written to after its end");
        writer.write(Buffer()); // nothing is nothing
        writer.end();           // and ends nothing twice
        writer.end();
        EXPECT_TRUE(bytesOf(target.content()) == message);
        EXPECT_EQ(opened(message, {"alice", alice(), &identities().rsa}), bodyOf(10));
    }
}

TEST(EnvelopeRefusal, PiecesWithoutOctetsChangeNothing) {
    Norvane::MemoryMediaOut target;
    CMS::EnvelopeWriter writer({alice()});
    writer.attach(target);
    const Bytes body = bodyOf(10);
    writer.write(nullptr, 7);
    writer.write(body.data(), 0);
    EXPECT_EQ(target.content().length(), 0U);
    writer.write(body.data(), 10);
    writer.write(nullptr, 0);
    writer.end();
    EXPECT_EQ(opened(bytesOf(target.content()), {"alice", alice(), &identities().rsa}), body);
}

TEST(EnvelopeRefusal, WithoutATarget) {
    EnvelopeOptions options;
    CMS::EnvelopeWriter writer({alice()}, options);
    EXPECT_EQ(thrownBy([&] { writer.write(secret(5)); }).where(), "operator->");
    EXPECT_EQ(thrownBy([&] { writer.end(); }).where(), "operator->");
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.write(secret(5)); // nothing was taken before
    writer.detach();
    EXPECT_EQ(thrownBy([&] { writer.write(secret(6)); }).where(), "operator->");
    EXPECT_EQ(thrownBy([&] { writer.end(); }).where(), "operator->");
    writer.attach(target);
    writer.end();
    EXPECT_EQ(opened(bytesOf(target.content()), {"alice", alice(), &identities().rsa}), bodyOf(5));
    // What is kept needs none before the end.
    options.encoding = EnvelopeEncoding::der;
    CMS::EnvelopeWriter keeping({alice()}, options);
    keeping.write(secret(50000));
    EXPECT_EQ(thrownBy([&] { keeping.end(); }).where(), "operator->");
    Norvane::MemoryMediaOut other;
    keeping.attach(other);
    keeping.end();
    EXPECT_EQ(opened(bytesOf(other.content()), {"alice", alice(), &identities().rsa}), bodyOf(50000));
}

TEST(EnvelopeRefusal, ItselfAsTarget) {
    CMS::EnvelopeWriter writer({alice()});
    EXPECT_EQ(thrownBy<Norvane::MediaException>([&] { writer.attach(writer); }).where(), "MediaOutDecorator::attach");
    CMS::EnvelopeWriter null;
    EXPECT_EQ(thrownBy([&] { null.write(secret(1)); }).where(), "operator->");
}

TEST(EnvelopeRefusal, ATargetThatThrowsBreaksTheMessage) {
    for (const std::size_t room : {0U, 700U, 30000U}) {
        norvtest::FailingMediaOut target(room);
        CMS::EnvelopeWriter writer({alice()});
        writer.attach(target);
        EXPECT_THROW(writer.write(secret(100000)), norvtest::StreamFailure);
        const auto calls = target.body().calls;
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(1)); }), broken);
        EXPECT_EQ(endRefuses([&] { writer.end(); }), broken);
        EXPECT_EQ(target.body().calls, calls);
    }
    // While the last segment is sent.
    norvtest::FailingMediaOut target(600);
    CMS::EnvelopeWriter writer({alice()});
    writer.attach(target);
    writer.write(secret(1000));
    EXPECT_THROW(writer.end(), norvtest::StreamFailure);
    EXPECT_EQ(endRefuses([&] { writer.end(); }), broken);
}

TEST(EnvelopeRefusal, WhatIsKeptIsSentAgain) {
    for (const std::size_t length : {100U, 20000U, 200000U}) {
        EnvelopeOptions options;
        options.encoding = EnvelopeEncoding::der;
        options.temporaryFile = "/tmp/swapXXXXXX";
        norvtest::FailingMediaOut failing(500); // the head alone
        CMS::EnvelopeWriter writer({alice()}, options);
        writer.attach(failing);
        writer.write(secret(length));
        EXPECT_THROW(writer.end(), norvtest::StreamFailure);
        EXPECT_EQ(writeRefuses([&] { writer.write(secret(1)); }), "written to after its end");
        Norvane::MemoryMediaOut target;
        writer.attach(target);
        writer.end();
        EXPECT_TRUE(target.ended());
        EXPECT_EQ(opened(bytesOf(target.content()), {"alice", alice(), &identities().rsa}), bodyOf(length));
    }
}

TEST(EnvelopeRefusal, AnEndThatThrowsIsTriedAgain) {
    FailingOut failing(true);
    CMS::EnvelopeWriter writer({alice()});
    writer.attach(failing);
    writer.write(secret(10));
    EXPECT_THROW(writer.end(), std::runtime_error);
    EXPECT_THROW(writer.end(), std::runtime_error);
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.end();
    EXPECT_TRUE(target.ended());
    EXPECT_EQ(target.content().length(), 0U); // the other one has the message
}

TEST(EnvelopeRefusal, AFileThatCannotBeMade) {
    EnvelopeOptions options;
    options.encoding = EnvelopeEncoding::der;
    options.temporaryFile = "/nowhere/at/all/swapXXXXXX";
    CMS::EnvelopeWriter writer({alice()}, options);
    writer.write(secret(0x10000));
    const auto thrown = thrownBy<Norvane::MediaException>([&] { writer.write(secret(0x10000)); });
    EXPECT_EQ(thrown.where(), "SwapBufferMediaOut::write");
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    EXPECT_EQ(endRefuses([&] { writer.end(); }), broken);
}
