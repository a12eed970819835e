#include "diagnosis/BodyScanner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime::diagnosis;
using testing::ElementsAre;
using testing::IsEmpty;

std::string nameOf(LineEnd end) {
    switch (end) {
    case LineEnd::lf:
        return "LF";
    case LineEnd::crLf:
        return "CRLF";
    case LineEnd::cr:
        return "CR";
    case LineEnd::crCrLf:
        return "CRCRLF";
    case LineEnd::none:
        break;
    }
    return "end";
}

std::string nameOf(TransferEncoding encoding) {
    switch (encoding) {
    case TransferEncoding::none:
        return "plain";
    case TransferEncoding::eightBit:
        return "8bit";
    case TransferEncoding::quotedPrintable:
        return "quoted";
    case TransferEncoding::base64:
        return "base64";
    case TransferEncoding::other:
        break;
    }
    return "other";
}

/// What a body is taken apart into, a line each. Long runs of one octet are abbreviated: "x*4096".
class Recorder : public BodyConsumer {
public:
    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override {
        std::string said = "header " + nameOf(part.encoding) + (part.isText ? " text" : "") +
                           (part.isMultipart ? " multipart" : "") +
                           (part.characterSet.empty() ? "" : " in " + part.characterSet);
        for (const HeaderLine& line : lines)
            said += "|" + shortened(line.octets) + " " + nameOf(line.end);
        m_said.push_back(said);
    }
    void line(const LinePiece& piece) override {
        std::string said;
        switch (piece.place) {
        case Place::preamble:
            said = "preamble";
            break;
        case Place::boundary:
            said = "boundary";
            break;
        case Place::epilogue:
            said = "epilogue";
            break;
        case Place::body:
            said = "line";
        }
        said += piece.isOutermost ? "* " : " ";
        said += (piece.begins ? "" : "...") + shortened(piece.octets);
        m_said.push_back(said + (piece.ends ? " " + nameOf(piece.end) : "..."));
    }
    void finish() override { m_said.emplace_back("finish"); }

    [[nodiscard]] const std::vector<std::string>& said() const { return m_said; }

private:
    static std::string shortened(std::string_view octets) {
        std::string out;
        while (!octets.empty()) {
            const std::size_t run = std::min(octets.find_first_not_of(octets.front()), octets.size());
            if (run > 50)
                out.append(1, octets.front()).append("*").append(std::to_string(run));
            else
                out.append(octets.substr(0, run));
            octets.remove_prefix(run);
        }
        return out;
    }

    std::vector<std::string> m_said;
};

std::vector<std::string> scanned(const std::string& body, std::size_t step) {
    Recorder recorder;
    BodyScanner scanner({&recorder});
    for (std::size_t at = 0; at < body.size(); at += step)
        scanner.write(std::string_view(body).substr(at, step));
    scanner.finish();
    return recorder.said();
}

/// What is said of a body, whatever the pieces that it comes in.
std::vector<std::string> partsOf(const std::string& body) {
    std::vector<std::string> whole = scanned(body, body.size() + 1);
    for (const std::size_t step : {1U, 2U, 3U, 5U, 4096U, 5000U})
        EXPECT_EQ(scanned(body, step), whole) << "in steps of " << step;
    return whole;
}

std::string repeated(char octet, std::size_t count) {
    return std::string(count, octet);
}

TEST(BodyScannerTest, ABodyWithoutFieldsIsText) {
    EXPECT_THAT(partsOf(""), ElementsAre("finish"));
    EXPECT_THAT(partsOf("Hello\r\nthere"), ElementsAre("line Hello CRLF", "line there end", "finish"));
    EXPECT_THAT(partsOf("\r\nName: value\r\n"), ElementsAre("line  CRLF", "line Name: value CRLF", "finish"));
    EXPECT_THAT(partsOf(" \nName: value\n\n"), ElementsAre("line   LF", "line Name: value LF", "line  LF", "finish"));
    EXPECT_THAT(partsOf("Hello\nName: value\n\n"),
                ElementsAre("line Hello LF", "line Name: value LF", "line  LF", "finish"));
}

TEST(BodyScannerTest, FieldsAtTheStartThatNoEmptyLineEndsAreText) {
    EXPECT_THAT(partsOf("Name: value"), ElementsAre("line Name: value end", "finish"));
    EXPECT_THAT(partsOf("Name: value\r\n more\r\n"), ElementsAre("line Name: value CRLF", "line  more CRLF", "finish"));
    EXPECT_THAT(partsOf("Name: value\r\nHello\r\n\r\n"),
                ElementsAre("line Name: value CRLF", "line Hello CRLF", "line  CRLF", "finish"));
}

TEST(BodyScannerTest, FieldsAtTheStartAreThoseOfTheBody) {
    EXPECT_THAT(partsOf("Name: value\r\n more\n\r\ntext"),
                ElementsAre("header plain text|Name: value CRLF| more LF| CRLF", "line text end", "finish"));
    EXPECT_THAT(partsOf("A: b\r\n \t\r\nC: d\r\n\r\n"),
                ElementsAre("header plain text|A: b CRLF| \t CRLF", "line C: d CRLF", "line  CRLF", "finish"))
        << "a line of blanks ends the block as an empty one does";
}

TEST(BodyScannerTest, LineEndsAreToldApart) {
    EXPECT_THAT(partsOf("x\n1\n2\r\n3\r4\r\r\n5\r\r6\r\r\r\n7\n\r8\r"),
                ElementsAre("line x LF", "line 1 LF", "line 2 CRLF", "line 3 CR", "line 4 CRCRLF", "line 5 CR",
                            "line  CR", "line 6 CR", "line  CRCRLF", "line 7 LF", "line  CR", "line 8 CR", "finish"));
    EXPECT_THAT(partsOf("x\r\r"), ElementsAre("line x CR", "line  CR", "finish"));
    EXPECT_THAT(partsOf("A: b\rC: d\r\r\n\rx"),
                ElementsAre("header plain text|A: b CR|C: d CRCRLF| CR", "line x end", "finish"));
}

TEST(BodyScannerTest, WhatAHeaderSaysOfItsPart) {
    const auto said = [](const std::string& fields) { return partsOf(fields + "\n\n").front(); };
    EXPECT_EQ(said("content-type:text/plain"), "header plain text|content-type:text/plain LF| LF");
    EXPECT_EQ(said("Content-Type:TEXT/html; charset=UTF-8"),
              "header plain text in utf-8|Content-Type:TEXT/html; charset=UTF-8 LF| LF");
    EXPECT_EQ(said("Content-Type: image/png"), "header plain|Content-Type: image/png LF| LF");
    EXPECT_EQ(said("Content-Type: \ttext/plain \t;x"), "header plain text|Content-Type: \ttext/plain \t;x LF| LF");
    EXPECT_EQ(said("Content-Type: multipart/mixed"), "header plain multipart|Content-Type: multipart/mixed LF| LF");
    EXPECT_EQ(said("Content-Type: image/png;\n charset=\"A\\\"Z\""),
              "header plain in a\"z|Content-Type: image/png; LF| charset=\"A\\\"Z\" LF| LF")
        << "a field goes on in the next line";
    for (const auto& [value, name] : std::vector<std::pair<std::string, std::string>>{{"base64", "base64"},
                                                                                      {"\tBASE64 ", "base64"},
                                                                                      {"Quoted-Printable", "quoted"},
                                                                                      {"8bit", "8bit"},
                                                                                      {"7BIT", "plain"},
                                                                                      {"binary", "other"},
                                                                                      {"", "other"}})
        EXPECT_EQ(said("Content-Transfer-Encoding:" + value),
                  "header " + name + " text|Content-Transfer-Encoding:" + value + " LF| LF");
}

// RFC 2045, 5.1: "text/plain; charset=us-ascii (Plain text)" is that of charset="us-ascii".
TEST(BodyScannerTest, CommentsInAHeaderSayNothing) {
    const auto said = [](const std::string& fields) { return partsOf(fields + "\n\n").front(); };
    EXPECT_EQ(said("Content-Type: text/plain; charset=us-ascii (Plain text)"),
              "header plain text in us-ascii|Content-Type: text/plain; charset=us-ascii (Plain text) LF| LF");
    EXPECT_EQ(said("Content-Type: image/png (a; b)"), "header plain|Content-Type: image/png (a; b) LF| LF");
    EXPECT_EQ(said("Content-Transfer-Encoding: base64 (as ever)"),
              "header base64 text|Content-Transfer-Encoding: base64 (as ever) LF| LF");
}

TEST(BodyScannerTest, PartsOfAMultipart) {
    EXPECT_THAT(partsOf("Content-Type: multipart/mixed;\r\n boundary=\"a b\"\r\n\r\n"
                        "before\r\n"
                        "--a b\r\n"
                        "Content-Type: text/plain\r\n\r\n"
                        "one\r\n"
                        "--a b \t\r\n"
                        "\r\n"
                        "two\r\n"
                        "--a bc\r\n"
                        "-- a b\r\n"
                        "--a b--\t\r\n"
                        "after\r\n"),
                ElementsAre("header plain multipart|Content-Type: multipart/mixed; CRLF| boundary=\"a b\" CRLF| CRLF",
                            "preamble* before CRLF", "boundary* --a b CRLF",
                            "header plain text|Content-Type: text/plain CRLF| CRLF", "line one CRLF",
                            "boundary* --a b \t CRLF", "header plain text| CRLF", "line two CRLF", "line --a bc CRLF",
                            "line -- a b CRLF", "boundary* --a b--\t CRLF", "epilogue* after CRLF", "finish"));
}

TEST(BodyScannerTest, AMultipartInAMultipart) {
    EXPECT_THAT(
        partsOf("Content-Type: multipart/mixed; boundary=out\n\n"
                "--out\n"
                "Content-Type: multipart/mixed; boundary=in\n\n"
                "between\n"
                "--in\n\n"
                "x\n"
                "--in--\n"
                "behind the inner\n"
                "--in\n"
                "--out\n\n"
                "y\n"
                "--out--\n"
                "--out\n"),
        ElementsAre("header plain multipart|Content-Type: multipart/mixed; boundary=out LF| LF", "boundary* --out LF",
                    "header plain multipart|Content-Type: multipart/mixed; boundary=in LF| LF", "preamble between LF",
                    "boundary --in LF", "header plain text| LF", "line x LF", "boundary --in-- LF",
                    "epilogue behind the inner LF", "epilogue --in LF", "boundary* --out LF", "header plain text| LF",
                    "line y LF", "boundary* --out-- LF", "epilogue* --out LF", "finish"));
}

TEST(BodyScannerTest, AnOuterBoundaryEndsWhatIsOpenWithin) {
    EXPECT_THAT(partsOf("Content-Type: multipart/mixed; boundary=out\n\n"
                        "--out\n"
                        "Content-Type: multipart/mixed; boundary=in\n\n"
                        "--in\n"
                        "Name: value\n"
                        "--out\n\n"
                        "--in\n"),
                ElementsAre("header plain multipart|Content-Type: multipart/mixed; boundary=out LF| LF",
                            "boundary* --out LF",
                            "header plain multipart|Content-Type: multipart/mixed; boundary=in LF| LF",
                            "boundary --in LF", "header plain text|Name: value LF", "boundary* --out LF",
                            "header plain text| LF", "line --in LF", "finish"));
}

TEST(BodyScannerTest, TheHeaderOfAPartEndsWithTheBodyOrWhereNoFieldIs) {
    const std::string start = "Content-Type: multipart/mixed; boundary=b\n\n--b\n";
    const auto behind = [&](const std::string& rest) {
        auto said = partsOf(start + rest);
        said.erase(said.begin(), said.begin() + 2);
        return said;
    };
    EXPECT_THAT(behind("Content-Type: image/png"), ElementsAre("header plain|Content-Type: image/png end", "finish"));
    EXPECT_THAT(behind(""), ElementsAre("finish"));
    EXPECT_THAT(behind("text\n\nmore"),
                ElementsAre("header plain text", "line text LF", "line  LF", "line more end", "finish"));
    EXPECT_THAT(behind(" folded\n"), ElementsAre("header plain text", "line  folded LF", "finish"));
    EXPECT_THAT(behind("--x: y\n\n"), ElementsAre("header plain text", "line --x: y LF", "line  LF", "finish"))
        << "between parts no name of a field begins with two hyphens";
}

TEST(BodyScannerTest, LinesLongerThanAPieceComeInPieces) {
    for (const std::string& start : {std::string("text\n"), std::string("A: b\n\n")}) {
        const auto longLine = [&](std::size_t length, const std::string& end) {
            auto said = partsOf(start + repeated('x', length) + end);
            said.erase(said.begin());
            return said;
        };
        EXPECT_THAT(longLine(4095, "\n"), ElementsAre("line x*4095 LF", "finish"));
        EXPECT_THAT(longLine(4096, "\r\n"), ElementsAre("line x*4096 CRLF", "finish"));
        EXPECT_THAT(longLine(4097, "\n"), ElementsAre("line x*4096...", "line ...x LF", "finish"));
        EXPECT_THAT(longLine(8192, ""), ElementsAre("line x*4096...", "line ...x*4096 end", "finish"));
        EXPECT_THAT(longLine(8193, ""), ElementsAre("line x*4096...", "line ...x*4096...", "line ...x end", "finish"));
    }
}

// However long a body is, little of it is kept.
TEST(BodyScannerTest, WhatIsCompleteIsToldAtOnce) {
    const auto told = [](const std::string& octets) {
        Recorder recorder;
        BodyScanner scanner({&recorder});
        scanner.write(octets);
        return recorder.said();
    };
    EXPECT_THAT(told("x y\r\nz\r\r\n1\r2\r"), ElementsAre("line x y CRLF", "line z CRCRLF", "line 1 CR"));
    EXPECT_THAT(told("x y\r\nz\r\r"), ElementsAre("line x y CRLF"));
    EXPECT_THAT(told("A: b\r\n\r\n\r\nx"), ElementsAre("header plain text|A: b CRLF| CRLF", "line  CRLF"));
    EXPECT_THAT(told(repeated('x', 65536)), IsEmpty()) << "the name of a field may be as long";
    EXPECT_EQ(told(repeated('x', 65537)).size(), 16U) << "but not longer: it is a line, of which a piece is kept";
    EXPECT_EQ(told("Content-Type: multipart/mixed; boundary=b\n\n--b\nA: b\n" + repeated('x', 65533)).size(), 3U + 15)
        << "with the fields in front of it";
    EXPECT_EQ(told("Content-Type: multipart/mixed; boundary=b\n\n--b\nA: b\n" + repeated('x', 65532)).size(), 2U);
}

TEST(BodyScannerTest, ALongFirstLineOfAPartComesInPieces) {
    const std::string start = "Content-Type: multipart/mixed; boundary=b\n\n--b\n";
    for (const auto& [length, last] : std::vector<std::pair<std::size_t, std::string>>{{4097, "x"}, {5000, "x*904"}})
        EXPECT_THAT(partsOf(start + repeated('x', length) + "\nnext\n"),
                    ElementsAre("header plain multipart|Content-Type: multipart/mixed; boundary=b LF| LF",
                                "boundary* --b LF", "header plain text", "line x*4096...", "line ..." + last + " LF",
                                "line next LF", "finish"));
}

TEST(BodyScannerTest, AMessageInAPartHasAHeaderOfItsOwn) {
    for (const std::string& type : {std::string("message/rfc822"), std::string("message/global")})
        EXPECT_THAT(partsOf("Content-Type: " + type + "\n\nContent-Type: image/png\n\nx\nA: b\n\n"),
                    ElementsAre("header plain|Content-Type: " + type + " LF| LF",
                                "header plain|Content-Type: image/png LF| LF", "line x LF", "line A: b LF", "line  LF",
                                "finish"))
            << type;
    EXPECT_THAT(partsOf("Subject: x\n\nA: b\n\n"),
                ElementsAre("header plain text|Subject: x LF| LF", "line A: b LF", "line  LF", "finish"));
    EXPECT_THAT(partsOf("Content-Type: message/rfc822\n\n" + repeated('x', 5000)),
                ElementsAre("header plain|Content-Type: message/rfc822 LF| LF", "header plain text", "line x*4096...",
                            "line ...x*904 end", "finish"));
    EXPECT_THAT(partsOf("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: message/rfc822\n" +
                        repeated('x', 5000) + "\n"),
                ElementsAre("header plain multipart|Content-Type: multipart/mixed; boundary=b LF| LF",
                            "boundary* --b LF", "header plain|Content-Type: message/rfc822 LF", "header plain text",
                            "line x*4096...", "line ...x*904 LF", "finish"))
        << "neither the part nor the message in it has an empty line behind its header";
}

// RFC 2046, 5.1.5: there a part is a message unless it names another type.
TEST(BodyScannerTest, PartsOfADigestAreMessages) {
    EXPECT_THAT(
        partsOf("Content-Type: multipart/mixed; boundary=out\n\n"
                "--out\n"
                "Content-Type: multipart/digest; boundary=in\n\n"
                "--in\n\n"
                "Subject: x\nContent-Type: image/png\n\n"
                "one\n"
                "--in\n"
                "Content-Type: text/plain\n\n"
                "two\n"
                "--in\n\n"
                "Subject: y\n\n"
                "three\n\nA: b\n\n"
                "--in--\n"
                "--out\n\n"
                "A: b\n"),
        ElementsAre("header plain multipart|Content-Type: multipart/mixed; boundary=out LF| LF", "boundary* --out LF",
                    "header plain multipart|Content-Type: multipart/digest; boundary=in LF| LF", "boundary --in LF",
                    "header plain| LF", "header plain|Subject: x LF|Content-Type: image/png LF| LF", "line one LF",
                    "boundary --in LF", "header plain text|Content-Type: text/plain LF| LF", "line two LF",
                    "boundary --in LF", "header plain| LF", "header plain text|Subject: y LF| LF", "line three LF",
                    "line  LF", "line A: b LF", "line  LF", "boundary --in-- LF", "boundary* --out LF",
                    "header plain text| LF", "line A: b LF", "finish"));
}

// RFC 6532, 3.7: a message/global may have any transfer encoding. What is encoded has no header block that could be read.
TEST(BodyScannerTest, AnEncodedMessageIsNotTakenApart) {
    for (const auto& [encoding, name] : {std::pair("base64", "base64"), std::pair("quoted-printable", "quoted")}) {
        const std::string type = "Content-Type: message/global";
        const std::string field = std::string("Content-Transfer-Encoding: ") + encoding;
        EXPECT_THAT(partsOf(type + "\n" + field + "\n\nA: b\n\n"),
                    ElementsAre(std::string("header ") + name + "|" + type + " LF|" + field + " LF| LF", "line A: b LF",
                                "line  LF", "finish"));
        EXPECT_EQ(partsOf(field + "\n" + type + "\n\nA: b\n\n").at(1), "line A: b LF");
    }
    for (const std::string encoding : {"7bit", "8bit", "binary"})
        EXPECT_THAT(
            partsOf("Content-Type: message/global\nContent-Transfer-Encoding: " + encoding + "\n\nA: b\n\n").at(1),
            "header plain text|A: b LF| LF");
}

/// How many header blocks there are in it.
std::size_t headersOf(const std::string& body) {
    const std::vector<std::string> said = scanned(body, body.size());
    return static_cast<std::size_t>(
        std::ranges::count_if(said, [](const std::string& one) { return one.starts_with("header"); }));
}

TEST(BodyScannerTest, MessagesWithinMessagesAreFollowedDownToTheThirtySecond) {
    std::string nested;
    for (int depth = 0; depth != 40; ++depth)
        nested += "Content-Type: message/rfc822\n\n";
    EXPECT_EQ(headersOf(nested), 33U);
}

TEST(BodyScannerTest, MessagesBesideEachOtherAreNoDeeperThanOne) {
    std::string body = "Content-Type: multipart/mixed; boundary=b\n\n";
    for (int part = 0; part != 40; ++part)
        body += "--b\nContent-Type: message/rfc822\n\nA: b\n\n";
    EXPECT_EQ(headersOf(body), 81U);
    std::string nested = "Content-Type: message/rfc822\n\n" + body;
    for (int depth = 0; depth != 40; ++depth)
        nested += "Content-Type: message/rfc822\n\n";
    EXPECT_EQ(headersOf(nested), 82U) << "the last of them is text behind its header";
    nested = "Content-Type: message/rfc822\n\n" + body + "--b\n";
    for (int depth = 0; depth != 40; ++depth)
        nested += "Content-Type: message/rfc822\n\n";
    EXPECT_EQ(headersOf(nested), 82U + 32) << "a message around the multipart, and thirty-one in its last part";
}

TEST(BodyScannerTest, MultipartsWithinMultipartsAreFollowedDownToTheThirtySecond) {
    std::string nested;
    for (int depth = 0; depth != 40; ++depth)
        nested += "Content-Type: multipart/mixed; boundary=b" + std::to_string(depth) + ".\n\n--b" +
                  std::to_string(depth) + ".\n";
    EXPECT_EQ(headersOf(nested), 33U) << "that of the thirty-third has no parts any more";
}

TEST(BodyScannerTest, AThousandHeaderBlocksAreRead) {
    std::string body = "Content-Type: multipart/mixed; boundary=b\n\n";
    for (int part = 0; part != 1010; ++part)
        body += "--b\nA: b\n\n";
    EXPECT_EQ(headersOf(body), 1000U);
    const std::vector<std::string> said = scanned(body, body.size());
    EXPECT_THAT(said.at(said.size() - 3), testing::EndsWith(" A: b LF")) << "what is more are lines";
    for (const std::string first : {"", "--b\n\n"}) {
        std::string messages = "Content-Type: multipart/mixed; boundary=b\n\n" + first;
        for (int part = 0; part != 600; ++part)
            messages += "--b\nContent-Type: message/rfc822\n\nA: b\n\n";
        EXPECT_EQ(headersOf(messages), 1000U) << "those of messages among them";
    }
}

TEST(BodyScannerTest, AHeaderBlockHasSixtyFourKibibytes) {
    // The lines of the block without their ends.
    const std::string fits = "A: " + repeated('x', 40000) + "\nB: " + repeated('y', 65536 - 40006);
    EXPECT_THAT(partsOf(fits + "\n\n"), ElementsAre("header plain text|A: x*40000 LF|B: y*25530 LF| LF", "finish"));
    const std::vector<std::string> more = partsOf(fits + "y\n\n");
    EXPECT_EQ(more.front(), "line A: x*4093...") << "what is longer is text";
    EXPECT_EQ(more.at(more.size() - 2), "line  LF");

    const std::string part = "Content-Type: multipart/mixed; boundary=b\n\n--b\n";
    const std::vector<std::string> ofPart = partsOf(part + fits + "y\n\n");
    EXPECT_EQ(ofPart.at(2), "header plain text|A: x*40000 LF") << "and in a part begins its text";
    EXPECT_EQ(ofPart.at(3), "line B: y*4093...");
    EXPECT_EQ(partsOf(part + fits + "\n\n").at(2), "header plain text|A: x*40000 LF|B: y*25530 LF| LF");
    EXPECT_EQ(partsOf("A: " + repeated('x', 65533) + "\n\n").size(), 2U);
    EXPECT_EQ(partsOf("A: " + repeated('x', 65534) + "\n\n").front(), "line A: x*4093...");
}

TEST(BodyScannerTest, NamesOfFields) {
    EXPECT_EQ(fieldName("Name: value"), "Name");
    EXPECT_EQ(fieldName("!~:"), "!~");
    EXPECT_EQ(fieldName("a:b:c"), "a");
    for (const std::string& none :
         {std::string(), std::string(":"), std::string(": x"), std::string("Name"), std::string("a b: c"),
          std::string("a\x7F: b"), std::string("a\x1F: b"), std::string("\xC3\xA4: b"), std::string(" a: b")})
        EXPECT_EQ(fieldName(none), "") << none;
}

TEST(BodyScannerTest, LettersAreTheSameInBothSizesInAsciiAlone) {
    EXPECT_EQ(smallLetters("@AMZ[`amz{\xC4"), "@amz[`amz{\xC4");
    EXPECT_TRUE(sameLetters("Content", "cONTENT"));
    EXPECT_FALSE(sameLetters("@", "`"));
    EXPECT_FALSE(sameLetters("Content", "Content-"));
}

TEST(BodyScannerTest, ParametersOfFields) {
    EXPECT_EQ(parameterOf("t; a=1; b=2;c = \t3\t ;d", "B"), "2");
    EXPECT_EQ(parameterOf("t; a=1; b=2;c = \t3\t ;d", "c"), "3");
    EXPECT_EQ(parameterOf("t; a=1; b=2;c = \t3\t ;d", "d"), "");
    EXPECT_EQ(parameterOf("t; a; b=2", "a"), "");
    EXPECT_EQ(parameterOf("t; a; b=2", "b"), "2");
    EXPECT_EQ(parameterOf("a=1", "a"), "") << "that is the value";
    EXPECT_EQ(parameterOf("t;a=\"x;y\\\"z\\\\\" tail", "a"), "x;y\"z\\");
    EXPECT_EQ(parameterOf("t;a=\"not ended", "a"), "not ended");
    EXPECT_EQ(parameterOf("t;a=\"not ended\\\"", "a"), "not ended\"");
    EXPECT_EQ(parameterOf("t;a=\"ends so\\", "a"), "ends so\\");
    EXPECT_EQ(parameterOf("t;ab=1;a=2", "a"), "2");
    EXPECT_EQ(parameterOf("t;a=1 (one);b=2", "a"), "1") << "a comment";
    EXPECT_EQ(parameterOf("t;;b=2;", "b"), "2");
    EXPECT_EQ(parameterOf("t;b=", "b"), "");
}

// RFC 2045, 5.1: a quoted value may have semicolons in it.
TEST(BodyScannerTest, WhatIsQuotedIsNoParameter) {
    EXPECT_EQ(parameterOf("t; name=\"x; b=1\"; b=2", "b"), "2");
    EXPECT_EQ(parameterOf("t; name=\"x\\\"; b=1\" ; b=\"2;3\"", "b"), "2;3");
    EXPECT_EQ(parameterOf("t; name=\"x; b=1", "b"), "");
    EXPECT_EQ(parameterOf("t; name=it\"s; b=2", "b"), "2") << "no quoted string";
}

} // namespace
