// The pull parser: what it hands out, what it refuses, and that it reads no octet that is not the structure's.
#include "framing/Reader.h"

#include "ReaderSource.h"

#include <authority/Der.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Norvane::Crypto::framing;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::toHex;
using norvtest::PiecesIn;

namespace {

std::string hexOf(Octets octets) {
    return toHex({octets.begin(), octets.end()});
}

/// What `use` throws; nothing when it throws nothing.
template <class Use> std::optional<Fault> faultOf(Use use) {
    try {
        use();
    } catch (const Broken& broken) {
        return broken.fault();
    }
    return std::nullopt;
}

/// A constructed octet string of indefinite length, made of segments of one size.
Bytes segmented(std::size_t length, std::size_t segment) {
    Bytes out{0x24, 0x80};
    for (std::size_t at = 0; at < length; at += segment) {
        const std::size_t count = std::min(segment, length - at);
        appendHeader(out, TagClass::universal, false, octetString, count);
        for (std::size_t index = 0; index < count; ++index) {
            out.push_back(static_cast<unsigned char>((at + index) * 7 >> 3U));
        }
    }
    out.insert(out.end(), {0, 0});
    return out;
}

/// The string's octets, and how many pieces they came in.
std::pair<Bytes, std::size_t> stringIn(Reader& reader) {
    Bytes out;
    std::size_t pieces = 0;
    reader.openString(Segments::strict);
    for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
        out.insert(out.end(), piece.begin(), piece.end());
        ++pieces;
    }
    return {out, pieces};
}

} // namespace

/// In place, and through reads that the source answers whole.
class FramingReader : public testing::TestWithParam<bool> {
protected:
    static Norvane::MediaIn sourceOf(const Bytes& octets) {
        if (GetParam()) {
            return Norvane::MemoryMediaIn(
                Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), false));
        }
        return PiecesIn(octets);
    }
    static Norvane::MediaIn sourceOf(const std::string& hex) { return sourceOf(fromHex(hex)); }
};

TEST_P(FramingReader, ElementsAreEnteredTakenAndSkipped) {
    // SEQUENCE { INTEGER 5, [0] { OCTET STRING "ab" }, SEQUENCE {} } and an octet behind
    const Norvane::MediaIn in = sourceOf("300b020105a00404026162300007");
    Reader reader(in);
    EXPECT_EQ(reader.expect(sequence).contentLength, 11U);
    reader.enter();
    EXPECT_EQ(hexOf(reader.take(3)), "020105");
    EXPECT_TRUE(reader.next()->is(TagClass::contextSpecific, 0));
    EXPECT_TRUE(reader.next()->is(TagClass::contextSpecific, 0)) << "looking takes nothing";
    reader.enter();
    EXPECT_EQ(reader.depth(), 2U);
    reader.openString(Segments::strict);
    EXPECT_EQ(hexOf(reader.piece()), "6162");
    EXPECT_TRUE(reader.piece().empty());
    EXPECT_EQ(reader.next(), nullptr);
    reader.leave();
    reader.skip();
    EXPECT_EQ(reader.next(), nullptr);
    reader.leave();
    EXPECT_EQ(reader.position(), 13U);
    reader.finish();
    EXPECT_EQ(in.peek(), 7) << "the source stands behind the structure";
}

TEST_P(FramingReader, WhatWasTakenStaysWhenMoreIsRead) {
    Bytes content;
    for (int index = 0; index < 3; ++index) {
        appendHeader(content, TagClass::universal, false, octetString, 100000);
        content.insert(content.end(), 100000, static_cast<unsigned char>('a' + index));
    }
    Bytes whole;
    appendHeader(whole, TagClass::universal, true, sequence, content.size());
    whole.insert(whole.end(), content.begin(), content.end());
    const Norvane::MediaIn in = sourceOf(whole);
    Reader reader(in);
    reader.enter();
    std::vector<Octets> taken;
    while (reader.next() != nullptr) {
        taken.push_back(reader.take(1 << 20));
    }
    reader.leave();
    reader.finish();
    ASSERT_EQ(taken.size(), 3U);
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(taken[index].size(), 100005U);
        EXPECT_EQ(taken[index].back(), 'a' + index);
        EXPECT_EQ(taken[index][5], 'a' + index);
    }
}

TEST_P(FramingReader, StringsOfAnySegmentsGiveTheirOctets) {
    for (const std::size_t length : {0U, 1U, 1023U, 1024U, 5000U, 200000U}) {
        Bytes expected;
        for (const std::size_t segment : {1U, 15U, 1000U, 1024U, 4096U, 65536U, 300000U}) {
            const Bytes whole = segmented(length, segment);
            const Norvane::MediaIn in = sourceOf(whole);
            Reader reader(in);
            const auto [octets, pieces] = stringIn(reader);
            reader.finish();
            EXPECT_TRUE(in.atEnd());
            if (segment == 1) {
                expected = octets;
                ASSERT_EQ(octets.size(), length);
                for (std::size_t index = 0; index < length; ++index) {
                    ASSERT_EQ(octets[index], static_cast<unsigned char>(index * 7 >> 3U));
                }
            }
            EXPECT_EQ(octets, expected) << length << " in segments of " << segment;
            EXPECT_LE(pieces, length / 1024 + 2) << "segments of less come gathered";
        }
    }
}

TEST(FramingReader, SegmentsOfAMessageComeWholeFromAnySource) {
    // Around them are levels of indefinite length, so that a few octets of each segment are read with its header.
    Bytes message = segmented(10U << 12U, 1U << 12U);
    message.insert(message.begin(), {0x30, 0x80, 0x30, 0x80, 0x30, 0x80});
    message.insert(message.end(), {0, 0, 0, 0, 0, 0});
    PiecesIn in(message);
    Reader reader(in);
    for (int level = 0; level != 3; ++level) {
        reader.enter();
    }
    const auto [octets, pieces] = stringIn(reader);
    EXPECT_EQ(octets.size(), 10U << 12U);
    EXPECT_EQ(pieces, 10U);
}

namespace {

/// A string of that many segments of 4 KB within levels of indefinite length, and something else behind it.
Bytes messageOf(std::size_t segments) {
    Bytes message = segmented(segments << 12U, 1U << 12U);
    message.insert(message.begin(), {0x30, 0x80, 0x30, 0x80, 0x30, 0x80});
    message.insert(message.end(), {0, 0, 0, 0, 0, 0, 'm', 'o', 'r', 'e'});
    return message;
}

void enterMessage(Reader& reader) {
    for (int level = 0; level != 3; ++level) {
        reader.enter();
    }
    reader.openString(Segments::strict);
}

} // namespace

TEST(FramingReader, SegmentsAreReadInARowWhileTheSourceHasThem) {
    const Bytes message = messageOf(100);
    PiecesIn in(message);
    Reader reader(in);
    enterMessage(reader);
    std::size_t pieces = 0;
    std::size_t rows = 0; // of reads, between which pieces are handed out
    for (std::size_t reads = in.reads(); !reader.piece().empty(); reads = in.reads()) {
        ++pieces;
        rows += in.reads() != reads ? 1U : 0U;
        EXPECT_LE(in.taken(), (pieces << 12U) + 0x10000 + 500);
    }
    EXPECT_EQ(pieces, 100U);
    EXPECT_LE(rows, 8U) << "a window of 64 KB takes 15 segments";
    for (int level = 0; level != 3; ++level) {
        reader.leave();
    }
    reader.finish();
    EXPECT_EQ(in.taken(), message.size() - 4);
}

TEST(FramingReader, ASourceThatGaveLessThanItWasAskedForIsNotAskedForMore) {
    PiecesIn in(messageOf(10));
    in.giveAtMost(3000);
    Reader reader(in);
    enterMessage(reader);
    std::size_t handedOut = 0;
    for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
        handedOut += piece.size();
        // Headers are not counted. What is at hand waits for no second read.
        EXPECT_LE(in.taken(), handedOut + 4 * (handedOut >> 12U) + 3100) << "one read at most ahead";
    }
    EXPECT_EQ(handedOut, 10U << 12U);
}

TEST(FramingReader, WhatASourceGaveBeforeItThrewComesOutFirst) {
    PiecesIn in(messageOf(10));
    in.throwAt(5U << 12U);
    Reader reader(in);
    enterMessage(reader);
    std::size_t pieces = 0;
    EXPECT_THROW(
        while (!reader.piece().empty()) { ++pieces; }, Norvane::MediaException);
    EXPECT_EQ(pieces, 4U);
}

TEST_P(FramingReader, AllOctetsBeforeAFaultComeOut) {
    // A string that breaks off; segments before one that is no octet string, before a header that is none, before the end.
    for (const auto& [hex, fault] : {std::pair("0409616263", Fault::ended),
                                     std::pair("2480"
                                               "040161"
                                               "04026263"
                                               "0c0164",
                                               Fault::unexpected),
                                     std::pair("2409"
                                               "040161"
                                               "04026263"
                                               "0405",
                                               Fault::malformed),
                                     std::pair("2480"
                                               "0403616263",
                                               Fault::ended)}) {
        Reader reader(sourceOf(hex));
        reader.openString(Segments::strict);
        std::string octets;
        EXPECT_EQ(faultOf([&] {
                      for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
                          octets.append(piece.begin(), piece.end());
                      }
                  }),
                  fault)
            << hex;
        EXPECT_EQ(octets, "abc") << hex;
    }
    // From a source that answers with an octet at a time, too.
    PiecesIn slow(fromHex("0409616263"));
    slow.splitAt(~UINT64_C(0));
    Reader reader(slow);
    reader.openString(Segments::strict);
    EXPECT_EQ(hexOf(reader.piece()), "616263");
    EXPECT_EQ(faultOf([&] { static_cast<void>(reader.piece()); }), Fault::ended);
}

TEST_P(FramingReader, DefiniteContentInMemoryIsOnePiece) {
    Bytes whole;
    appendHeader(whole, TagClass::contextSpecific, false, 0, 1000000);
    whole.resize(whole.size() + 1000000, 'x');
    Reader reader(sourceOf(whole));
    const auto [octets, pieces] = stringIn(reader);
    EXPECT_EQ(octets.size(), 1000000U);
    EXPECT_EQ(pieces, GetParam() ? 1U : 16U);
    EXPECT_EQ(reader.isInPlace(), GetParam());
}

TEST_P(FramingReader, SegmentsAreOctetStringsUnlessAllowedToBeOthers) {
    const char* other = "2480"
                        "040161"
                        "0c0162"
                        "0000";
    EXPECT_EQ(faultOf([&] {
                  Reader reader(sourceOf(other));
                  stringIn(reader);
              }),
              Fault::unexpected);
    Reader reader(sourceOf(other));
    reader.openString(Segments::lenient);
    EXPECT_EQ(hexOf(reader.piece()), "6162");
}

TEST_P(FramingReader, BudgetsEndWhatGoesOnForever) {
    const std::string nested = std::string("3080") + "3080" + "3080" + "020105" + "0000" + "0000" + "0000";
    const auto skipping = [&](std::size_t depth) {
        return faultOf([&] {
            Reader reader(sourceOf(nested), Reader::Budget{.depth = depth});
            reader.skip();
            reader.finish();
        });
    };
    EXPECT_EQ(skipping(2), Fault::tooDeep);
    EXPECT_EQ(skipping(3), std::nullopt);
    EXPECT_EQ(faultOf([&] {
                  std::string deep;
                  for (int level = 0; level < 200; ++level) {
                      deep += "3080";
                  }
                  Reader reader(sourceOf(deep), Reader::Budget{.depth = 1000});
                  reader.skip();
              }),
              Fault::tooDeep)
        << "whatever the caller allows";

    const Bytes three = segmented(3, 1);
    const auto reading = [&](std::uint64_t segments) {
        return faultOf([&] {
            Reader reader(sourceOf(three), Reader::Budget{.segments = segments});
            stringIn(reader);
        });
    };
    EXPECT_EQ(reading(2), Fault::tooMany);
    EXPECT_EQ(reading(3), std::nullopt);

    for (const char* eight : {"3006020105020105", "3080020201050000"}) {
        const auto taking = [&](std::size_t limit) {
            return faultOf([&] { static_cast<void>(Reader(sourceOf(eight)).take(limit)); });
        };
        EXPECT_EQ(taking(7), Fault::tooLong) << eight;
        EXPECT_EQ(taking(2), Fault::tooLong) << eight;
        EXPECT_EQ(taking(0), Fault::tooLong) << eight;
    }
    EXPECT_EQ(faultOf([&] { static_cast<void>(Reader(sourceOf("3006020105020105")).take(8)); }), std::nullopt);
}

TEST_P(FramingReader, WhatIsAnnouncedTakesNoMemoryBeforeItComes) {
    // 2^62 octets announced, one there
    for (const char* announced : {"04884000000000000000ff", "30880fffffffffffffff04840fffffffff"}) {
        EXPECT_EQ(faultOf([&] { static_cast<void>(Reader(sourceOf(announced)).take(SIZE_MAX)); }), Fault::ended);
    }
}

TEST_P(FramingReader, OperationsInTheWrongPlaceAreRefused) {
    const auto faulty = [](auto use) {
        return faultOf([&] {
            Reader reader(sourceOf("3003020105"));
            use(reader);
        });
    };
    EXPECT_EQ(faulty([](Reader& reader) { reader.expect(set); }), Fault::unexpected);
    EXPECT_EQ(faulty([](Reader& reader) { reader.leave(); }), Fault::unexpected);
    EXPECT_EQ(faulty([](Reader& reader) { reader.finish(); }), Fault::unexpected);
    EXPECT_EQ(faulty([](Reader& reader) {
                  reader.enter();
                  reader.enter();
              }),
              Fault::unexpected)
        << "a primitive element is not entered";
    EXPECT_EQ(faulty([](Reader& reader) {
                  reader.enter();
                  reader.leave();
              }),
              Fault::unexpected)
        << "something is left";
    EXPECT_EQ(faulty([](Reader& reader) {
                  reader.skip();
                  reader.skip();
              }),
              Fault::unexpected)
        << "there is one outermost element";
    EXPECT_EQ(faulty([](Reader& reader) {
                  reader.skip();
                  static_cast<void>(reader.take(9));
              }),
              Fault::unexpected);
}

INSTANTIATE_TEST_SUITE_P(Sources, FramingReader, testing::Bool(),
                         [](const auto& how) { return how.param ? "InPlace" : "Copied"; });

TEST(FramingReaderExactness, LongHeadersWithoutEndAreMalformed) {
    // A tag number that begins with zeros for ever, which any decoder would go on reading.
    Bytes zeros{0x1F};
    zeros.resize(100000, 0x80);
    PiecesIn in(zeros);
    EXPECT_EQ(faultOf([&] { static_cast<void>(Reader(in).next()); }), Fault::malformed);
    EXPECT_LE(in.taken(), 256U);
}

TEST(FramingReaderExactness, ThrowsOfTheSourceReachTheCaller) {
    PiecesIn in(fromHex("3003020105"));
    in.throwAt(3);
    Reader reader(in);
    reader.enter();
    EXPECT_THROW(static_cast<void>(reader.take(10)), Norvane::MediaException);
}
