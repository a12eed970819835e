#include "diagnosis/BodyFacts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime::diagnosis;
using testing::ElementsAre;
using testing::IsEmpty;

BodyFacts factsOf(const std::string& body) {
    BodyFacts facts;
    FactsCollector collector(facts);
    BodyScanner scanner({&collector});
    scanner.write(body);
    scanner.finish();
    return facts;
}

/// A part with these fields, behind one of plain text.
std::string behindAnother(const std::string& fields, const std::string& text) {
    return "Content-Type: multipart/mixed; boundary=b\n\n--b\n\none\n--b\n" + fields + "\n\n" + text + "\n--b--\n";
}

TEST(BodyFactsTest, LineEndsAreCounted) {
    const BodyFacts facts = factsOf("A: b\r\n\nx\r\ny\n\n\rz\r\r\n1\r\r\n2\r\r\n\r\r\nend");
    EXPECT_EQ(facts.count(LineEnd::crLf), 2U);
    EXPECT_EQ(facts.count(LineEnd::lf), 3U);
    EXPECT_EQ(facts.count(LineEnd::cr), 1U);
    EXPECT_EQ(facts.count(LineEnd::crCrLf), 4U);
    EXPECT_EQ(facts.countOfEnds(), 10U);
    EXPECT_EQ(factsOf("").countOfEnds(), 0U);
}

TEST(BodyFactsTest, TheUsualLineEndIsThatOfMostLines) {
    EXPECT_EQ(factsOf("x\ny\nz\r\n").usual(), LineEnd::lf);
    EXPECT_EQ(factsOf("x\ny\r\nz\r\n").usual(), LineEnd::crLf);
    EXPECT_EQ(factsOf("x\ny\r\n").usual(), LineEnd::crLf) << "RFC 5751, 3.1.1: what signers are to write";
    EXPECT_EQ(factsOf("x").usual(), LineEnd::crLf);
}

TEST(BodyFactsTest, HeaderAndParts) {
    EXPECT_FALSE(factsOf("text").hasHeader);
    const BodyFacts plain = factsOf("A: b\n\ntext");
    EXPECT_TRUE(plain.hasHeader);
    EXPECT_FALSE(plain.hasMultipart || plain.hasPreamble || plain.hasEpilogue);
    const BodyFacts parts = factsOf(behindAnother("A: b", "two"));
    EXPECT_TRUE(parts.hasMultipart);
    EXPECT_FALSE(parts.hasPreamble || parts.hasEpilogue);
    EXPECT_TRUE(factsOf("Content-Type: multipart/mixed; boundary=b\n\nbefore\n--b\n").hasPreamble);
    EXPECT_TRUE(factsOf(behindAnother("A: b", "two") + "after").hasEpilogue);
    EXPECT_FALSE(factsOf(behindAnother("Content-Type: multipart/mixed; boundary=c", "--c--\nafter")).hasEpilogue)
        << "behind the last boundary within a part";
}

TEST(BodyFactsTest, BlanksAtTheEndsOfLines) {
    EXPECT_FALSE(factsOf(" x\n\ty\n").hasBlanksAtLineEnds);
    EXPECT_TRUE(factsOf("x \ny\n").hasBlanksAtLineEnds);
    EXPECT_TRUE(factsOf("x\ny\t").hasBlanksAtLineEnds);
    EXPECT_TRUE(factsOf("A: b \nC: d\n\nx\ny").hasBlanksAtLineEnds);
    EXPECT_TRUE(factsOf("A: b\t\n\nx").hasBlanksAtLineEnds);
    EXPECT_FALSE(factsOf(std::string(4095, 'x') + " y\n").hasBlanksAtLineEnds) << "the end of a piece is none";
    EXPECT_TRUE(factsOf(std::string(4096, 'x') + "y \n").hasBlanksAtLineEnds);
}

TEST(BodyFactsTest, StartsOfLines) {
    const auto starts = [](const std::string& text) {
        const BodyFacts facts = factsOf("text\n" + text + "\nmore\n");
        std::vector<std::string> found;
        for (const auto& [is, name] : {std::pair(facts.hasDot, "dot"),
                                       {facts.hasTwoDots, "two dots"},
                                       {facts.hasFrom, "From"},
                                       {facts.hasEscapedFrom, ">From"},
                                       {facts.hasDeeplyEscapedFrom, ">>From"},
                                       {facts.hasBareSeparator, "separator"}}) {
            if (is) {
                found.emplace_back(name);
            }
        }
        return found;
    };
    EXPECT_THAT(starts("x.\n .\nfrom \n>from \n From \n-- \n---\nFrom"), IsEmpty());
    EXPECT_THAT(starts("."), ElementsAre("dot"));
    EXPECT_THAT(starts("..x"), ElementsAre("dot", "two dots"));
    EXPECT_THAT(starts("From x"), ElementsAre("From"));
    EXPECT_THAT(starts(">From x"), ElementsAre(">From"));
    EXPECT_THAT(starts(">>From x"), ElementsAre(">>From"));
    EXPECT_THAT(starts(">>>From x\n>From \nFrom "), ElementsAre("From", ">From", ">>From"));
    EXPECT_THAT(starts(">>>"), IsEmpty());
    EXPECT_THAT(starts("--"), ElementsAre("separator"));
    EXPECT_THAT(
        starts(std::string(4096, 'x') + "..\n" + std::string(4096, 'x') + "--\n" + std::string(4096, 'x') + "From x"),
        IsEmpty())
        << "a piece of a long line begins none";
    EXPECT_TRUE(factsOf("a\n.\n..\nFrom \n>From \n>>From \n--\nx \nb\n").hasTwoDots);
}

TEST(BodyFactsTest, EncodingsAreThoseOfPartsWithText) {
    const auto encodings = [](const std::string& type, const std::string& encoding) {
        const BodyFacts facts =
            factsOf(behindAnother("Content-Type: " + type + "\nContent-Transfer-Encoding: " + encoding, "AAAA"));
        return std::string(facts.hasBase64 ? "base64 " : "") + (facts.hasBase64Text ? "base64text " : "") +
               (facts.hasQuotedPrintable ? "quoted " : "") + (facts.hasEightBitText ? "8bit" : "");
    };
    EXPECT_EQ(encodings("text/plain", "base64"), "base64 base64text ");
    EXPECT_EQ(encodings("image/png", "base64"), "base64 ");
    EXPECT_EQ(encodings("text/plain", "quoted-printable"), "quoted ");
    EXPECT_EQ(encodings("text/plain", "8bit"), "8bit");
    EXPECT_EQ(encodings("image/png", "8bit"), "");
    EXPECT_EQ(encodings("text/plain", "7bit"), "");
    const BodyFacts first =
        factsOf("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Transfer-Encoding: base64\n\nAAAA\n--b\n"
                "Content-Transfer-Encoding: 8bit\n\nx\n--b\nContent-Transfer-Encoding: quoted-printable\n\nx=3d\n--b\n"
                "Content-Type: image/png\n\nAA=3D\n--b--\n");
    EXPECT_TRUE(first.hasBase64 && first.hasBase64Text && first.hasEightBitText && first.hasQuotedPrintable &&
                first.hasMultipart);
    EXPECT_TRUE(first.hasSmallHexDigits);
    EXPECT_FALSE(first.hasCapitalHexDigits) << "the part behind is not quoted-printable";
}

TEST(BodyFactsTest, HexDigitsOfQuotedPrintable) {
    const auto digits = [](const std::string& text) {
        const BodyFacts facts = factsOf("Content-Transfer-Encoding: quoted-printable\n\n" + text);
        return std::string(facts.hasSmallHexDigits ? "small " : "") + (facts.hasCapitalHexDigits ? "capital" : "");
    };
    EXPECT_EQ(digits("=3D"), "capital");
    EXPECT_EQ(digits("x=3d"), "small ");
    EXPECT_EQ(digits("=A0"), "capital");
    EXPECT_EQ(digits("=F0"), "capital");
    EXPECT_EQ(digits("=a0"), "small ");
    EXPECT_EQ(digits("=f0"), "small ");
    EXPECT_EQ(digits("=20=\nabcdef ABCDEF"), "") << "these are text";
    EXPECT_EQ(digits("=20a=20F"), "") << "behind two digits there is text";
    EXPECT_EQ(digits("=g0=G0=`0=@0"), "");
    EXPECT_EQ(digits("=20==3D=3d"), "small capital");
    EXPECT_EQ(digits("="), "");
}

TEST(BodyFactsTest, SixteenCharacterSetsOfTextsAreCollected) {
    EXPECT_THAT(factsOf("Content-Type: text/plain; charset=\"UTF-8\"\n\nx").characterSets, ElementsAre("utf-8"));
    EXPECT_THAT(factsOf("Content-Type: image/png; charset=utf-8\n\nx").characterSets, IsEmpty());
    EXPECT_THAT(factsOf("Content-Type: multipart/mixed; boundary=b; charset=utf-8\n\n--b\n").characterSets, IsEmpty());
    std::string parts = "Content-Type: multipart/mixed; boundary=b\n\n";
    for (int set = 10; set != 30; ++set) {
        parts += "--b\nContent-Type: text/plain; charset=set" + std::to_string(set) + "\n\n";
    }
    const BodyFacts facts = factsOf(parts);
    EXPECT_EQ(facts.characterSets.size(), 16U);
    EXPECT_TRUE(facts.characterSets.contains("set25"));
}

} // namespace
