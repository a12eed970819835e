// Content of sizes at which lengths take more bytes, or can no longer be written. This program stands in for the function
// that allocates the blocks, so that a gibibyte of them takes none, and keeps what the system is advised.
#include "openssl/ContentSink.h"
#include "openssl/Pkcs7.h"
#include "support/AddressSpace.h"
#include "support/Interpose.h"

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <tuple>
#include <vector>

using namespace Norvane::Crypto::openssl;

namespace {

unsigned char s_block[ContentSink::largeBlockSize + ContentSink::hugePage];
bool s_sharing = false;
bool s_failing = false;
using Advice = std::tuple<void*, std::size_t, int>;
std::vector<Advice> s_advised;

} // namespace

extern "C" int madvise(void* at, std::size_t length, int advice) noexcept {
    s_advised.emplace_back(at, length, advice);
    return norvtest::next<&madvise>("madvise")(at, length, advice);
}
extern "C" void* CRYPTO_malloc(std::size_t length, const char* file, int line) {
    if (s_failing) {
        return nullptr;
    }
    return s_sharing && (length == sizeof s_block || length == ContentSink::mediumBlockSize ||
                         length == ContentSink::blockSize)
               ? s_block
               : norvtest::next<&CRYPTO_malloc>("CRYPTO_malloc")(length, file, line);
}
extern "C" void CRYPTO_free(void* memory, const char* file, int line) {
    if (memory != s_block) {
        norvtest::next<&CRYPTO_free>("CRYPTO_free")(memory, file, line);
    }
}

namespace {

/// An enveloped structure for nobody, around that many zeroes.
Pkcs7Ptr enveloped(std::size_t length) {
    Pkcs7Ptr structure(PKCS7_new());
    if (PKCS7_set_type(structure.get(), NID_pkcs7_enveloped) != 1 ||
        PKCS7_set_cipher(structure.get(), EVP_aes_128_cbc()) != 1 ||
        !BioChainPtr(PKCS7_dataInit(structure.get(), nullptr))) {
        ADD_FAILURE() << "no structure";
    }
    auto& content = structure->d.enveloped->enc_data->enc_data;
    ASN1_OCTET_STRING_free(content);
    content = ASN1_OCTET_STRING_new();
    EXPECT_EQ(ASN1_OCTET_STRING_set(content, std::vector<unsigned char>(length + 1).data(), static_cast<int>(length)),
              1);
    return structure;
}

TEST(EncodeHead, IsWhatOpensslWritesBeforeTheContent) {
    const Pkcs7Ptr empty = enveloped(0);
    for (const std::size_t length : {0x7FU, 0x80U, 0xFFFFU, 0x10000U, 0xFFFFFFU, 0x1000000U}) {
        const Pkcs7Ptr whole = enveloped(length);
        // The vectors are random: the same one for both.
        ASN1_TYPE_free(whole->d.enveloped->enc_data->algorithm->parameter);
        whole->d.enveloped->enc_data->algorithm->parameter = nullptr;
        ASN1_TYPE_free(empty->d.enveloped->enc_data->algorithm->parameter);
        empty->d.enveloped->enc_data->algorithm->parameter = nullptr;
        unsigned char* encoded = nullptr;
        const int encodedLength = i2d_PKCS7(whole.get(), &encoded);
        const OwnedMemory<unsigned char> owner(encoded);
        ASSERT_GT(encodedLength, 0);
        const std::vector<unsigned char> expected(encoded, encoded + encodedLength - length);
        EXPECT_EQ(encodeHead(empty.get(), length), expected) << length;
    }
}

// A SET of no signers is the last element, and holds nothing that a content could stand for.
TEST(EncodeHead, RefusesStructuresThatDoNotEndWithAString) {
    const Pkcs7Ptr structure(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_signed), 1);
    ASSERT_EQ(PKCS7_content_new(structure.get(), NID_pkcs7_data), 1);
    EXPECT_TRUE(encodeHead(structure.get(), 1).empty());
    EXPECT_NE(ERR_get_error(), 0UL);
    ERR_clear_error();
}

TEST(EncodeHead, RefusesWhatIsLongerThanAnIntCounts) {
    const Pkcs7Ptr structure = enveloped(0);
    const std::size_t head = encodeHead(structure.get(), INT_MAX - 1000).size();
    ASSERT_GT(head, 0U);
    EXPECT_EQ(encodeHead(structure.get(), INT_MAX - 1 - head).size(), head);
    for (const std::size_t length : {INT_MAX - head + 1, std::size_t{INT_MAX} - 7, std::size_t{INT_MAX},
                                     std::size_t{INT_MAX} + 1, std::size_t{1} << 32U, SIZE_MAX}) {
        EXPECT_TRUE(encodeHead(structure.get(), length).empty()) << length;
        EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), ASN1_R_TOO_LONG);
        EXPECT_EQ(ERR_get_error(), 0UL);
    }
}

TEST(ContentSink, RefusesMoreThanAStructureHolds) {
    constexpr int gibibyte = 1 << 30;
    const norvtest::AddressSpace zeroes(gibibyte);
    const norvtest::During<bool> sharing(s_sharing, true);
    ContentSink sink;
    const BioPtr bio = sink.bio();
    EXPECT_EQ(BIO_write(bio.get(), zeroes.data(), gibibyte), gibibyte);
    EXPECT_FALSE(sink.failed());
    EXPECT_EQ(BIO_write(bio.get(), zeroes.data(), gibibyte), -1) << "a byte too many";
    EXPECT_TRUE(sink.failed());
    EXPECT_NE(ERR_get_error(), 0UL);
    EXPECT_EQ(BIO_write(bio.get(), zeroes.data(), 1), -1) << "there would be a gap";
    EXPECT_EQ(sink.length(), std::size_t{gibibyte});
    ERR_clear_error();
}

TEST(ContentSink, RoomIsCountedAsWritingIs) {
    const norvtest::During<bool> sharing(s_sharing, true);
    ContentSink sink;
    for (std::size_t room = 0; sink.length() + room <= INT_MAX;) {
        EXPECT_TRUE(sink.filled(room));
        room = sink.room().size();
        ASSERT_NE(room, 0U);
    }
    const std::size_t left = INT_MAX - sink.length();
    EXPECT_FALSE(sink.filled(left + 1));
    EXPECT_TRUE(sink.failed());
    EXPECT_TRUE(sink.room().empty()) << "there would be a gap";
    EXPECT_NE(ERR_get_error(), 0UL);
    ERR_clear_error();
}

TEST(ContentSink, WritingGoesOnToTheLastOctetThatIsCounted) {
    const norvtest::During<bool> sharing(s_sharing, true);
    ContentSink sink;
    const BioPtr bio = sink.bio();
    while (sink.length() + sink.room().size() <= INT_MAX - 10) {
        ASSERT_TRUE(sink.filled(sink.room().size()));
    }
    const int left = static_cast<int>(INT_MAX - sink.length());
    ASSERT_TRUE(sink.filled(static_cast<std::size_t>(left) - 10));
    EXPECT_EQ(BIO_write(bio.get(), "0123456789", 10), 10);
    EXPECT_EQ(sink.length(), std::size_t{INT_MAX});
    EXPECT_FALSE(sink.failed());
    EXPECT_EQ(BIO_write(bio.get(), "0", 1), -1);
    EXPECT_TRUE(sink.failed());
    ERR_clear_error();
}

TEST(ContentSink, WhatThereIsNoMemoryForIsNotWritten) {
    ContentSink sink;
    const BioPtr bio = sink.bio();
    {
        const norvtest::During<bool> failing(s_failing, true);
        EXPECT_EQ(BIO_write(bio.get(), "0", 1), -1);
    }
    EXPECT_TRUE(sink.failed());
    EXPECT_EQ(sink.length(), 0U);
    ERR_clear_error();
}

TEST(ContentSink, NothingIsWrittenFromNowhere) {
    ContentSink sink;
    const BioPtr bio = sink.bio();
    EXPECT_EQ(BIO_write(bio.get(), nullptr, 5), 0);
    EXPECT_EQ(BIO_write(bio.get(), "", 0), 0);
    EXPECT_EQ(BIO_flush(bio.get()), 1);
    EXPECT_EQ(BIO_ctrl(bio.get(), BIO_CTRL_PENDING, 0, nullptr), 0);
    EXPECT_FALSE(sink.failed());
    EXPECT_EQ(sink.length(), 0U);
}

TEST(ContentSink, LargeBlocksBeginWhereHugePagesDo) {
    ContentSink sink;
    std::size_t large = 0;
    s_advised.clear();
    for (int block = 0; large != 2; ++block) {
        const auto room = sink.room();
        if (room.size() == ContentSink::largeBlockSize) {
            ++large;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(room.data()) % ContentSink::hugePage, 0U);
            ASSERT_EQ(s_advised.size(), large);
            EXPECT_EQ(s_advised.back(), (Advice{room.data(), room.size(), MADV_HUGEPAGE}));
        } else {
            EXPECT_TRUE(s_advised.empty());
        }
        ASSERT_TRUE(sink.filled(room.size()));
    }
}

TEST(ContentSink, HandsOverWhatWasFilledAndWrittenInOrder) {
    ContentSink sink;
    const BioPtr bio = sink.bio();
    std::string expected;
    for (unsigned int turn = 0; turn != 300; ++turn) {
        const auto room = sink.room();
        const std::size_t count = std::min<std::size_t>(room.size(), std::size_t{30000} * (turn % 7));
        std::memset(room.data(), static_cast<int>(turn), count);
        ASSERT_TRUE(sink.filled(count));
        expected.append(count, static_cast<char>(turn));
        const std::string written(turn % 5 * 2000 + 1, static_cast<char>(turn + 100));
        ASSERT_EQ(BIO_write(bio.get(), written.data(), static_cast<int>(written.size())),
                  static_cast<int>(written.size()));
        expected += written;
    }
    static_cast<void>(sink.room()); // asked for, and not filled
    std::string content;
    sink.forEach([&](const unsigned char* bytes, unsigned int length) {
        EXPECT_NE(length, 0U);
        content.append(reinterpret_cast<const char*>(bytes), length);
    });
    EXPECT_TRUE(content == expected);
    EXPECT_EQ(sink.length(), expected.size());
    EXPECT_GT(sink.length(), ContentSink::smallBlocks * ContentSink::blockSize +
                                 ContentSink::mediumBlocks * ContentSink::mediumBlockSize + ContentSink::largeBlockSize)
        << "blocks of each size";
}

} // namespace
