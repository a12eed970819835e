#include "support/Decrypting.h"
#include "support/Slots.h"

#include <norvcmsg/File.h>

#include <filesystem>
#include <type_traits>

using namespace cmstest;
using ::testing::Combine;
using ::testing::Values;

namespace {

class DecrypterBody : public ::testing::TestWithParam<std::size_t> {};
class DecrypterCipher : public ::testing::TestWithParam<Crypto::Cipher> {};

} // namespace

TEST_P(DecrypterBody, ComesOutAsItWasWhoeverEncryptedIt) {
    const Bytes body = bodyOf(GetParam());
    const auto keys = storeOfKeys({&alice()});
    for (const Bytes& structure : {encryptedByOpenssl({&alice()}, body, EVP_aes_256_cbc()),
                                   encryptedByOpenssl({&alice(), &bob()}, body, EVP_des_ede3_cbc(), CMS_STREAM),
                                   encryptedByStream({&bob(), &alice()}, body, Crypto::AES_128_CBC, 4096)}) {
        const Opened opened = openedBy(structure, keys);
        EXPECT_TRUE(opened.good);
        EXPECT_TRUE(opened.body == body) << body.size();
        EXPECT_EQ(opened.succeeded, Serials{aliceSerial});
    }
}
INSTANTIATE_TEST_SUITE_P(Decrypter, DecrypterBody, Values(0, 1, 15, 16, 17, 4095, 4096, 4097, 10000000));

TEST_P(DecrypterCipher, OpensWhatOpensslEncrypted) {
    const Bytes body = bodyOf(5003);
    const X509Stack stack(sk_X509_new_null());
    const auto certificate = alice().certificate.x509();
    sk_X509_push(stack.get(), certificate.get());
    const Bio content(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())));
    const Pkcs7 made(PKCS7_encrypt(stack.get(), content.get(), Crypto::initializeCipher(GetParam()), PKCS7_BINARY));
    ASSERT_NE(made, nullptr);
    ERR_clear_error();
    const Opened opened = openedBy(derOf(made.get()), storeOfKeys({&alice()}));
    EXPECT_TRUE(opened.good);
    EXPECT_TRUE(opened.body == body);
    EXPECT_TRUE(opened.events.empty());
}
INSTANTIATE_TEST_SUITE_P(Decrypter, DecrypterCipher,
                         Values(Crypto::DES_CBC, Crypto::IDEA_CBC, Crypto::DES_EDE3_CBC, Crypto::BF_CBC,
                                Crypto::CAST5_CBC, Crypto::AES_128_CBC, Crypto::AES_192_CBC, Crypto::AES_256_CBC));

TEST(Decrypter, ContentInPiecesOfIndefiniteLength) {
    const Bytes body = bodyOf(100000);
    const Bytes encrypted = encryptedContent(body);
    Bytes pieces{0xA0, 0x80};
    for (std::size_t at = 0; at < encrypted.size(); at += 1000) {
        const auto first = encrypted.begin() + static_cast<std::ptrdiff_t>(at);
        const auto count = static_cast<std::ptrdiff_t>(std::min<std::size_t>(1000, encrypted.size() - at));
        der::append(pieces, der::octetString(Bytes(first, first + count)));
    }
    der::append(pieces, {0, 0});
    const Opened opened =
        openedBy(envelope({.recipients = {recipient(alice())}, .content = pieces}), storeOfKeys({&alice()}));
    EXPECT_TRUE(opened.good);
    EXPECT_TRUE(opened.body == body);
}

TEST(Decrypter, ASignedStructureIsNotTried) {
    expectNothingTried(signedByOpenssl(alice(), bodyOf(100), "SHA256", 0), {notEnveloped});
}

TEST(Decrypter, OtherTypesAreNotTried) {
    expectNothingTried(norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"), der::octetString({65})),
                       {notEnveloped});
    const RecordedLog log;
    PiecewiseIn in(norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"), der::octetString({65})));
    Norvane::NullMediaOut out;
    CMS::DecrypterMediaIn(in, storeOfKeys({})).write(out);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().fields, std::vector<std::string>{" "});
}

TEST(Decrypter, AnUnknownTypeIsLoggedAsUnknownToo) {
    expectNothingTried(norvauthority::contentInfo({0x2A, 0x03, 0x04}, der::octetString({65})),
                       {0x300005D, notEnveloped});
}

TEST(Decrypter, AuthenticatedEnvelopedDataIsRefused) {
    const Bytes structure = encryptedByOpenssl({&alice()}, bodyOf(100), EVP_aes_128_gcm());
    expectNothingTried(structure, {0x300005D, notEnveloped});
}

TEST(Decrypter, KeyAgreementDoesNotDecode) {
    const Bytes structure = encryptedByOpenssl({&identities().ec}, bodyOf(100), EVP_aes_128_cbc());
    const RecordedLog log;
    PiecewiseIn in(structure);
    const Caught failure = caught([&] { const CMS::DecrypterMediaIn decrypter(in, storeOfKeys({})); });
    EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.line, 389U);
    EXPECT_EQ(log.events(), Events{0x300005E});
}

TEST(Decrypter, AnEnvelopeWithoutEncryptedContentIsLoggedWithSourceAndLine) {
    const Bytes structure = envelope({.recipients = {recipient(alice())}});
    expectNothingTried(structure, {contentMissing});
    const RecordedLog log;
    PiecewiseIn in(structure);
    Norvane::NullMediaOut out;
    CMS::DecrypterMediaIn(in, storeOfKeys({&alice()})).write(out);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().fields, (std::vector<std::string>{"CMSEncryptionMedia.cpp", "250"}));
}

TEST(Decrypter, AnEnvelopedTypeWithoutAnEnvelopeHasNoContent) {
    expectNothingTried(norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010703"), std::nullopt),
                       {contentMissing});
}

TEST(Decrypter, AnEnvelopeWithoutRecipientsGivesNothing) {
    expectNothingTried(handMade(bodyOf(10), {}), {});
    expectNothingTried(encryptedByStream({}, bodyOf(10)), {});
}

TEST(Decrypter, EmptyEncryptedContentFails) {
    const Opened opened = openedBy(envelope({.recipients = {recipient(alice())}, .content = contentElement({})}),
                                   storeOfKeys({&alice()}));
    EXPECT_FALSE(opened.good);
    EXPECT_EQ(opened.failed, Serials{aliceSerial});
    EXPECT_EQ(opened.events, Events{attemptFailed});
}

TEST(Decrypter, CiphersThatCannotBeUsedFail) {
    const Bytes iv = initializationVector();
    const Bytes shortIv(15, 1);
    const Bytes longIv(17, 1);
    const std::vector<Bytes> ciphers{
        der::sequence({der::oid("1.2.3.4.5"), der::octetString(iv)}),        // unknown
        der::sequence({der::oid("SHA256"), der::octetString(iv)}),           // a digest
        der::sequence({der::oid("AES-128-CBC"), der::octetString(shortIv)}), // wrong lengths of the vector
        der::sequence({der::oid("AES-128-CBC"), der::octetString(longIv)}),  //
        der::sequence({der::oid("AES-128-CBC"), der::octetString({})}),      //
        der::sequence({der::oid("AES-128-CBC"), der::null()}),               // other parameters
        der::sequence({der::oid("AES-128-CBC")}),                            // none
        der::sequence({der::oid("id-aes128-GCM"), der::octetString(iv)}),    // authenticated
        der::sequence({der::oid("id-aes128-wrap"), der::octetString(iv)}),   // for keys
    };
    for (const Bytes& cipher : ciphers) {
        const Opened opened = openedBy(envelope({.recipients = {recipient(alice())},
                                                 .cipher = cipher,
                                                 .content = contentElement(encryptedContent(bodyOf(100)))}),
                                       storeOfKeys({&alice()}));
        EXPECT_FALSE(opened.good) << norvauthority::toHex(cipher);
        EXPECT_NE(opened.body, bodyOf(100));
        EXPECT_EQ(opened.failed, Serials{aliceSerial});
        EXPECT_EQ(opened.events, Events{attemptFailed});
    }
}

TEST(Decrypter, AStreamCipherNeedsNoVector) {
    const Bytes body = bodyOf(1000);
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    Bytes content(body.size());
    int length = 0;
    ASSERT_EQ(EVP_EncryptInit_ex(context.get(), EVP_rc4(), nullptr, contentKey().data(), nullptr), 1);
    ASSERT_EQ(EVP_EncryptUpdate(context.get(), content.data(), &length, body.data(), static_cast<int>(body.size())), 1);
    const Bytes structure = envelope({.recipients = {recipient(alice())},
                                      .cipher = der::sequence({der::oid("1.2.840.113549.3.4")}),
                                      .content = contentElement(content)});
    EXPECT_EQ(openedBy(structure, storeOfKeys({&alice()})).body, body);
}

TEST(Decrypter, ContentThatIsNoWholeNumberOfBlocksFails) {
    Bytes content = encryptedContent(bodyOf(100));
    for (const std::size_t length : {1U, 15U, 17U, 111U}) {
        content.resize(length);
        const Opened opened =
            openedBy(envelope({.recipients = {recipient(alice())}, .content = contentElement(content)}),
                     storeOfKeys({&alice()}));
        EXPECT_FALSE(opened.good) << length;
        EXPECT_EQ(opened.failed, Serials{aliceSerial});
        content = encryptedContent(bodyOf(100));
    }
}

// Deliberate: what was decrypted before the damage is out already. Callers discard it when nothing succeeded.
TEST(Decrypter, AFailedAttemptOnDamagedContentMayHaveWritten) {
    const Bytes body = bodyOf(20000);
    Bytes content = encryptedContent(body);
    content.pop_back();
    const Opened opened = openedBy(envelope({.recipients = {recipient(alice())}, .content = contentElement(content)}),
                                   storeOfKeys({&alice()}));
    EXPECT_FALSE(opened.good);
    EXPECT_EQ(opened.failed, Serials{aliceSerial});
    ASSERT_FALSE(opened.body.empty());
    EXPECT_TRUE(std::equal(opened.body.begin(), opened.body.end(), body.begin()));
}

TEST(Decrypter, WhatTheTargetThrowsReachesTheCallerAndIsNoFailedKey) {
    const RecordedLog log;
    const Bytes body = bodyOf(100000);
    PiecewiseIn in(handMade(body, {recipient(bob()), recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    for (const unsigned int room : {0U, 5000U, 50000U, 99999U}) {
        Norvane::MediaOut full = x509testing::fullMediaOut(room);
        EXPECT_THROW(decrypter.write(full), Norvane::MediaException);
        EXPECT_EQ(ERR_peek_error(), 0UL);
        EXPECT_FALSE(decrypter.decryptionSucceeded());
    }
    EXPECT_EQ(decrypter.failed().size(), 4U) << "the one without a key, each time";
    for (const auto& failed : decrypter.failed()) {
        EXPECT_EQ(failed.serialNumber()->hex(), bobSerial);
    }
    Norvane::MemoryMediaOut whole;
    decrypter.write(whole);
    EXPECT_TRUE(decrypter.decryptionSucceeded());
    EXPECT_TRUE(bytesOf(whole.content()) == body);
}

TEST(Decrypter, AFullDiskReachesTheCaller) {
    PiecewiseIn in(handMade(bodyOf(1000000), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::FileMediaOut full{Norvane::File::Path("/dev/full")};
    EXPECT_THROW(
        {
            decrypter.write(full);
            full.end();
        },
        Norvane::MediaException);
    EXPECT_TRUE(decrypter.failed().empty());
}

TEST(Decrypter, ANullTargetThrowsAsANullHandle) {
    PiecewiseIn in(handMade(bodyOf(100), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::MediaOut none;
    EXPECT_EQ(caught([&] { decrypter.write(none); }).where, "operator->");
    EXPECT_FALSE(decrypter.decryptionSucceeded());
}

TEST(Decrypter, ByteWiseReadingGivesNothingAtOnce) {
    const RecordedLog log;
    PiecewiseIn in(handMade(bodyOf(100), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    unsigned char bytes[8]{};
    EXPECT_EQ(decrypter.read(bytes, 8), 0);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().event, byteWiseRead);
    EXPECT_EQ(log.records().front().level, 0);
    EXPECT_EQ(log.records().front().fields,
              std::vector<std::string>{
                  "virtual int Norvane::Crypto::CMS::DecrypterMediaInImpl::read(Norvane::uchar_t*, Norvane::uint_t)"});
    EXPECT_FALSE(decrypter.atEnd());
    EXPECT_EQ(decrypter.peek(), 0);
    std::string text;
    Buffer buffer;
    EXPECT_EQ(decrypter.read(text), 0);
    EXPECT_EQ(decrypter.read(buffer), 0);
    EXPECT_EQ(decrypter.read(buffer, 100), 0);
    EXPECT_FALSE(decrypter.readline(buffer));
    EXPECT_EQ(log.events(), Events(5, byteWiseRead));
}

TEST(Decrypter, WritingThroughABaseHandleDecryptsAsWell) {
    const Bytes body = bodyOf(100);
    PiecewiseIn in(handMade(body, {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::MediaIn copy(decrypter);
    Norvane::MemoryMediaOut out;
    copy.write(out);
    EXPECT_EQ(bytesOf(out.content()), body);
    EXPECT_TRUE(decrypter.decryptionSucceeded());
}

// Deliberate: nothing remembers that the body is out.
TEST(Decrypter, ASecondWriteTriesAgainAndRecordsAgain) {
    const RecordedLog log;
    const Bytes body = bodyOf(100);
    PiecewiseIn in(handMade(body, {recipient(bob()), recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    decrypter.write(out);
    EXPECT_EQ(out.content().length(), 200U);
    EXPECT_EQ(decrypter.failed().size(), 2U);
    EXPECT_EQ(decrypter.succeeded().size(), 2U);
}

TEST(Decrypter, RecordsOutliveTheStructureAndCompareByText) {
    const RecordedLog log;
    std::list<CMS::DecrypterMediaIn::Identifier> failed;
    std::list<CMS::DecrypterMediaIn::DecryptedOutput> succeeded;
    {
        PiecewiseIn in(handMade(bodyOf(100), {recipient(bob()), recipient(alice())}));
        CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
        Norvane::NullMediaOut out;
        decrypter.write(out);
        failed = decrypter.failed();
        succeeded = decrypter.succeeded();
    }
    EXPECT_EQ(failed.front().issuer()->asString(), "O=Mail,CN=Test Authority");
    EXPECT_EQ(*failed.front().serialNumber(), certificateOf(bob())->serialNumber());
    EXPECT_EQ(succeeded.front().identifier().issuer()->asString(), certificateOf(alice())->issuer().asString());
    EXPECT_EQ(*succeeded.front().identifier().serialNumber(), certificateOf(alice())->serialNumber());
    EXPECT_EQ(succeeded.front().output().length(), 0UL);
    EXPECT_FALSE(succeeded.front().output().isSwapped());
}

// Deliberate: the record's issuer went through its text.
TEST(Decrypter, ARecordLosesWhatTheTextFormOfANameCannotCarry) {
    const norvauthority::Name issuer{{"CN", "Root"}, {"emailAddress", "root@example.org", 22}};
    const RecordedLog log;
    PiecewiseIn in(handMade(bodyOf(10), {recipientInfo(issuer.der(), "5", Bytes(256, 1))}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({}));
    Norvane::NullMediaOut out;
    decrypter.write(out);
    ASSERT_EQ(decrypter.failed().size(), 1U);
    EXPECT_EQ(decrypter.failed().front().issuer()->asString(), "CN=Root");
    EXPECT_EQ(log.records().front().fields.front(), "emailAddress=root@example.org,CN=Root");
}

TEST(Decrypter, RecordsMadeOfHandlesShareThem) {
    const NVX509::RefDistinguishedName issuer(std::string("CN=Root"));
    const Crypto::ASN1::RefInteger serial(certificateOf(bob())->serialNumber());
    const CMS::DecrypterMediaIn::Identifier identifier(issuer, serial);
    const CMS::DecrypterMediaIn::DecryptedOutput output(issuer, serial);
    EXPECT_EQ(identifier.issuer(), issuer);
    EXPECT_EQ(output.identifier().issuer(), issuer);
    EXPECT_EQ(&*identifier.serialNumber(), &*serial);
    EXPECT_EQ(&*output.identifier().serialNumber(), &*serial);
}

// Nobody here writes to it; whoever does finds a sink that keeps as much in memory, and then a file of that template.
TEST(Decrypter, TheOutputOfARecordKeeps65536BytesInMemory) {
    const CMS::DecrypterMediaIn::DecryptedOutput record(NVX509::RefDistinguishedName(std::string("CN=Root")),
                                                        Crypto::ASN1::RefInteger(certificateOf(bob())->serialNumber()));
    Norvane::SwapBufferMediaOut output(record.output());
    output.write(bodyOf(65536).data(), 65536);
    EXPECT_FALSE(output.isSwapped());
    try {
        output.write(bodyOf(1).data(), 1);
        EXPECT_TRUE(output.isSwapped() && std::filesystem::is_directory("/var/spool/tmp"));
    } catch (const Norvane::MediaException& failure) { // where that folder is missing
        EXPECT_NE(failure.asString().find("/var/spool/tmp/swapXXXXXX"), std::string::npos) << failure.asString();
    }
}

TEST(Decrypter, ItsBodyIsAskedFor) {
    PiecewiseIn in(handMade(bodyOf(10), {recipient(alice())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({}));
    static_cast<Norvane::MediaIn&>(decrypter) = Norvane::MemoryMediaIn(std::string("x"));
    Norvane::NullMediaOut out;
    for (const auto& failure :
         {caught([&] { decrypter.write(out); }), caught([&] { static_cast<void>(decrypter.failed()); })}) {
        EXPECT_EQ(failure.where, "CMS::DecrypterMediaIn");
        EXPECT_EQ(failure.code, 1);
        EXPECT_EQ(failure.file, "CMSEncryptionMedia");
    }
}

TEST(Decrypter, UndecodableInputThrowsAtConstruction) {
    const RecordedLog log;
    PiecewiseIn in(bytesOf(std::string("no structure")));
    const Caught failure = caught([&] { const CMS::DecrypterMediaIn decrypter(in, storeOfKeys({})); });
    EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.details, std::vector<std::string>{"ASN1 Decode failed:"});
    EXPECT_EQ(log.events(), Events{0x300005E});
}

TEST(Decrypter, WhatTheSourceThrowsPassesUnchanged) {
    PiecewiseIn in(handMade(bodyOf(5000), {recipient(alice())}), 100, 1000);
    EXPECT_THROW(CMS::DecrypterMediaIn(in, storeOfKeys({})), std::runtime_error);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(Decrypter, IsNotCopiedAndItsOperationsStandInTheSlotsOfASource) {
    static_assert(!std::is_copy_constructible_v<CMS::DecrypterMediaIn>);
    static_assert(std::is_base_of_v<Norvane::NonCopyable, CMS::DecrypterMediaIn>);
    static_assert(std::is_copy_constructible_v<CMS::DecrypterMediaIn::DecryptedOutput>);
    using Body = CMS::DecrypterMediaInImpl;
    EXPECT_EQ(norvtest::slotOf(&Body::atEnd), 2U);
    EXPECT_EQ(norvtest::slotOf(&Body::peek), 3U);
    EXPECT_EQ(norvtest::slotOf(static_cast<int (Body::*)(unsigned char*, unsigned int)>(&Body::read)), 8U);
    EXPECT_EQ(norvtest::slotOf(static_cast<Norvane::MediaOut& (Body::*)(Norvane::MediaOut&)>(&Body::write)), 11U);
}

TEST(Decrypter, IdentifiersAreMadeOfWhatAStructureNames) {
    const CMS::RefContentInfo structure = [] {
        PiecewiseIn in(encryptedByOpenssl({&alice(), &bob()}, bodyOf(10), EVP_aes_256_cbc()));
        return CMS::RefContentInfo(in);
    }();
    const CMS::EnvelopedData envelope = CMS::envelopedData(structure);
    const CMS::IssuerAndSerialNumber& named = envelope.recipientInfo().front().issuerAndSerialNumber();
    const CMS::DecrypterMediaIn::Identifier identifier(named);
    EXPECT_TRUE(*identifier.serialNumber() == named.serialNumber());
    EXPECT_EQ(identifier.issuer()->asString(), named.issuer().asString());
    const CMS::DecrypterMediaIn::DecryptedOutput output(named);
    EXPECT_EQ(output.identifier().issuer()->asString(), named.issuer().asString());
    EXPECT_TRUE(*output.identifier().serialNumber() == named.serialNumber());
    EXPECT_EQ(output.output().tell(), 0U) << "always empty";
}
