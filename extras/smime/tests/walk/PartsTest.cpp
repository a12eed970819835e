#include "mime/Multipart.h"

#include "mime/Header.h"
#include "mime/Limits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime::mime;
using testing::ElementsAre;

/// Shows a few bytes at a time, and writes down what it was asked for.
class Showing : public Octets {
public:
    Showing(std::string bytes, std::size_t step) : m_bytes(std::move(bytes)), m_step(step) {}
    std::string_view view(std::size_t atLeast) override {
        most = std::max(most, atLeast);
        asked += atLeast == 0 ? 0 : 1;
        return std::string_view(m_bytes).substr(m_from, std::max(atLeast, m_step));
    }
    void skip(std::size_t count) override { m_from += count; }

    std::size_t most = 0;
    std::size_t asked = 0; ///< for any

private:
    std::string m_bytes;
    std::size_t m_step;
    std::size_t m_from = 0;
};

std::string all(Octets& from) {
    std::string text;
    for (std::string_view bytes = from.view(1); !bytes.empty(); bytes = from.view(1)) {
        text += bytes;
        from.skip(bytes.size());
    }
    return text;
}

/// The parts, and behind them what is left of the body.
std::vector<std::string> partsOf(const std::string& body, std::size_t step, std::uint64_t lookAlikes = 0) {
    const auto octets = std::make_shared<Showing>(body, step);
    Multipart multipart(octets, "b");
    std::vector<std::string> parts;
    while (multipart.next())
        parts.push_back(all(*multipart.part()));
    EXPECT_EQ(multipart.lookAlikes(), lookAlikes) << body;
    parts.emplace_back(multipart.isClosed() ? "closed" : "open");
    parts.push_back(all(*octets));
    return parts;
}

const std::string blanks(maximumPadding, ' '); // NOLINT(cert-err58-cpp)

TEST(DelimiterLine, HasAsManyBlanksAsPaddingMayHave) {
    const std::string epilogue(400, 'e');
    for (const std::string end : {"\n", "\r\n"}) {
        for (const std::size_t step : {1U, 1000U}) {
            EXPECT_THAT(partsOf("--b" + blanks + end + "one" + end + "--b--" + blanks + end + epilogue, step),
                        ElementsAre("one", "closed", epilogue));
            EXPECT_THAT(partsOf("--b \t" + end + "one" + end + "--b \n" + end + "--b--\t" + end, step),
                        ElementsAre("one", "", "closed", ""));
            const std::string tooMany = "--b--" + blanks + " " + end;
            EXPECT_THAT(partsOf("--b\n" + tooMany + "--b--\n", step, 1),
                        ElementsAre(tooMany.substr(0, tooMany.size() - end.size()), "closed", ""));
        }
    }
    EXPECT_THAT(partsOf("--b" + blanks, 1), ElementsAre("", "open", ""));
    EXPECT_THAT(partsOf("--b" + blanks + ' ', 1, 1), ElementsAre("open", ""));
}

TEST(DelimiterLine, MayEndWithTheBody) {
    EXPECT_THAT(partsOf("--b\none\n--b--", 1), ElementsAre("one", "closed", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--\r", 1), ElementsAre("one", "closed", ""));
    EXPECT_THAT(partsOf("--b\none\n--b-- \r", 1), ElementsAre("one", "closed", ""));
    EXPECT_THAT(partsOf("--b\none\n--b\r", 1), ElementsAre("one", "", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--x", 1, 1), ElementsAre("one\n--b--x", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--bx", 1, 1), ElementsAre("one\n--bx", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--\rx", 1, 1), ElementsAre("one\n--b--\rx", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--\rxy", 1, 1), ElementsAre("one\n--b--\rxy", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--\r\rx", 1, 1), ElementsAre("one\n--b--\r\rx", "open", ""));
    EXPECT_THAT(partsOf("--b\none\n--b--x\r", 1, 1), ElementsAre("one\n--b--x\r", "open", ""));
}

// However much of the body lies ready when its delimiter is met: the end of the line is looked at before it is judged.
TEST(DelimiterLine, IsTheSameWhereverItStands) {
    const std::string epilogue(400, 'e');
    for (const std::string end : {"\n", "\r\n"}) {
        for (const std::size_t step : {1U, 64U}) {
            for (std::size_t length = 0; length != 320; ++length) {
                const std::string text(length, 'x');
                ASSERT_THAT(partsOf("--b" + end + text + end + "--b--" + blanks + end + epilogue, step),
                            ElementsAre(text, "closed", epilogue))
                    << length;
                const std::string alike = text + end + "--b--" + blanks + "x" + end + "--bb";
                ASSERT_THAT(partsOf("--b" + end + alike + end + "--b--" + end + epilogue, step, 2),
                            ElementsAre(alike, "closed", epilogue))
                    << length;
                if (length != 0) {
                    ASSERT_THAT(partsOf("--b" + end + text + "--b" + end + "y" + end + "--b--", step),
                                ElementsAre(text + "--b" + end + "y", "closed", ""))
                        << length << ": not where a line begins";
                }
            }
        }
    }
}

// Those who end lines at a CR see other parts; what is signed is left alone.
TEST(DelimiterLine, BehindACrIsSoughtInWhatIsWatched) {
    for (const std::size_t step : {1U, 5U, 1000U}) {
        Multipart preamble(std::make_shared<Showing>("xx\r--b\ry\n--b\none\n--b--", step), "b");
        ASSERT_TRUE(preamble.next());
        EXPECT_TRUE(preamble.isCutByReturns()) << step;
        EXPECT_EQ(preamble.lookAlikes(), 0U);
        Multipart parts(std::make_shared<Showing>("x\r-b\r\n--b\none\r--b\n--b\ntwo\r--b\n--b--\r--b", step), "b");
        ASSERT_TRUE(parts.next());
        ASSERT_TRUE(parts.next());
        EXPECT_FALSE(parts.isCutByReturns()) << step;
        parts.watch();
        EXPECT_FALSE(parts.next());
        EXPECT_TRUE(parts.isCutByReturns()) << step;
        parts.watch(); // where there is no part
    }
}

TEST(DelimiterLine, BehindACrIsFoundWhereverAPieceEnds) {
    for (std::size_t length = 0; length != 1500; ++length) {
        const std::string text = std::string(length, 'x') + "\r--b\r" + std::string(1500, 'y');
        Multipart preamble(std::make_shared<Showing>(text + "\n--b\none\n--b--", 1), "b");
        ASSERT_TRUE(preamble.next());
        ASSERT_TRUE(preamble.isCutByReturns()) << length;
        ASSERT_FALSE(preamble.hasFound());
        const std::string other = std::string(length, 'x') + "=2D" + std::string(1500, 'y');
        Multipart sought(std::make_shared<Showing>(other + "\n--b\none\n--b--", 1), "b");
        sought.seek("=2D");
        ASSERT_TRUE(sought.next());
        ASSERT_TRUE(sought.hasFound()) << length;
        ASSERT_FALSE(sought.isCutByReturns());
    }
}

// A part begins once, whatever is taken of it at a time.
TEST(DelimiterLine, IsNoneBehindWhatWasTakenOfItsLine) {
    for (std::size_t length = 1; length != 320; ++length) {
        const std::string text = std::string(length, 'x') + "--b\ny";
        const auto octets = std::make_shared<Showing>("--b\n" + text + "\n--b--\n" + std::string(400, 'e'), 1);
        Multipart multipart(octets, "b");
        ASSERT_TRUE(multipart.next());
        std::string taken;
        while (!multipart.part()->atEnd()) {
            taken += multipart.part()->view(1).front();
            multipart.part()->skip(1);
        }
        ASSERT_EQ(taken, text);
    }
}

TEST(DelimiterLine, CountsAsALookAlikeOnceWhereThePartBegins) {
    const std::string text = "--bx\n" + std::string(1000, 'x');
    EXPECT_THAT(partsOf("--b\n" + text + "\n--b--", 1, 1), ElementsAre(text, "closed", ""));
    const auto octets = std::make_shared<Showing>("--b\n" + text + "\n--b--", 1);
    Multipart multipart(octets, "b");
    ASSERT_TRUE(multipart.next());
    for (std::size_t length = 1; length != text.size(); ++length)
        ASSERT_GE(multipart.part()->view(length).size(), length) << "looked at, and not taken";
    EXPECT_EQ(multipart.lookAlikes(), 1U);
}

TEST(DelimiterLine, OfTheEndIsTakenOnce) {
    const auto octets = std::make_shared<Showing>("--b\none\n--b--\nepilogue", 100);
    Multipart multipart(octets, "b");
    EXPECT_TRUE(multipart.next());
    for (int time = 0; time != 3; ++time) {
        EXPECT_FALSE(multipart.next());
        EXPECT_TRUE(multipart.isClosed());
    }
    EXPECT_EQ(all(*octets), "epilogue");
}

TEST(PartOfABody, IsNotTakenBeyondItsEnd) {
    const auto octets = std::make_shared<Showing>("--b\none\n--b\ntwo\n--b--", 100);
    Multipart multipart(octets, "b");
    ASSERT_TRUE(multipart.next());
    EXPECT_EQ(multipart.part()->view(100), "one");
    multipart.part()->skip(100);
    EXPECT_TRUE(multipart.part()->atEnd());
    ASSERT_TRUE(multipart.next());
    EXPECT_EQ(all(*multipart.part()), "two");
}

// No more than the longest delimiter is waited for before a byte is shown, and nothing once the end was seen.
TEST(PartOfABody, AsksForWhatADelimiterMayHave) {
    const std::string longest = "\r\n--b--" + blanks + "\r\n";
    for (const std::string end : {"\n--b--\n", "\n--b\n", ""}) {
        const auto octets = std::make_shared<Showing>("--b\n" + std::string(1000, 'x') + end, 1);
        Multipart multipart(octets, "b");
        ASSERT_TRUE(multipart.next());
        octets->most = 0;
        EXPECT_EQ(multipart.part()->view(1).front(), 'x');
        EXPECT_EQ(octets->most, 1 + longest.size());
        EXPECT_EQ(all(*multipart.part()).size(), 1000U);
        octets->asked = 0;
        EXPECT_TRUE(multipart.part()->atEnd());
        EXPECT_EQ(multipart.part()->view(10), "");
        EXPECT_EQ(octets->asked, 0U);
    }
}

Header headerOf(const std::string& text) {
    Header header;
    MemoryOctets octets(text);
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    return header;
}

TEST(HeaderFields, AreThoseWithANameAlone) {
    for (const std::string line : {":", ": x", " : x", "\t: x", "A\x7f: x", "A\x01: x", "\xc3\xa4: x", "A b: x", "x"}) {
        for (const std::string end : {"", "\n", "\r\n"}) {
            const Header header = headerOf(line + end);
            ASSERT_EQ(header.fields().size(), 1U) << line;
            EXPECT_EQ(header.nameOf(header.fields()[0]), "") << line;
            EXPECT_EQ(header.valueOf(header.fields()[0]), line + end);
        }
    }
    const Header header = headerOf("!~9 \t:x\n");
    EXPECT_EQ(header.nameOf(header.fields().at(0)), "!~9");
}

TEST(HeaderFields, HaveTheirLinesPutTogether) {
    EXPECT_EQ(headerOf("A:b\n").first("A"), "b");
    EXPECT_EQ(headerOf("A:\r\n b\r\n c\n\td\r e\r\n\r\n").first("A"), "b c\td\r e");
    EXPECT_EQ(headerOf("A: b\r\r\n c\r\n").first("A"), "b\r c");
    EXPECT_EQ(headerOf("A: b\r").first("A"), "b");
    EXPECT_EQ(headerOf("A: \r").first("A"), "");
    EXPECT_EQ(headerOf("A:\r").first("A"), "");
}

TEST(HeaderFields, AreNamedWithoutCase) {
    const std::string capital = "ABCDEFGHIJKLMNOPQRSTUVWXYZ@[";
    EXPECT_TRUE(isSameName(capital, "abcdefghijklmnopqrstuvwxyz@["));
    EXPECT_FALSE(isSameName("@", "`"));
    EXPECT_FALSE(isSameName("[", "{"));
    EXPECT_FALSE(isSameName("a", "ab"));
}

TEST(HeaderFields, OfAnotherHeaderAreForgotten) {
    Header header;
    MemoryOctets first("A: 1\nB: 2\n\n");
    EXPECT_EQ(readHeader(first, {}, header), HeaderEnd::complete);
    MemoryOctets second("C: 3\n\n");
    EXPECT_EQ(readHeader(second, {}, header), HeaderEnd::complete);
    EXPECT_EQ(header.octets(), "C: 3\n\n");
    EXPECT_EQ(header.fields().size(), 1U);
    EXPECT_EQ(header.first("C"), "3");
    EXPECT_EQ(header.first("A"), std::nullopt);
}

TEST(HeaderFields, AreTakenUpToTheirLimits) {
    const std::string text = "A: 12345\nB: 12345\n\n";
    for (const std::size_t step : {1U, 100U}) {
        Header header;
        Showing whole(text, step);
        EXPECT_EQ(readHeader(whole, {text.size(), 2}, header), HeaderEnd::complete);
        Showing octets(text, step);
        EXPECT_EQ(readHeader(octets, {text.size() - 1, 2}, header), HeaderEnd::tooLong);
        EXPECT_EQ(header.octets(), text.substr(0, text.size() - 1));
        Showing fields(text, step);
        EXPECT_EQ(readHeader(fields, {text.size(), 1}, header), HeaderEnd::tooMany);
        EXPECT_EQ(header.fields().size(), 1U);
    }
}

TEST(HeaderFields, TellHowTheirLinesEnd) {
    EXPECT_TRUE(headerOf("").endsLinesInCrLf());
    EXPECT_TRUE(headerOf("A: b").endsLinesInCrLf());
    EXPECT_TRUE(headerOf("\r\n").endsLinesInCrLf());
    EXPECT_FALSE(headerOf("\n").endsLinesInCrLf());
    EXPECT_FALSE(headerOf("A: b\n").endsLinesInCrLf());
}

} // namespace
