#include "support/Envelope.h"
#include "support/Slots.h"

#include <norvcmsg/File.h>

using namespace cmstest;
using Crypto::Cipher;
using ::testing::Combine;
using ::testing::Values;

namespace {

/// Everybody decrypts what was made, by OpenSSL's own call and by the library's stream.
void expectOpens(const Bytes& structure, const std::vector<const Identity*>& people, const Bytes& body) {
    for (const Identity* person : people) {
        const auto opened = openedByOpenssl(structure, *person);
        ASSERT_TRUE(opened);
        EXPECT_TRUE(*opened == body) << body.size() << " bytes for " << person->serial;
        EXPECT_TRUE(openedBy(structure, storeOfKeys({person})).body == body);
    }
}

/// The content key, as alice opens it, and the vector.
std::pair<Bytes, Bytes> keyAndVectorOf(const Bytes& structure) {
    const unsigned char* at = structure.data();
    const std::unique_ptr<PKCS7, decltype(&PKCS7_free)> decoded(
        d2i_PKCS7(nullptr, &at, static_cast<long>(structure.size())), PKCS7_free);
    const PKCS7_ENVELOPE* enveloped = decoded->d.enveloped;
    const ASN1_OCTET_STRING* wrapped = sk_PKCS7_RECIP_INFO_value(enveloped->recipientinfo, 0)->enc_key;
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(alice().key.get(), nullptr), EVP_PKEY_CTX_free);
    Bytes key(512);
    std::size_t length = key.size();
    EXPECT_EQ(EVP_PKEY_decrypt_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_decrypt(context.get(), key.data(), &length, ASN1_STRING_get0_data(wrapped),
                               static_cast<std::size_t>(ASN1_STRING_length(wrapped))),
              1);
    key.resize(length);
    const ASN1_OCTET_STRING* vector = enveloped->enc_data->algorithm->parameter->value.octet_string;
    return {key, Bytes(ASN1_STRING_get0_data(vector), ASN1_STRING_get0_data(vector) + ASN1_STRING_length(vector))};
}

CMS::RefContentInfo decoded(const Bytes& structure) {
    PiecewiseIn in(structure);
    const CMS::RefContentInfo message(in);
    EXPECT_TRUE(in.atEnd()) << "something follows the structure";
    return message;
}

class Encrypter : public ::testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    void TearDown() override { ERR_clear_error(); }
};

class EncrypterBody : public ::testing::TestWithParam<std::tuple<std::size_t, std::size_t>> {};
class EncrypterCipher : public ::testing::TestWithParam<std::tuple<Cipher, const char*>> {};

} // namespace

TEST_P(EncrypterBody, OpensWithOpenssl) {
    const auto [length, piece] = GetParam();
    const Bytes body = bodyOf(length);
    expectOpens(encryptedByStream({&alice()}, body, Crypto::AES_128_CBC, piece), {&alice()}, body);
}
INSTANTIATE_TEST_SUITE_P(Encrypter, EncrypterBody,
                         Combine(Values(0, 1, 15, 16, 17, 4095, 4096, 4097, 65519, 65520, 65536, 200000),
                                 Values(0, 1000, 4096, 4097)));

TEST_F(Encrypter, TenMegabytesInOneWriteAndInMany) {
    const Bytes body = bodyOf(10000000);
    expectOpens(encryptedByStream({&alice()}, body), {&alice()}, body);
    expectOpens(encryptedByStream({&alice()}, body, Crypto::AES_256_CBC, 65521), {&alice()}, body);
}

TEST_F(Encrypter, WritesOfAllSizesMixedKeepTheirOrder) {
    const Bytes body = bodyOf(300000);
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_192_CBC, certificatesOf({&bob()}));
    encrypter.attach(target);
    writeMixed(encrypter, body);
    encrypter.end();
    expectOpens(bytesOf(target.content()), {&bob()}, body);
}

TEST_F(Encrypter, LongPiecesOfLengthsThatFillNoBlock) {
    for (const auto cipher : {Crypto::AES_256_CBC, Crypto::DES_EDE3_CBC}) {
        for (const std::size_t piece : {8193U, 16383U, 65535U, 65537U, 100001U, 1048577U}) {
            const Bytes body = bodyOf(1700003);
            expectOpens(encryptedByStream({&alice()}, body, cipher, piece), {&alice()}, body);
        }
    }
}

// Memory changes its size after half a mebibyte, and again is full a mebibyte later.
TEST_F(Encrypter, BodiesAroundWhereMemoryIsAdded) {
    for (const std::size_t place : {65536U, 524288U, 1572864U}) {
        for (const std::size_t length : {place - 17, place - 16, place - 1, place, place + 1, place + 16}) {
            const Bytes body = bodyOf(length);
            for (const std::size_t piece : {4000U, 9001U, 2000000U}) {
                expectOpens(encryptedByStream({&alice()}, body, Crypto::AES_128_CBC, piece), {&alice()}, body);
            }
        }
    }
}

namespace {

/// Notes the lengths of what it gets.
class LengthsOut : public Norvane::MediaOutImpl {
public:
    explicit LengthsOut(std::vector<unsigned int>& lengths) : m_lengths(lengths) {}
    using MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int length) override { m_lengths.push_back(length); }

private:
    std::vector<unsigned int>& m_lengths;
};

} // namespace

TEST_F(Encrypter, SendsTheContentInPiecesOf64KilobytesHoweverItCame) {
    for (const std::size_t piece : {4096U, 16384U, 2000000U}) {
        std::vector<unsigned int> lengths;
        Norvane::MediaOut target(Norvane::adoptReference<Norvane::MediaOutImpl>(new LengthsOut(lengths)));
        CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
        encrypter.attach(target);
        writeInPieces(encrypter, bodyOf(1700000), piece);
        encrypter.end();
        std::vector<unsigned int> expected(25, 65536);
        expected.push_back(1700000 / 16 * 16 + 16 - 25 * 65536);
        ASSERT_EQ(lengths.size(), 27U);
        EXPECT_EQ(std::vector<unsigned int>(lengths.begin() + 1, lengths.end()), expected) << "behind the head";
    }
}

TEST_P(EncrypterCipher, IsNamedAndOpens) {
    const auto [cipher, identifier] = GetParam();
    const Bytes body = bodyOf(5001);
    const Bytes structure = encryptedByStream({&alice(), &bob()}, body, cipher, 999);
    const CMS::RefContentInfo message = decoded(structure);
    EXPECT_EQ(CMS::envelopedData(message).contentInfo().algorithm().asString(), identifier);
    expectOpens(structure, {&alice(), &bob()}, body);
}
INSTANTIATE_TEST_SUITE_P(Encrypter, EncrypterCipher,
                         Values(std::tuple{Crypto::DES_CBC, "1.3.14.3.2.7"},
                                std::tuple{Crypto::IDEA_CBC, "1.3.6.1.4.1.188.7.1.1.2"},
                                std::tuple{Crypto::DES_EDE3_CBC, "1.2.840.113549.3.7"},
                                std::tuple{Crypto::BF_CBC, "1.3.6.1.4.1.3029.1.2"},
                                std::tuple{Crypto::CAST5_CBC, "1.2.840.113533.7.66.10"},
                                std::tuple{Crypto::AES_128_CBC, "2.16.840.1.101.3.4.1.2"},
                                std::tuple{Crypto::AES_192_CBC, "2.16.840.1.101.3.4.1.22"},
                                std::tuple{Crypto::AES_256_CBC, "2.16.840.1.101.3.4.1.42"}));

TEST_F(Encrypter, GivesAnEnvelopedStructureThatDecodes) {
    const Bytes structure = encryptedByStream({&alice()}, bodyOf(17), Crypto::AES_128_CBC);
    const CMS::RefContentInfo message = decoded(structure);
    EXPECT_EQ(static_cast<int>(message->typeAsEnum()), 3);
    const CMS::EnvelopedData data = CMS::envelopedData(message);
    EXPECT_EQ(data.version().asInt(), 0);
    EXPECT_EQ(data.contentInfo().contentType().asString(), "1.2.840.113549.1.7.1");
    EXPECT_EQ(data.contentInfo().data().length(), 32U) << "17 bytes are padded to two blocks";
}

// What we encode around the content is what OpenSSL's own encoder makes of the whole.
TEST_F(Encrypter, IsDistinguishedEncoding) {
    for (const std::size_t length : {0U, 1U, 100U, 127U, 128U, 255U, 256U, 60000U, 65535U, 65536U, 70000U}) {
        const Bytes structure = encryptedByStream({&alice(), &bob()}, bodyOf(length));
        const unsigned char* at = structure.data();
        const Pkcs7 again(d2i_PKCS7(nullptr, &at, static_cast<long>(structure.size())));
        ASSERT_NE(again, nullptr);
        EXPECT_TRUE(derOf(again.get()) == structure) << length;
    }
}

TEST_F(Encrypter, AnEmptyListGivesAStructureThatNobodyCanRead) {
    const Bytes structure = encryptedByStream({}, bodyOf(100));
    const CMS::RefContentInfo message = decoded(structure);
    EXPECT_EQ(static_cast<int>(message->typeAsEnum()), 3);
    EXPECT_TRUE(CMS::envelopedData(message).recipientInfo().empty());
    EXPECT_EQ(CMS::envelopedData(message).contentInfo().data().length(), 112U);
    EXPECT_FALSE(openedByOpenssl(structure, alice()));
}

// DER sorts a SET OF: recipients are read back in the order of their encodings, which begin alike up to the serial.
TEST_F(Encrypter, TwoRecipientsAreNamedByIssuerAndSerialNumber) {
    for (const auto& people :
         {std::vector<const Identity*>{&alice(), &bob()}, std::vector<const Identity*>{&bob(), &alice()}}) {
        const Bytes structure = encryptedByStream(people, bodyOf(10));
        const CMS::RefContentInfo message = decoded(structure);
        const CMS::EnvelopedData data = CMS::envelopedData(message);
        ASSERT_EQ(data.recipientInfo().size(), 2U);
        const auto& first = data.recipientInfo().front().issuerAndSerialNumber();
        const auto& second = data.recipientInfo().back().issuerAndSerialNumber();
        EXPECT_EQ(first.serialNumber().hex(), "0b0b");
        EXPECT_EQ(second.serialNumber().hex(), "0a11ce");
        EXPECT_EQ(first.issuer().asString(), "O=Mail,CN=Test Authority");
        EXPECT_EQ(second.issuer().asString(), "O=Mail,CN=Test Authority");
    }
}

TEST_F(Encrypter, ACertificateTwiceGivesTwoRecipients) {
    const Bytes body = bodyOf(40);
    const Bytes structure = encryptedByStream({&alice(), &alice()}, body);
    EXPECT_EQ(CMS::envelopedData(decoded(structure)).recipientInfo().size(), 2U);
    expectOpens(structure, {&alice()}, body);
}

TEST_F(Encrypter, AThousandRecipients) {
    const Bytes body = bodyOf(40);
    std::list<NVX509::RefCertificate> recipients(999, certificateOf(bob()));
    recipients.push_back(certificateOf(alice()));
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, recipients);
    encrypter.attach(target);
    writeInPieces(encrypter, body);
    encrypter.end();
    const Bytes structure = bytesOf(target.content());
    EXPECT_EQ(CMS::envelopedData(decoded(structure)).recipientInfo().size(), 1000U);
    expectOpens(structure, {&alice()}, body);
}

TEST_F(Encrypter, TwoStreamsUseTwoKeysAndVectors) {
    const auto [key, vector] = keyAndVectorOf(encryptedByStream({&alice()}, bodyOf(100)));
    const auto [otherKey, otherVector] = keyAndVectorOf(encryptedByStream({&alice()}, bodyOf(100)));
    EXPECT_EQ(key.size(), otherKey.size());
    EXPECT_EQ(vector.size(), 16U);
    EXPECT_NE(key, otherKey);
    EXPECT_NE(vector, otherVector);
}

TEST_F(Encrypter, WritesNothingBeforeItsEndAndEndsItsTarget) {
    Norvane::MemoryMediaOut target;
    {
        CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
        encrypter.attach(target);
        writeInPieces(encrypter, bodyOf(100000));
    }
    EXPECT_EQ(target.content().length(), 0U);
    EXPECT_FALSE(target.ended());
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    encrypter.attach(target);
    encrypter.end();
    EXPECT_GT(target.content().length(), 0U);
    EXPECT_TRUE(target.ended());
}

// Deliberate: the flag that detaches a signature is asked for here as well, and its refusal stays in the queue.
TEST_F(Encrypter, EndingLeavesTheRefusalOfTheDetachedFlagInTheQueue) {
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    encrypter.attach(target);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    encrypter.end();
    const unsigned long entry = ERR_get_error();
    EXPECT_EQ(ERR_GET_LIB(entry), ERR_LIB_PKCS7);
    EXPECT_EQ(ERR_GET_REASON(entry), PKCS7_R_OPERATION_NOT_SUPPORTED_ON_THIS_TYPE);
    EXPECT_EQ(ERR_get_error(), 0UL);
    encrypter.end();
    EXPECT_EQ(ERR_get_error(), 0UL) << "the structure is finished";
}

TEST_F(Encrypter, ASecondEndSendsTheSameStructureAgain) {
    const Bytes body = bodyOf(5000);
    Norvane::MemoryMediaOut first;
    Norvane::MemoryMediaOut second;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_256_CBC, certificatesOf({&alice()}));
    encrypter.attach(first);
    writeInPieces(encrypter, body, 1000);
    encrypter.end();
    encrypter.attach(second);
    encrypter.end();
    EXPECT_EQ(bytesOf(first.content()), bytesOf(second.content()));
    EXPECT_TRUE(second.ended());
    encrypter.end();
    EXPECT_EQ(second.content().length(), 2 * first.content().length());
    expectOpens(bytesOf(first.content()), {&alice()}, body);
}

// Deliberate: the structure is finished, there is no place for them.
TEST_F(Encrypter, BytesWrittenAfterTheEndAreDropped) {
    const Bytes body = bodyOf(5000);
    Norvane::MemoryMediaOut first;
    Norvane::MemoryMediaOut second;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_256_CBC, certificatesOf({&alice()}));
    encrypter.attach(first);
    writeInPieces(encrypter, body);
    encrypter.end();
    encrypter.attach(second);
    writeInPieces(encrypter, bodyOf(100000), 3000);
    encrypter.end();
    EXPECT_EQ(bytesOf(first.content()), bytesOf(second.content()));
}

TEST_F(Encrypter, HandlesShareOneStream) {
    const Bytes body = bodyOf(200);
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    Norvane::MediaOut other = encrypter;
    encrypter.attach(target);
    encrypter.write(body.data(), 100);
    other.write(body.data() + 100, 100);
    other.end();
    expectOpens(bytesOf(target.content()), {&alice()}, body);
}

TEST_F(Encrypter, ADefaultHandleFailsAsANullHandle) {
    CMS::EncrypterMediaOut none;
    EXPECT_TRUE(none.isNull());
    Norvane::MemoryMediaOut target;
    for (const auto& failure :
         {caught([&] { none.attach(target); }), caught([&] { none.detach(); }), caught([&] { none.end(); }),
          caught([&] { none.write(Buffer()); }), caught([&] { none.write(nullptr, 0); })}) {
        EXPECT_EQ(failure.where, "operator->");
        EXPECT_EQ(failure.code, 1);
    }
    none = CMS::EncrypterMediaOut(Crypto::AES_128_CBC, {});
    EXPECT_FALSE(none.isNull());
}

TEST_F(Encrypter, AttachAsksForItsOwnKindOfBody) {
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, {});
    static_cast<Norvane::MediaOut&>(encrypter) = Norvane::NullMediaOut();
    Norvane::MemoryMediaOut target;
    for (const auto& failure : {caught([&] { encrypter.attach(target); }), caught([&] { encrypter.detach(); })}) {
        EXPECT_EQ(failure.where, "CMS::EncrypterMediaOut::attach");
        EXPECT_EQ(failure.code, 1);
        EXPECT_EQ(failure.file, "CMSEncryptionMedia");
    }
}

TEST_F(Encrypter, IsNotItsOwnTarget) {
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, {});
    const Caught failure = caught([&] { encrypter.attach(encrypter); });
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOut::attach");
    EXPECT_EQ(failure.details, std::vector<std::string>{"a stream cannot be its own target"});
    EXPECT_EQ(encrypter->referenceCount(), 1);
}

TEST_F(Encrypter, WithoutATargetEndThrowsAndALaterOneSends) {
    const Bytes body = bodyOf(100);
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    encrypter.attach(target);
    encrypter.detach();
    writeInPieces(encrypter, body);
    const Caught failure = caught([&] { encrypter.end(); });
    EXPECT_EQ(failure.where, "operator->");
    EXPECT_EQ(failure.code, 1);
    encrypter.attach(target);
    encrypter.end();
    expectOpens(bytesOf(target.content()), {&alice()}, body);
}

TEST_F(Encrypter, WhatTheTargetThrowsPassesUnchangedAndAnotherTargetGetsItAll) {
    const Bytes body = bodyOf(5000);
    for (const bool onEnd : {false, true}) {
        CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
        FailingOut failing(onEnd);
        encrypter.attach(failing);
        writeInPieces(encrypter, body);
        std::string what;
        try {
            encrypter.end();
        } catch (const std::runtime_error& failure) {
            what = failure.what();
        }
        EXPECT_EQ(what, onEnd ? "the close failed" : "the disk is full");
        Norvane::MemoryMediaOut target;
        encrypter.attach(target);
        encrypter.end();
        expectOpens(bytesOf(target.content()), {&alice()}, body);
    }
}

TEST_F(Encrypter, ATargetThatFailsInTheMiddleGetsABeginningAndLeavesNoLeak) {
    const Bytes body = bodyOf(300000);
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    for (const unsigned int room : {0U, 1U, 400U, 70000U, 200000U}) {
        Norvane::MediaOut full = x509testing::fullMediaOut(room);
        encrypter.attach(full);
        writeInPieces(encrypter, body);
        EXPECT_THROW(encrypter.end(), Norvane::MediaException);
    }
}

TEST_F(Encrypter, AFullDiskReachesTheCallerAndAnotherTargetGetsItAll) {
    const Bytes body = bodyOf(300000);
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    Norvane::FileMediaOut full{Norvane::File::Path("/dev/full")};
    encrypter.attach(full);
    writeInPieces(encrypter, body, 10000);
    EXPECT_THROW(encrypter.end(), Norvane::MediaException);
    Norvane::MemoryMediaOut target;
    encrypter.attach(target);
    encrypter.end();
    expectOpens(bytesOf(target.content()), {&alice()}, body);
}

TEST_F(Encrypter, ItsBodyIsAMediaOutImplWithOneReference) {
    const CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, {});
    EXPECT_NE(dynamic_cast<CMS::EncrypterMediaOutImpl*>(encrypter.operator->()), nullptr);
    EXPECT_EQ(encrypter->referenceCount(), 1);
}

TEST_F(Encrypter, ItsOperationsStandInTheSlotsOfASink) {
    using Body = CMS::EncrypterMediaOutImpl;
    EXPECT_EQ(norvtest::slotOf(static_cast<void (Body::*)(const Buffer&)>(&Body::write)), 2U);
    EXPECT_EQ(norvtest::slotOf(static_cast<void (Body::*)(const unsigned char*, unsigned int)>(&Body::write)), 3U);
    EXPECT_EQ(norvtest::slotOf(&Body::end), 4U);
}

TEST_F(Encrypter, KeepsItsRecipientsAlive) {
    const Bytes body = bodyOf(50);
    auto encrypter = [&] {
        const auto recipients = certificatesOf({&alice()});
        return CMS::EncrypterMediaOut(Crypto::AES_128_CBC, recipients);
    }();
    Norvane::MemoryMediaOut target;
    encrypter.attach(target);
    writeInPieces(encrypter, body);
    encrypter.end();
    expectOpens(bytesOf(target.content()), {&alice()}, body);
}
