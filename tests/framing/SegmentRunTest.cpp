// Segments of one length: where they are found, and that nobody looks at their headers once they are known.
#include "framing/SegmentRun.h"
#include "framing/LentMediaIn.h"
#include "framing/Reader.h"

#include <authority/Der.h>

#include <gtest/gtest.h>

using namespace Norvane::Crypto::framing;
using norvauthority::Bytes;

namespace {

void append(Bytes& out, std::size_t length, unsigned char octet, std::uint32_t tag = octetString) {
    appendHeader(out, TagClass::universal, false, tag, length);
    out.insert(out.end(), length, octet);
}

std::size_t alikeIn(const Bytes& octets) {
    Header header;
    EXPECT_EQ(readHeader(octets.data(), octets.size(), header), HeaderState::complete);
    return countAlike(octets, header);
}

Header headerOf(std::size_t length, std::uint32_t tag = octetString) {
    Bytes octets;
    appendHeader(octets, TagClass::universal, false, tag, length);
    Header header;
    readHeader(octets.data(), octets.size(), header);
    return header;
}

/// A string of five segments of `length` octets and a last one of seven, in indefinite length, and the run in it.
struct Segmented {
    explicit Segmented(std::size_t length) {
        for (unsigned char at = 0; at != 5; ++at) {
            append(octets, length, at);
        }
        append(octets, 7, 0xAA);
        octets.insert(octets.end(), {0, 0});
        const Header header = headerOf(length);
        LongestRun found;
        found.add(2, header, 5);
        run = found.longest();
    }
    Bytes octets{0x24, 0x80};
    SegmentRun run;

    /// No header in the run makes sense any more.
    void spoil() {
        for (std::size_t at = 0; at != run.count; ++at) {
            const auto header = octets.begin() + static_cast<std::ptrdiff_t>(run.start + at * run.stride());
            std::fill_n(header, run.headerSize, static_cast<unsigned char>(0xFF));
        }
    }
};

Bytes stringIn(Reader& reader) {
    Bytes out;
    reader.openString(Segments::strict);
    for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
        out.insert(out.end(), piece.begin(), piece.end());
    }
    return out;
}

} // namespace

TEST(FramingSegmentRun, ElementsWithOneHeaderAreCounted) {
    Bytes octets;
    for (int at = 0; at != 3; ++at) {
        append(octets, 300, 0x11);
    }
    EXPECT_EQ(alikeIn(octets), 3U);
    Bytes cut = octets;
    cut.pop_back();
    EXPECT_EQ(alikeIn(cut), 2U) << "the third one is not there as a whole";
    Bytes longer = octets;
    append(longer, 301, 0x11);
    EXPECT_EQ(alikeIn(longer), 3U);
    Bytes other = octets;
    append(other, 300, 0x11, 12);
    append(other, 300, 0x11);
    EXPECT_EQ(alikeIn(other), 3U);
    Bytes lengthInMoreOctets = octets;
    lengthInMoreOctets.insert(lengthInMoreOctets.end(), {0x04, 0x83, 0x00, 0x01, 0x2C});
    lengthInMoreOctets.insert(lengthInMoreOctets.end(), 300, 0x11);
    EXPECT_EQ(alikeIn(lengthInMoreOctets), 3U);
}

TEST(FramingSegmentRun, NothingIsReadBehindTheOctets) {
    EXPECT_EQ(alikeIn({0x04, 0x82, 0x01, 0x2C}), 1U);
    EXPECT_EQ(alikeIn({0x04, 0x03, 1, 2, 3, 0x04, 0x03}), 1U);
    EXPECT_EQ(alikeIn({0x04, 0x88, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), 1U);
}

TEST(FramingSegmentRun, TheLongestOneIsFound) {
    LongestRun run;
    EXPECT_EQ(run.longest().size(), 0U);
    run.add(0, headerOf(1000), 3); // 3 times 1,004 octets
    run.add(3012, headerOf(1000), 1);
    EXPECT_EQ(run.longest().start, 0U);
    EXPECT_EQ(run.longest().count, 4U);
    run.add(4020, headerOf(1000), 4); // four octets stand in front of it
    EXPECT_EQ(run.longest().start, 0U);
    run.add(8036, headerOf(1001), 1);
    EXPECT_EQ(run.longest().start, 0U);
    run.add(9041, headerOf(1001, utcTime), 100);
    EXPECT_EQ(run.longest().start, 0U);
    run.add(500000, headerOf(100), 41);
    EXPECT_EQ(run.longest().start, 500000U);
    EXPECT_EQ(run.longest().end(), 500000U + 41 * 102);
}

TEST(FramingSegmentRun, ReadersDoNotLookAtHeadersThatAreKnown) {
    for (const std::size_t length : {300U, 5000U}) {
        Segmented string(length);
        Reader plain(LentMediaIn(string.octets));
        const Bytes expected = stringIn(plain);
        ASSERT_EQ(expected.size(), 5 * length + 7);
        string.spoil();
        for (const bool skips : {false, true}) {
            Reader reader(LentMediaIn(string.octets));
            reader.know(string.run);
            if (skips) {
                reader.skipString(Segments::strict);
            } else {
                EXPECT_EQ(stringIn(reader), expected);
            }
            EXPECT_EQ(reader.position(), string.octets.size());
            reader.finish();
        }
    }
}

TEST(FramingSegmentRun, SegmentsThatAreKnownCountInTheBudget) {
    Segmented string(300);
    for (const std::uint64_t budget : {4U, 5U, 6U}) {
        for (const bool skips : {false, true}) {
            Reader reader(LentMediaIn(string.octets), {.segments = budget});
            reader.know(string.run);
            const auto read = [&] { skips ? reader.skipString(Segments::strict) : void(stringIn(reader)); };
            if (budget < 6) {
                EXPECT_THROW(read(), Broken);
            } else {
                EXPECT_NO_THROW(read());
            }
        }
    }
}

TEST(FramingSegmentRun, ARunThatTheOctetsDoNotHoldIsNotBelieved) {
    Segmented string(300);
    string.run.count = 1000;
    Reader reader(LentMediaIn(string.octets));
    reader.know(string.run);
    EXPECT_EQ(stringIn(reader).size(), 5U * 300 + 7);
}
