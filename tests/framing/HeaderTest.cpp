// The headers of BER elements, against what OpenSSL reads in the same octets.
#include "framing/Header.h"

#include <authority/Der.h>

#include <openssl/asn1.h>
#include <openssl/err.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace Norvane::Crypto::framing;
using norvauthority::Bytes;
using norvauthority::fromHex;

namespace {

HeaderState stateOf(const std::string& hex) {
    const Bytes octets = fromHex(hex);
    Header header;
    return readHeader(octets.data(), octets.size(), header);
}

Header headerOf(const std::string& hex) {
    const Bytes octets = fromHex(hex);
    Header header;
    EXPECT_EQ(readHeader(octets.data(), octets.size(), header), HeaderState::complete) << hex;
    return header;
}

/// What OpenSSL finds. It wants an octet behind a length in the long form, and the content to be there.
bool openSslReads(const Bytes& octets, Header& header) {
    Bytes longer = octets;
    longer.resize(octets.size() + 300);
    const unsigned char* at = longer.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int flags = ASN1_get_object(&at, &length, &tag, &tagClass, static_cast<long>(longer.size()));
    const bool announcesTooMuch = ERR_GET_REASON(ERR_peek_last_error()) == ASN1_R_TOO_LONG && at != longer.data();
    ERR_clear_error();
    if ((flags & 0x80) != 0 && !announcesTooMuch) {
        return false;
    }
    header.tag = static_cast<std::uint32_t>(tag);
    header.tagClass = static_cast<TagClass>(tagClass);
    header.constructed = (flags & V_ASN1_CONSTRUCTED) != 0;
    header.indefinite = (flags & 1) != 0;
    header.contentLength = static_cast<std::uint64_t>(length);
    header.size = static_cast<std::size_t>(at - longer.data());
    return true;
}

} // namespace

TEST(FramingHeader, ReadsShortLongAndIndefiniteLengths) {
    EXPECT_EQ(headerOf("307f").contentLength, 127U);
    EXPECT_EQ(headerOf("3081ff").contentLength, 255U);
    EXPECT_EQ(headerOf("30820100").contentLength, 256U);
    EXPECT_EQ(headerOf("30887fffffffffffffff").contentLength, 0x7FFFFFFFFFFFFFFFU);
    EXPECT_EQ(headerOf("3089000000000000000005").contentLength, 5U) << "leading zeroes are BER";
    EXPECT_TRUE(headerOf("3080").indefinite);
    EXPECT_EQ(headerOf("3080").size, 2U);
}

TEST(FramingHeader, ReadsClassesAndLongTagNumbers) {
    EXPECT_TRUE(headerOf("a000").is(TagClass::contextSpecific, 0));
    EXPECT_TRUE(headerOf("4100").is(TagClass::application, 1));
    EXPECT_TRUE(headerOf("c200").is(TagClass::privateUse, 2));
    EXPECT_TRUE(headerOf("3f1000").is(TagClass::universal, sequence)) << "a small number in the long form";
    EXPECT_EQ(headerOf("9f87ffffff7f00").tag, 0x7FFFFFFFU);
}

TEST(FramingHeader, TellsWhatIsIncompleteFromWhatIsMalformed) {
    for (const char* beginning : {"", "30", "3082", "308201", "1f", "1f81", "1f8100"}) {
        EXPECT_EQ(stateOf(beginning), HeaderState::incomplete) << beginning;
    }
    for (const char* never : {"0480", "308880", "3089010000000000000000", "1f888080808000"}) {
        EXPECT_NE(stateOf(std::string(never) + "0000000000000000"), HeaderState::complete) << never;
    }
    EXPECT_EQ(stateOf("0480"), HeaderState::malformed) << "only what is constructed may go on without end";
}

TEST(FramingHeader, TwoZeroOctetsEndContentsAndNothingElseDoes) {
    EXPECT_TRUE(headerOf("0000").isEndOfContents());
    EXPECT_FALSE(headerOf("000100").isEndOfContents());
    EXPECT_FALSE(headerOf("008100").isEndOfContents());
    EXPECT_FALSE(headerOf("2000").isEndOfContents());
    EXPECT_FALSE(headerOf("8000").isEndOfContents());
}

TEST(FramingHeader, AgreesWithOpenSslOnAnyOctets) {
    std::mt19937 random(20260101);
    std::uniform_int_distribution<int> octet(0, 255);
    std::uniform_int_distribution<int> kind(0, 5);
    int compared = 0;
    for (int round = 0; round < 200000; ++round) {
        Bytes octets(14);
        for (auto& one : octets) {
            const int which = kind(random); // octets that mean something are more frequent than chance has them
            one = static_cast<unsigned char>(which == 0   ? 0x1F | octet(random)
                                             : which == 1 ? 0x80 | (octet(random) & 15)
                                             : which == 2 ? 0
                                                          : octet(random));
        }
        Header ours;
        Header theirs;
        const bool read = readHeader(octets.data(), octets.size(), ours) == HeaderState::complete;
        if (openSslReads(octets, theirs) && theirs.size <= octets.size()) {
            ASSERT_TRUE(read) << norvauthority::toHex(octets);
            ASSERT_EQ(ours.tag, theirs.tag) << norvauthority::toHex(octets);
            ASSERT_EQ(ours.tagClass, theirs.tagClass);
            ASSERT_EQ(ours.constructed, theirs.constructed);
            ASSERT_EQ(ours.indefinite, theirs.indefinite);
            ASSERT_EQ(ours.contentLength, theirs.contentLength) << norvauthority::toHex(octets);
            ASSERT_EQ(ours.size, theirs.size);
            ++compared;
        } else {
            ASSERT_FALSE(read) << norvauthority::toHex(octets);
        }
    }
    EXPECT_GT(compared, 50000);
}

TEST(FramingHeader, WritesTheOctetsThatOpenSslWrites) {
    for (const std::uint32_t tag : {0U, 16U, 30U, 31U, 127U, 128U, 16383U, 16384U, 0x7FFFFFFFU}) {
        for (const int length : {0, 1, 127, 128, 255, 256, 65535, 65536, 0xFFFFFF, 0x1000000, 0x7FFFFF00}) {
            for (const TagClass tagClass : {TagClass::universal, TagClass::contextSpecific, TagClass::privateUse}) {
                for (const bool constructed : {false, true}) {
                    Bytes theirs(16);
                    unsigned char* end = theirs.data();
                    ASN1_put_object(&end, constructed ? 1 : 0, length, static_cast<int>(tag),
                                    static_cast<int>(tagClass));
                    theirs.resize(static_cast<std::size_t>(end - theirs.data()));
                    Bytes ours;
                    appendHeader(ours, tagClass, constructed, tag, static_cast<std::uint64_t>(length));
                    ASSERT_EQ(ours, theirs) << tag << " " << length;
                    ASSERT_EQ(headerSize(tag, static_cast<std::uint64_t>(length)), theirs.size());
                }
            }
        }
    }
}

TEST(FramingHeader, ReadsWhatItWroteWhateverTheLength) {
    for (const std::uint64_t length :
         std::initializer_list<std::uint64_t>{0x80000000U, 0x100000000U, 0x7FFFFFFFFFFFFFFFU}) {
        Bytes octets;
        appendHeader(octets, TagClass::application, true, 31, length);
        Header header;
        ASSERT_EQ(readHeader(octets.data(), octets.size(), header), HeaderState::complete);
        EXPECT_TRUE(header.is(TagClass::application, 31));
        EXPECT_EQ(header.contentLength, length);
        EXPECT_EQ(header.size, octets.size());
    }
}
