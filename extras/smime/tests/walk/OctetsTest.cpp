#include "mime/Octets.h"
#include "mime/Header.h"
#include "mime/Lines.h"
#include "mime/Transfer.h"

#include <norvcmsg/SwapBufferMediaOut.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace Norvane;
using namespace Norvane::Crypto::SMime::mime;
using testing::Each;
using testing::ElementsAre;
using testing::Le;

/// A stream that gives at most `step` bytes at once, and writes down how many it was asked for.
class Noting : public MediaInImpl {
public:
    Noting(std::string bytes, std::size_t step, std::vector<unsigned int>& asked)
        : m_bytes(std::move(bytes)),
          m_step(step),
          m_asked(asked) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_from == m_bytes.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : static_cast<unsigned char>(m_bytes[m_from]); }
    int read(unsigned char* out, unsigned int length) override {
        m_asked.push_back(length);
        const std::size_t count = std::min({m_step, std::size_t{length}, m_bytes.size() - m_from});
        std::memcpy(out, m_bytes.data() + m_from, count);
        m_from += count;
        return static_cast<int>(count);
    }

private:
    std::string m_bytes;
    std::size_t m_step;
    std::vector<unsigned int>& m_asked;
    std::size_t m_from = 0;
};

/// Shows one byte, and no more than it is asked for: what a stream has that goes on later. Writes down the most it was asked for.
class OneByOne : public Octets {
public:
    explicit OneByOne(std::string bytes) : m_bytes(std::move(bytes)) {}
    std::string_view view(std::size_t atLeast) override {
        most = std::max(most, atLeast);
        ++asked;
        return std::string_view(m_bytes).substr(m_from, std::max<std::size_t>(atLeast, 1));
    }
    void skip(std::size_t count) override { m_from += count; }

    std::size_t most = 0;
    std::size_t asked = 0;

private:
    std::string m_bytes;
    std::size_t m_from = 0;
};

std::string textOf(const MemoryMediaOut& out) {
    const Buffer& bytes = out.content();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.length()};
}

struct Reading {
    std::vector<unsigned int> asked;
    MediaOctets octets;

    Reading(const std::string& bytes, std::size_t step)
        : octets(MediaIn(makeReference<Noting, MediaInImpl>(bytes, step, asked))) {}
};

TEST(OctetsOfAStream, AreReadWhenTooFewLieReadyAlone) {
    Reading reading("abcdef", 3);
    EXPECT_EQ(reading.octets.view(1), "abc");
    EXPECT_EQ(reading.octets.view(3), "abc");
    EXPECT_EQ(reading.asked.size(), 1U) << "there are enough";
    EXPECT_EQ(reading.octets.view(4), "abcdef");
    EXPECT_EQ(reading.asked.size(), 2U);
    reading.octets.skip(1);
    EXPECT_EQ(reading.octets.view(6), "bcdef");
    EXPECT_EQ(reading.asked.size(), 3U);
    EXPECT_EQ(reading.octets.view(6), "bcdef");
    EXPECT_EQ(reading.asked.size(), 3U) << "the end was seen";
    reading.octets.skip(1);
    EXPECT_EQ(reading.octets.view(1), "cdef");
    Reading exact("abcdefghi", 3);
    EXPECT_EQ(exact.octets.view(6), "abcdef");
    EXPECT_EQ(exact.asked.size(), 2U);
}

TEST(OctetsOfAStream, MoveToTheFrontWhenMoreAreWanted) {
    Reading reading("abcdef", 3);
    EXPECT_EQ(reading.octets.view(1), "abc");
    reading.octets.skip(1);
    EXPECT_EQ(reading.octets.view(3), "bcdef");
    reading.octets.skip(5);
    EXPECT_TRUE(reading.octets.atEnd());
}

TEST(OctetsOfAStream, MayComeOneAtATime) {
    Reading reading("abc", 1);
    EXPECT_EQ(reading.octets.view(3), "abc");
}

TEST(OctetsOfAStream, AreNotTakenBeyondThoseThatLieReady) {
    Reading reading("abcdef", 3);
    EXPECT_EQ(reading.octets.view(1), "abc");
    reading.octets.skip(1);
    reading.octets.skip(100);
    EXPECT_EQ(reading.octets.view(1), "def");
}

TEST(OctetsOfAStream, HaveRoomForWhatIsReadAndLittleMoreWhenTheyAreFew) {
    Reading few(std::string(100, 'x'), 10);
    EXPECT_EQ(drain(few.octets), 100U);
    EXPECT_THAT(few.asked, Each(Le(4096U + 1)));

    std::string text;
    for (int number = 0; text.size() < 60000; ++number)
        text += std::to_string(number) + ' ';
    Reading many(text, text.size());
    const std::size_t first = many.octets.view(1).size();
    many.octets.skip(first - 96);
    EXPECT_EQ(many.octets.view(5000).substr(0, 5000), text.substr(first - 96, 5000));
    ASSERT_EQ(many.asked.size(), 2U);

    EXPECT_EQ(many.octets.view(1).size(), many.asked[1] + 96);
    many.octets.skip(many.octets.view(1).size());
    std::string rest;
    for (std::string_view bytes = many.octets.view(1); !bytes.empty(); bytes = many.octets.view(1)) {
        rest += bytes;
        many.octets.skip(bytes.size());
    }
    EXPECT_EQ(rest, text.substr(text.size() - rest.size()));
    EXPECT_EQ(rest.size() + first + many.asked[1], text.size());
}

TEST(OctetsOfAStream, AreCountedWhenAllAreTaken) {
    Reading drained("abcdefg", 3);
    EXPECT_EQ(drain(drained.octets), 7U);
    Reading copied("abcdefg", 3);
    MemoryMediaOut out;
    EXPECT_EQ(copy(copied.octets, out), 7U);
    EXPECT_EQ(textOf(out), "abcdefg");
    MemoryOctets none("");
    EXPECT_EQ(drain(none), 0U);
    EXPECT_EQ(copy(none, out), 0U);
}

// The stream may be a connection: who waits for a second byte while one lies ready waits for a sender that waits for him.
TEST(Octets, AreNotWaitedForWhenOneIsEnough) {
    OneByOne drained("abc");
    drain(drained);
    EXPECT_EQ(drained.most, 1U);

    OneByOne copied("abc");
    MemoryMediaOut out;
    copy(copied, out);
    EXPECT_EQ(copied.most, 1U);

    OneByOne header("A: b\r\n\r\nbody");
    Header fields;
    EXPECT_EQ(readHeader(header, {}, fields), HeaderEnd::complete);
    EXPECT_EQ(header.most, 1U);
    EXPECT_EQ(header.view(4), "body");

    const auto read = std::make_shared<OneByOne>("abc");
    MediaIn in = mediaOver(read);
    EXPECT_EQ(in.peek(), 'a');
    std::array<unsigned char, 8> taken{};
    EXPECT_EQ(in.read(taken.data(), 2), 2);
    EXPECT_EQ(in.peek(), 'c');
    EXPECT_EQ(in.read(taken.data() + 2, 6), 1);
    EXPECT_EQ(std::string(taken.begin(), taken.begin() + 4), std::string("abc\0", 4));
    EXPECT_EQ(in.peek(), -1);
    EXPECT_EQ(read->most, 1U);

    const auto encoded = std::make_shared<OneByOne>("QUJD");
    EXPECT_EQ(decoded(encoded, Transfer::base64)->view(1).substr(0, 1), "A");
    EXPECT_EQ(encoded->most, 1U);
}

TEST(Octets, AreCopiedWhenTheyAreTaken) {
    MemoryMediaOut copy;
    CopiedOctets copied(std::make_shared<MemoryOctets>("abcdef"), copy);
    EXPECT_EQ(copied.view(3), "abcdef");
    copied.skip(2);
    copied.skip(0);
    EXPECT_EQ(textOf(copy), "ab");
    EXPECT_EQ(copied.view(1), "cdef");
    copied.skip(3);
    EXPECT_EQ(textOf(copy), "abcde");
    EXPECT_EQ(copied.view(1), "f");
}

TEST(Octets, AreWrittenAsAStream) {
    const MediaIn in = mediaOver(std::make_shared<MemoryOctets>("abc"));
    MemoryMediaOut out;
    MediaIn(in).write(out);
    EXPECT_EQ(textOf(out), "abc");
    EXPECT_TRUE(in.atEnd());
}

TEST(Octets, MayBeginWithAByteOrderMark) {
    MemoryOctets marked("\xEF\xBB\xBF"
                        "abc");
    EXPECT_TRUE(skipByteOrderMark(marked));
    EXPECT_EQ(marked.view(1), "abc");
    EXPECT_FALSE(skipByteOrderMark(marked));
    MemoryOctets half("\xEF\xBB"
                      "abc");
    EXPECT_FALSE(skipByteOrderMark(half));
    EXPECT_EQ(half.view(1), "\xEF\xBB"
                            "abc");
}

TEST(OctetsDecoded, AreDecodedWhenTooFewLieReadyAlone) {
    const auto encoded = std::make_shared<OneByOne>("QUJDREVG");
    const SharedOctets octets = decoded(encoded, Transfer::base64);
    EXPECT_EQ(octets->view(3), "ABC");
    const std::size_t asked = encoded->asked;
    EXPECT_EQ(octets->view(3), "ABC");
    EXPECT_EQ(octets->view(1), "ABC");
    EXPECT_EQ(encoded->asked, asked) << "there are enough";
    octets->skip(1);
    EXPECT_EQ(octets->view(4).substr(0, 4), "BCDE");
    octets->skip(4);
    const std::string last(octets->view(2));
    const std::size_t all = encoded->asked;
    EXPECT_EQ(octets->view(2), last);
    EXPECT_EQ(last, "F");
    EXPECT_EQ(encoded->asked, all) << "the end was seen";
    octets->skip(100);
    EXPECT_TRUE(octets->atEnd());
}

TEST(OctetsDecoded, AreThoseThatStandThereWithoutAnEncoding) {
    const auto plain = std::make_shared<MemoryOctets>("a=41 \r\n");
    EXPECT_EQ(decoded(plain, Transfer::identity), plain);
    EXPECT_EQ(decoded(plain, Transfer::unknown), plain);
    for (const Transfer transfer : {Transfer::identity, Transfer::unknown}) {
        Decoder decoder(transfer);
        WipedText out = "x";
        decoder.decode("a=41 \r\n \t\r\nQQ", out);
        decoder.end(out);
        EXPECT_EQ(out, "xa=41 \r\n \t\r\nQQ");
    }
}

TEST(OctetsDecoded, ComeBehindThoseThatAreThere) {
    WipedText out = "0123456789";
    Decoder base64(Transfer::base64);
    base64.decode("QUJ", out);
    base64.decode("DRE", out);
    base64.end(out);
    EXPECT_EQ(out, "0123456789ABCD");
    Decoder quoted(Transfer::quotedPrintable);
    quoted.decode("=4", out);
    quoted.decode("1 \r", out);
    quoted.end(out);
    EXPECT_EQ(out, "0123456789ABCDA \r");
    quoted.end(out);
    EXPECT_EQ(out, "0123456789ABCDA \r") << "nothing is held back any more";
}

TEST(OctetsDecoded, AreNotTakenBeyondThoseThatLieReady) {
    const SharedOctets octets = decoded(std::make_shared<OneByOne>("QUJDREVG"), Transfer::base64);
    EXPECT_EQ(octets->view(3), "ABC");
    octets->skip(1);
    octets->skip(100);
    EXPECT_EQ(octets->view(1), "DEF");
}

TEST(OctetsDecoded, PassThroughASinkInPieces) {
    MemoryMediaOut out;
    DecodingMediaOut decoding(out, Transfer::base64);
    put(decoding, "QUJ");
    put(decoding, "DRE" + std::string(40000, 'E')); // 0x44 0x41 0x04 and so on
    EXPECT_EQ(textOf(out).substr(0, 3), "ABC");
    put(decoding, "RA");
    decoding.end();
    EXPECT_TRUE(out.ended());
    EXPECT_EQ(textOf(out).size(), 3U + 40004 / 4 * 3);
}

// RFC 2045, 6.7, rules 3 and 5.
TEST(OctetsDecoded, HaveNoBlanksThatWereAddedAtTheEndsOfLines) {
    for (const auto& [encoded, text] : std::vector<std::pair<std::string, std::string>>{{"a \t \nb", "a\nb"},
                                                                                        {"a\t\r\nb", "a\r\nb"},
                                                                                        {"a\t=\nb", "a\tb"},
                                                                                        {"a= \t\nb", "ab"},
                                                                                        {"a \t b", "a \t b"},
                                                                                        {"a \rb", "a \rb"},
                                                                                        {"a \r\r\nb", "a \r\r\nb"}}) {
        for (std::size_t cut = 0; cut <= encoded.size(); ++cut) {
            Decoder decoder(Transfer::quotedPrintable);
            WipedText out;
            decoder.decode(encoded.substr(0, cut), out);
            decoder.decode(encoded.substr(cut), out);
            decoder.end(out);
            EXPECT_EQ(std::string(out), text) << cut;
        }
    }
}

TEST(LineEndsOfPieces, AreCountedWhenTheNextPieceIsThere) {
    LineEndCounter counter;
    const auto counted = [&](const std::string& piece) {
        counter.update(piece);
        const LineEnds ends = counter.counted();
        return std::vector<std::uint64_t>{ends.crLf, ends.bareLf, ends.bareCr};
    };
    EXPECT_THAT(counted("a\r"), ElementsAre(0, 0, 1));
    EXPECT_THAT(counted(""), ElementsAre(0, 0, 1));
    EXPECT_THAT(counted("\n"), ElementsAre(1, 0, 0));
    EXPECT_THAT(counted("\r"), ElementsAre(1, 0, 1));
    EXPECT_THAT(counted("\r"), ElementsAre(1, 0, 2));
    EXPECT_THAT(counted("b"), ElementsAre(1, 0, 2));
    EXPECT_THAT(counted("\r\r\rc\rd\n\n"), ElementsAre(1, 2, 6));
    EXPECT_THAT(counted("\n"), ElementsAre(1, 3, 6));
    EXPECT_THAT(counted("x\r\ny\r\n"), ElementsAre(3, 3, 6));
    EXPECT_THAT(counted("\n\r"), ElementsAre(3, 4, 7));
}

TEST(CanonicalLineEnds, AreMadeOfTheFirstOctetToo) {
    MemoryMediaOut out;
    CanonicalMediaOut canonical(out);
    put(canonical, "\n\na\r");
    put(canonical, "");
    put(canonical, "\n\n");
    canonical.end();
    EXPECT_EQ(textOf(out), "\r\n\r\na\r\n\r\n");
}

// Short ones: each is found by one way of looking alone, sixteen octets at once or one by one.
TEST(Lines, AreFoundWhereverTheyStand) {
    for (std::size_t length = 2; length != 90; ++length) {
        for (std::size_t at = 0; at + 1 < length; ++at) {
            std::string text(length, 'x');
            text[at] = '\n';
            EXPECT_EQ(findLineStart(text, '-'), std::string::npos);
            text[at + 1] = '-';
            ASSERT_EQ(findLineStart(text, '-'), at);
            ASSERT_EQ(findLineStart(text, '-', at), at);
            ASSERT_EQ(findLineStart(text, '-', at + 1), std::string::npos);
            ASSERT_EQ(findLine(text, "\n-x"), at + 2 < length ? at : std::string::npos);
            ASSERT_EQ(countOf('\n', text), 1U);
            ASSERT_FALSE(isCanonical(text));
            text[at] = '\r';
            ASSERT_FALSE(isCanonical(text));
            text[at + 1] = '\n';
            ASSERT_TRUE(isCanonical(text)) << length << ' ' << at;
            // With nothing behind it that may be read.
            const std::vector<char> exact(text.begin(), text.end());
            const std::string_view alone(exact.data(), exact.size());
            ASSERT_TRUE(isCanonical(alone));
            ASSERT_EQ(findLineStart(alone, '-', at), std::string::npos);
            ASSERT_EQ(countOf('\n', alone), 1U);
        }
    }
    EXPECT_EQ(findLineStart(std::string(90, '-'), '-'), std::string::npos);
    EXPECT_EQ(findLineStart(std::string(90, '\n'), '-'), std::string::npos);
    EXPECT_EQ(findLine("\n-\n-a\n--b", "\n--"), 5U);
    for (const std::size_t length : {0U, 15U, 16U, 17U, 127U * 16, 128U * 16, 129U * 16, 300U * 16 + 3})
        EXPECT_EQ(countOf('\n', std::string(length, '\n')), length);
}

} // namespace
