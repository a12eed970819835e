// The content of messages on its way through OpenSSL: what fails on the way is told, whatever it is. This file stands in for functions
// that cannot be made to fail from outside, which go on to the real ones unless a test says otherwise.
#include "framing/Reader.h"
#include "openssl/ContentChain.h"
#include "openssl/ContentDecryption.h"
#include "openssl/EncryptedOctets.h"
#include "openssl/LazyPkcs7.h"
#include "openssl/PaddedDecryption.h"
#include "openssl/Pkcs7.h"
#include "openssl/StructureOctets.h"

#include "support/Interpose.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <authority/Authority.h>

#include <openssl/err.h>
#include <openssl/pkcs7.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace {

int s_wrongSignatures = 0; // how many of the next ones are
int s_finals = 0;
int s_encryptedHere = 0;
bool s_flushFails = false;
int s_decryptions = 0; // after which they fail; 0: they do not
bool s_writingNothing = false;
std::vector<std::pair<const void*, int>> s_written;

} // namespace

extern "C" int PKCS7_dataFinal(PKCS7* structure, BIO* chain) {
    ++s_finals;
    const int answer = norvtest::next<&PKCS7_dataFinal>("PKCS7_dataFinal")(structure, chain);
    if (s_wrongSignatures > 0) {
        --s_wrongSignatures;
        const PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(structure), 0);
        signer->enc_digest->data[signer->enc_digest->length - 1] ^= 1U;
    }
    return answer;
}
extern "C" int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                int length) {
    ++s_encryptedHere;
    return norvtest::next<&EVP_CipherUpdate>("EVP_CipherUpdate")(context, out, outLength, in, length);
}
extern "C" int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                 int length) {
    if (s_decryptions != 0 && --s_decryptions == 0) {
        return 0;
    }
    return norvtest::next<&EVP_DecryptUpdate>("EVP_DecryptUpdate")(context, out, outLength, in, length);
}
extern "C" long BIO_ctrl(BIO* bio, int command, long number, void* argument) {
    return s_flushFails && command == BIO_CTRL_FLUSH
               ? 0
               : norvtest::next<&BIO_ctrl>("BIO_ctrl")(bio, command, number, argument);
}
extern "C" int BIO_write(BIO* bio, const void* bytes, int length) {
    if (s_writingNothing) {
        s_written.emplace_back(bytes, length);
        return length;
    }
    return norvtest::next<&BIO_write>("BIO_write")(bio, bytes, length);
}

namespace {

using namespace Norvane::Crypto::openssl;
using norvauthority::Bytes;
using norvauthority::Identity;
using norvtest::During;
namespace der = norvauthority::der;

const Identity& signer() {
    static const Identity made =
        norvauthority::issue({.subject = {{"CN", "Signer"}}, .key = norvauthority::Key::rsa(1024)});
    return made;
}
/// Two of the same serial number and issuer, so that a message is for both.
const Identity& recipient(int which) {
    static const Identity made[]{
        norvauthority::issue({.subject = {{"CN", "Recipient"}}, .key = norvauthority::Key::rsa(1024), .serial = "1"}),
        norvauthority::issue({.subject = {{"CN", "Recipient"}}, .key = norvauthority::Key::rsa(1024), .serial = "2"})};
    return made[which];
}

Pkcs7Ptr toBeSigned() {
    Pkcs7Ptr structure(PKCS7_new());
    EXPECT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    EXPECT_NE(PKCS7_add_signature(structure.get(), signer().certificate.x509().get(), signer().key.get(), EVP_sha256()),
              nullptr);
    EXPECT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    EXPECT_EQ(PKCS7_set_detached(structure.get(), 1), 1);
    return structure;
}

const Bytes s_body = norvauthority::bytes("body");

bool signedWith(int wrongSignatures) {
    ERR_clear_error();
    const Pkcs7Ptr structure = toBeSigned();
    const auto chain = ContentChain::open(structure.get(), ContentChain::Sink::drop);
    chain->write(s_body.data(), s_body.size());
    chain->flush();
    const During<int> wrong(s_wrongSignatures, wrongSignatures);
    s_finals = 0;
    return chain->finish(structure.get());
}

TEST(ContentChain, AWrongSignatureIsMadeOnceMore) {
    EXPECT_TRUE(signedWith(0));
    EXPECT_EQ(s_finals, 1);
    EXPECT_TRUE(signedWith(1));
    EXPECT_EQ(s_finals, 2);
    EXPECT_FALSE(signedWith(2));
    EXPECT_EQ(s_finals, 2);
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), PKCS7_R_SIGNATURE_FAILURE);
    ERR_clear_error();
}

TEST(ContentChain, AFlushThatFailsFailsTheStructure) {
    const Pkcs7Ptr structure = toBeSigned();
    const auto chain = ContentChain::open(structure.get(), ContentChain::Sink::drop);
    chain->write(s_body.data(), s_body.size());
    {
        const During<bool> failing(s_flushFails, true);
        chain->flush();
    }
    EXPECT_FALSE(chain->finish(structure.get()));
    ERR_clear_error();
}

TEST(ContentChain, MoreThanOpensslCountsGoesInPieces) {
    const Pkcs7Ptr structure = toBeSigned();
    const auto chain = ContentChain::open(structure.get(), ContentChain::Sink::drop);
    static const unsigned char nothing = 0;
    const unsigned char* const from = &nothing;
    const During<bool> writing(s_writingNothing, true);
    s_written.clear();
    chain->write(from, 2 * std::size_t{INT_MAX} + 5);
    EXPECT_EQ(s_written, (std::vector<std::pair<const void*, int>>{
                             {from, INT_MAX}, {from + INT_MAX, INT_MAX}, {from + 2 * std::size_t{INT_MAX}, 5}}));
}

/// Enveloped for the first recipient, or both.
Pkcs7Ptr toBeEncrypted(bool forBoth) {
    Pkcs7Ptr structure(PKCS7_new());
    EXPECT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_enveloped), 1);
    EXPECT_EQ(PKCS7_set_cipher(structure.get(), EVP_aes_256_cbc()), 1);
    for (int i = 0; i <= static_cast<int>(forBoth); ++i) {
        EXPECT_NE(PKCS7_add_recipient(structure.get(), recipient(i).certificate.x509().get()), nullptr);
    }
    return structure;
}

Bytes collected(const ContentChain& chain) {
    Bytes all;
    chain.collected()->forEach(
        [&](const unsigned char* bytes, unsigned int length) { all.insert(all.end(), bytes, bytes + length); });
    return all;
}

/// The structure with its content in it.
Pkcs7Ptr enveloped(const Bytes& body, bool forBoth = false) {
    Pkcs7Ptr structure = toBeEncrypted(forBoth);
    const auto chain = ContentChain::open(structure.get(), ContentChain::Sink::collect);
    chain->write(body.data(), body.size());
    chain->flush();
    EXPECT_TRUE(chain->finish(structure.get()));
    const Bytes content = collected(*chain);
    ASN1_OCTET_STRING*& octets = structure->d.enveloped->enc_data->enc_data;
    ASN1_OCTET_STRING_free(octets);
    octets = ASN1_OCTET_STRING_new();
    EXPECT_EQ(ASN1_OCTET_STRING_set(octets, content.data(), static_cast<int>(content.size())), 1);
    return structure;
}

TEST(ContentChain, LongContentIsEncryptedWhereItCollects) {
    const Bytes body(1000000, 0x42);
    const Pkcs7Ptr structure = toBeEncrypted(false);
    const auto chain = ContentChain::open(structure.get(), ContentChain::Sink::collect);
    s_encryptedHere = 0;
    chain->write(body.data(), 100);
    chain->writeLong(body.data(), body.size());
    EXPECT_LT(s_encryptedHere, 30) << "OpenSSL's buffer would take it by four thousand octets";
    chain->flush();
    EXPECT_TRUE(chain->finish(structure.get()));
    EXPECT_EQ(collected(*chain).size(), 1000112U) << "whole blocks";
    EXPECT_EQ(chain->collected()->length(), 1000112U);
}

const PKCS7_RECIP_INFO* recipientOf(const PKCS7* structure, int which) {
    return sk_PKCS7_RECIP_INFO_value(structure->d.enveloped->recipientinfo, which);
}

Bytes contentOf(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return {data, data + length};
}

TEST(ContentDecryption, WhatCannotBeWrittenIsNoSuccess) {
    for (const std::size_t length : {0U, 1U, 100U, 100000U, 1000000U}) {
        const Bytes body(length, 0x42);
        const LazyPkcs7 structure(enveloped(body));
        ContentDecryption decryption(structure);
        decryption.open(recipientOf(structure.structure(), 0), recipient(0).key.get());
        const BioPtr out(BIO_new(BIO_s_mem()));
        EXPECT_TRUE(decryption.write(out.get())) << length;
        EXPECT_EQ(contentOf(out.get()), body) << length;
        const BioPtr closed(BIO_new_mem_buf("", 0)); // to be read alone
        EXPECT_EQ(decryption.write(closed.get()), length == 0) << length;
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
}

TEST(ContentDecryption, WhatWasDecryptedBeforeADamageIsWritten) {
    const Bytes body(1000000, 0x42);
    const LazyPkcs7 structure(enveloped(body));
    ContentDecryption decryption(structure);
    decryption.open(recipientOf(structure.structure(), 0), recipient(0).key.get());
    for (const int sound : {0, 1, 2, 5}) {
        const BioPtr out(BIO_new(BIO_s_mem()));
        const During<int> failing(s_decryptions, sound + 1);
        EXPECT_FALSE(decryption.write(out.get()));
        // All but the last block, which may be the one that is padded.
        EXPECT_EQ(contentOf(out.get()).size(),
                  sound == 0 ? 0 : static_cast<std::size_t>(sound) * PaddedDecryption::s_pieceLength - 16);
    }
}

template <auto Encode, class T> Bytes encoded(const T* object) {
    unsigned char* octets = nullptr;
    const int length = Encode(object, &octets);
    const OwnedMemory<unsigned char> owner(octets);
    return {octets, octets + length};
}

/// The same message with its content in segments.
Bytes inSegments(const PKCS7* structure, std::size_t length) {
    const PKCS7_ENC_CONTENT* content = structure->d.enveloped->enc_data;
    const unsigned char* const octets = ASN1_STRING_get0_data(content->enc_data);
    Bytes segments;
    for (std::size_t at = 0, all = static_cast<std::size_t>(ASN1_STRING_length(content->enc_data)); at < all;
         at += length) {
        der::append(segments, der::octetString(Bytes(octets + at, octets + std::min(all, at + length))));
    }
    const Bytes enveloped =
        der::sequence({der::integer("0"), der::set({encoded<i2d_PKCS7_RECIP_INFO>(recipientOf(structure, 0))}),
                       der::sequence({der::oid("1.2.840.113549.1.7.1"), encoded<i2d_X509_ALGOR>(content->algorithm),
                                      der::element(der::contextConstructed(0), segments)})});
    return der::sequence({der::oid("1.2.840.113549.1.7.3"), der::element(der::contextConstructed(0), enveloped)});
}

TEST(ContentDecryption, WhatWasGatheredBeforeADamageIsWritten) {
    const Bytes message = inSegments(enveloped(Bytes(6000, 0x42)).get(), 2000);
    Norvane::MemoryMediaIn source(Norvane::Buffer(message.data(), static_cast<unsigned int>(message.size()), false));
    const auto structure = LazyPkcs7::decode(StructureOctets(source));
    ASSERT_NE(structure, nullptr);
    structure->decodeRecipients();
    ContentDecryption decryption(*structure);
    decryption.open(recipientOf(structure->structure(), 0), recipient(0).key.get());
    for (const int sound : {0, 1, 2, 3}) {
        const BioPtr out(BIO_new(BIO_s_mem()));
        const During<int> failing(s_decryptions, sound + 1);
        EXPECT_FALSE(decryption.write(out.get()));
        EXPECT_EQ(contentOf(out.get()).size(), sound == 0 ? 0 : static_cast<std::size_t>(sound) * 2000 - 16);
    }
    const BioPtr out(BIO_new(BIO_s_mem()));
    EXPECT_TRUE(decryption.write(out.get()));
    EXPECT_EQ(contentOf(out.get()), Bytes(6000, 0x42));
}

TEST(ContentDecryption, AKeyThatOpensTakesThePlaceOfTheOneBefore) {
    const Bytes body(1000, 0x42);
    const LazyPkcs7 structure(enveloped(body, true));
    // Another content key for the first recipient.
    PKCS7_RECIP_INFO* first = const_cast<PKCS7_RECIP_INFO*>(recipientOf(structure.structure(), 0));
    const KeyContextPtr context(EVP_PKEY_CTX_new(recipient(0).key.get(), nullptr));
    Bytes encrypted(128);
    std::size_t length = encrypted.size();
    ASSERT_EQ(EVP_PKEY_encrypt_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_encrypt(context.get(), encrypted.data(), &length, Bytes(32, 7).data(), 32), 1);
    ASSERT_EQ(ASN1_OCTET_STRING_set(first->enc_key, encrypted.data(), static_cast<int>(length)), 1);
    ContentDecryption decryption(structure);
    decryption.open(first, recipient(0).key.get());
    decryption.open(recipientOf(structure.structure(), 1), recipient(1).key.get());
    decryption.open(nullptr, recipient(1).key.get());
    const BioPtr out(BIO_new(BIO_s_mem()));
    EXPECT_TRUE(decryption.write(out.get()));
    EXPECT_EQ(contentOf(out.get()), body);
}

TEST(ContentDecryption, AlgorithmsOfStructuresWithoutContent) {
    const Pkcs7Ptr nothing(PKCS7_new());
    EXPECT_EQ(unsupportedContentCipher(nothing.get()), "no algorithm");
    const Pkcs7Ptr without = toBeEncrypted(false);
    PKCS7_ENC_CONTENT_free(without->d.enveloped->enc_data);
    without->d.enveloped->enc_data = nullptr;
    EXPECT_EQ(unsupportedContentCipher(without.get()), "no algorithm");
    EXPECT_EQ(unsupportedContentCipher(static_cast<const PKCS7*>(nullptr)), "no algorithm");
    EXPECT_EQ(unsupportedContentCipher(enveloped(s_body).get()), "");
}

TEST(ContentDecryption, OtherEncryptionsOfKeysAreKnownByTheirNumbers) {
    const Owned<PKCS7_RECIP_INFO, PKCS7_RECIP_INFO_free> info(PKCS7_RECIP_INFO_new());
    struct Row {
        const char* identifier;
        const char* other;
        bool isOther;
    };
    for (const Row& row : {Row{"1.2.840.113549.1.1.1", "", false}, Row{"2.5.8.1.1", "", false},
                           Row{"1.2.840.113549.1.1.7", "RSAES-OAEP (1.2.840.113549.1.1.7)", true},
                           Row{"1.2.840.113549.1.9.16.3.14", "1.2.840.113549.1.9.16.3.14", true},
                           Row{"1.2.840.113549.1.9.16.3.15", "1.2.840.113549.1.9.16.3.15", false},
                           Row{"1.2.840.113549.1.9.16.3", "id-smime-alg (1.2.840.113549.1.9.16.3)", false},
                           Row{"1.2.3.4", "1.2.3.4", false}}) {
        X509_ALGOR_set0(info->key_enc_algor, OBJ_txt2obj(row.identifier, 1), V_ASN1_UNDEF, nullptr);
        EXPECT_EQ(otherKeyEncryption(info.get()).starts_with(row.other), true) << otherKeyEncryption(info.get());
        EXPECT_EQ(otherKeyEncryption(info.get()).empty(), std::string(row.other).empty());
        EXPECT_EQ(isOtherKeyEncryption(info.get()), row.isOther) << row.identifier;
    }
    EXPECT_EQ(otherKeyEncryption(nullptr), "no algorithm");
    EXPECT_FALSE(isOtherKeyEncryption(nullptr));
}

TEST(EncryptedOctets, AreJoinedAsOpensslKeepsThem) {
    const Bytes segment(2000, 0x42);
    Bytes nested =
        der::element(0x24, der::concat({der::octetString(segment), der::octetString({1}), der::octetString(segment)}));
    Bytes expected = segment;
    der::append(expected, {1});
    der::append(expected, segment);
    for (int depth = 1; depth <= 6; ++depth) { // as deep as OpenSSL decodes a string
        const OctetStringPtr string = joined(EncryptedOctets(nested));
        EXPECT_EQ(Bytes(ASN1_STRING_get0_data(string.get()),
                        ASN1_STRING_get0_data(string.get()) + ASN1_STRING_length(string.get())),
                  expected);
        EXPECT_EQ(ASN1_STRING_get0_data(string.get())[expected.size()], 0) << "the zero behind its strings";
        const unsigned char* at = nested.data();
        EXPECT_NE(OctetStringPtr(d2i_ASN1_OCTET_STRING(nullptr, &at, static_cast<long>(nested.size()))), nullptr)
            << depth;
        nested = der::element(0x24, nested);
    }
    const unsigned char* at = nested.data();
    EXPECT_EQ(OctetStringPtr(d2i_ASN1_OCTET_STRING(nullptr, &at, static_cast<long>(nested.size()))), nullptr);
    EXPECT_THROW(joined(EncryptedOctets(nested)), Norvane::Crypto::framing::Broken);
    ERR_clear_error();
    const OctetStringPtr empty = joined(EncryptedOctets(der::octetString({})));
    EXPECT_EQ(ASN1_STRING_length(empty.get()), 0);
    EXPECT_EQ(ASN1_STRING_get0_data(empty.get())[0], 0);
    EXPECT_EQ(ASN1_STRING_length(joined(EncryptedOctets()).get()), 0);
    EXPECT_FALSE(EncryptedOctets().isThere());
    EXPECT_TRUE(EncryptedOctets(OctetStringPtr(ASN1_OCTET_STRING_new()).get()).isThere());
}

} // namespace
