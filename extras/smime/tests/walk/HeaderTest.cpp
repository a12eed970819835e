#include "mime/Header.h"
#include "mime/Octets.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Norvane::Crypto::SMime::mime;

Header headerOf(const std::string& text) {
    Header header;
    MemoryOctets octets(text);
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    return header;
}

TEST(HeaderNames, AreEqualWithoutTheCaseOfAsciiLetters) {
    for (unsigned int value = 0; value != 256; ++value) {
        const char letter = static_cast<char>(value);
        const bool isUpper = std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ").find(letter) != std::string::npos;
        const char lower = isUpper ? static_cast<char>(value + 32) : letter;
        EXPECT_EQ(lowered(letter), lower) << value;
        EXPECT_EQ(lowered(std::string("A") + letter), std::string("a") + lower) << value;
        for (unsigned int other = 0; other != 256; ++other) {
            const char second = static_cast<char>(other);
            const bool isSame = letter == second || (isUpper && second == lower) ||
                                (other >= 'A' && other <= 'Z' && value == other + 32);
            ASSERT_EQ(isSameName(std::string(1, letter), std::string(1, second)), isSame) << value << ' ' << other;
        }
    }
    EXPECT_FALSE(isSameName("ab", "a"));
    EXPECT_FALSE(isSameName("a", "ab"));
}

// RFC 5322, 2.2: printable characters without the colon.
TEST(HeaderNames, HavePrintableCharacters) {
    for (unsigned int value = 0; value != 256; ++value) {
        const char letter = static_cast<char>(value);
        if (letter == '\n')
            continue;
        const std::string name = std::string("X") + letter + "Y";
        const Header header = headerOf(name + ": z\r\n\r\n");
        ASSERT_EQ(header.fields().size(), 1U);
        const bool isName = value >= 33 && value <= 126 && letter != ':';
        EXPECT_EQ(header.nameOf(header.fields()[0]), isName ? name : letter == ':' ? "X" : "") << value;
    }
}

TEST(HeaderValues, AreUnfoldedToTheirFirstAndLastOctets) {
    for (const auto& [field, value] : std::vector<std::pair<std::string, std::string>>{{"A:b\r\n", "b"},
                                                                                       {"A:\r\n b\r\n", "b"},
                                                                                       {"A: b\r\n\tc \r\n", "b\tc"},
                                                                                       {"A: b\n c", "b c"},
                                                                                       {"A: b\rc\r", "b\rc"},
                                                                                       {"A: b\r\r\n c\n", "b\r c"},
                                                                                       {"A:", ""},
                                                                                       {"A: \r\n \r\n", ""}})
        EXPECT_EQ(headerOf(field).first("a"), value) << field;
}

TEST(HeaderBlock, TellsHowItsFirstLineEnds) {
    for (const char* const crLf : {"", "\r\n", "A: b\r\n\n", "A: b\r\nC: d\n\n", "A: b"})
        EXPECT_TRUE(headerOf(crLf).endsLinesInCrLf()) << crLf;
    for (const char* const lf : {"\n", "A: b\n\r\n", "A: b\n"})
        EXPECT_FALSE(headerOf(lf).endsLinesInCrLf()) << lf;
}

TEST(HeaderBlock, TakesThePlaceOfAnother) {
    Header header = headerOf("A: b\r\nC: d\r\n\r\n");
    MemoryOctets octets("E: f\n\nbody");
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    EXPECT_EQ(header.octets(), "E: f\n\n");
    ASSERT_EQ(header.fields().size(), 1U);
    EXPECT_EQ(header.nameOf(header.fields()[0]), "E");
    EXPECT_EQ(octets.view(1), "body");
}

} // namespace
