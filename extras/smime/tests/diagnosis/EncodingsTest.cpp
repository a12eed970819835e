#include "diagnosis/Encodings.h"
#include "diagnosis/Undoing.h"

#include "Putting.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace puttogether;

/// A text with its line ends, "|" where a part ends, and "+" when another follows.
class Text : public TextSink {
public:
    void text(std::string_view octets) override { told += octets; }
    void lineEnd(LineEnd end) override { told += octetsOf(end); }
    void endPart(bool isFollowed) override { told += isFollowed ? "|+" : "|"; }

    std::string told;
};

/// The lines of a part go into a decoder as the scanner tells them.
class Decoding : public BodyConsumer {
public:
    explicit Decoding(TextDecoder& decoder) : m_decoder(&decoder) {}
    void header(const std::vector<HeaderLine>& /*lines*/, const PartHeader& /*part*/) override {}
    void line(const LinePiece& piece) override { m_decoder->piece(piece); }
    void finish() override {}

private:
    TextDecoder* m_decoder;
};

std::string decoded(TransferEncoding encoding, const std::string& octets, bool isFollowed = false) {
    std::string first;
    for (const std::size_t step : {octets.size() + 1, std::size_t{1}, std::size_t{5}}) {
        Text text;
        const std::unique_ptr<TextDecoder> decoder = decoderOf(encoding, text);
        Decoding decoding(*decoder);
        BodyScanner scanner({&decoding});
        scanner.write("\n"); // no header
        text.told.clear();
        for (std::size_t at = 0; at < octets.size(); at += step) {
            scanner.write(std::string_view(octets).substr(at, step));
        }
        scanner.finish();
        decoder->endPart(isFollowed);
        // The empty line in front belongs to base64 as any line of it.
        first = step == octets.size() + 1 ? text.told : first;
        EXPECT_EQ(text.told, first) << "in steps of " << step;
    }
    return first.substr(0, first.find('|'));
}

std::string quotedDecoded(const std::string& octets) {
    return decoded(TransferEncoding::quotedPrintable, octets);
}

// RFC 2045, 6.7.
TEST(EncodingsTest, QuotedPrintableIsDecoded) {
    EXPECT_EQ(quotedDecoded("caf=C3=A9=3D=0d=0A\r\nx"), "caf\xC3\xA9=\r\n\r\nx");
    EXPECT_EQ(quotedDecoded("a=af=AF=fa=F0=09\n"), std::string("a\xAF\xAF\xFA\xF0\t\n"));
    EXPECT_EQ(quotedDecoded("soft=\r\nbreak=\nend"), "softbreakend");
    EXPECT_EQ(quotedDecoded("blanks \t\r\nx  y\n \n"), "blanks\r\nx  y\n\n") << "rule 3";
    EXPECT_EQ(quotedDecoded("soft= \t\nbreak\n"), "softbreak\n") << "rule 5: blanks may be added behind it";
    EXPECT_EQ(quotedDecoded("a b \n c"), "a b\n c");
}

TEST(EncodingsTest, WhatIsNoQuotedPrintableStays) {
    EXPECT_EQ(quotedDecoded("=G0=0G==41=`0=@0\n"), "=G0=0G=A=`0=@0\n");
    EXPECT_EQ(quotedDecoded("x=4\ny=\n"), "x=4\ny");
    EXPECT_EQ(quotedDecoded("x=4"), "x=4");
    EXPECT_EQ(quotedDecoded("x=4 \ny"), "x=4\ny");
}

TEST(EncodingsTest, LongLinesOfQuotedPrintable) {
    const std::string run(4094, 'x');
    EXPECT_EQ(quotedDecoded(run + "=41=42\n"), run + "AB\n") << "across two pieces";
    EXPECT_EQ(quotedDecoded(run + "x=41\n"), run + "xA\n");
    EXPECT_EQ(quotedDecoded(run + "  y \n"), run + "  y\n");
    const std::string blanks(9000, ' ');
    EXPECT_EQ(quotedDecoded("x" + blanks + "\ny"), "x\ny");
    EXPECT_EQ(quotedDecoded("x" + blanks + "y\n"), "x" + blanks + "y\n");
}

TEST(EncodingsTest, Base64IsDecodedToLines) {
    const auto text = [](const std::string& octets, bool isFollowed = false) {
        return decoded(TransferEncoding::base64, octets, isFollowed);
    };
    EXPECT_EQ(text("SGVsbG8="), "Hello");
    EXPECT_EQ(text(""), "\n") << "the empty line in front, which is no text";
    EXPECT_EQ(text("SGVs\r\nbG8=\r\n"), "Hello\r\n");
    EXPECT_EQ(text("eA0KeQp6\n"), "x\r\ny\nz\n");
    EXPECT_EQ(text("eA0KeQ0K\n"), "x\r\ny\r\n") << "the text ends its last line itself";
    EXPECT_EQ(text("eA0KeQ0K\n", true), "x\r\ny\r\n\n") << "and the line end behind it belongs to the boundary";
    EXPECT_EQ(text("DQ14DQ==\n"), "\r\rx\r\n") << "CR alone is text";
    EXPECT_EQ(text("DQ0K\n"), "\r\r\n");
    EXPECT_EQ(text("S-G.V s\tbG8=\n"), "Hello\n") << "RFC 2045, 6.8: other characters are ignored";
    EXPECT_EQ(text("+/+/\n"), "\xFB\xFF\xBF\n");
    EXPECT_EQ(text("AZaz\n"), std::string("\x01\x96\xB3\n"));
}

TEST(EncodingsTest, PlainTextPasses) {
    for (const TransferEncoding encoding :
         {TransferEncoding::none, TransferEncoding::eightBit, TransferEncoding::other}) {
        EXPECT_EQ(decoded(encoding, "a=41 \r\n\xC3\xA9\r\r\nSGVsbG8="), "a=41 \r\n\xC3\xA9\r\r\nSGVsbG8=");
    }
}

/// A text, encoded. "\n" in it ends lines with CR LF.
std::string encoded(TransferEncoding encoding, const std::string& text, QuotedStyle style = QuotedStyle::least,
                    bool lineFeeds = false, bool isFollowed = false) {
    std::string first;
    for (const std::size_t step : {std::size_t{4096}, std::size_t{1}, std::size_t{2}}) {
        Kept out;
        const std::unique_ptr<TextSink> encoder = encoderOf(encoding, out, style, lineFeeds);
        for (std::size_t from = 0; from < text.size();) {
            const std::size_t end = std::min(text.find('\n', from), text.size());
            for (std::size_t at = from; at < end; at += step) {
                encoder->text(std::string_view(text).substr(at, std::min(step, end - at)));
            }
            if (end != text.size()) {
                encoder->lineEnd(LineEnd::crLf);
            }
            from = end + 1;
        }
        encoder->endPart(isFollowed);
        first = step == 4096 ? out.text : first;
        EXPECT_EQ(out.text, first) << "in steps of " << step;
    }
    return first;
}

std::string quotedEncoded(const std::string& text, QuotedStyle style = QuotedStyle::least) {
    return encoded(TransferEncoding::quotedPrintable, text, style);
}

std::string times(std::size_t count, char octet) {
    return std::string(count, octet);
}

TEST(EncodingsTest, QuotedPrintableEscapesWhatItMust) {
    EXPECT_EQ(quotedEncoded("caf\xC3\xA9 = ~!\x7F\x1F\t.\n"), "caf=C3=A9 =3D ~!=7F=1F\t.\r\n");
    EXPECT_EQ(quotedEncoded("a \nb\t\n \n\t\n x"), "a=20\r\nb=09\r\n=20\r\n=09\r\n x") << "rule 3";
    EXPECT_EQ(quotedEncoded("From x\n.\n..\n"), "From x\r\n.\r\n..\r\n");
    EXPECT_EQ(quotedEncoded(""), "");
    EXPECT_EQ(quotedEncoded("\n\n"), "\r\n\r\n");
    EXPECT_EQ(quotedEncoded("x "), "x=20") << "as Python's quopri writes it: a line end may be added behind it";
    EXPECT_EQ(quotedEncoded("x\n\t"), "x\r\n=09");
}

// RFC 2045, 6.7, rule 5: no line has more than 76 characters, and "=" of a soft break is one of them.
TEST(EncodingsTest, LinesOfQuotedPrintableHaveSeventySixCharacters) {
    EXPECT_EQ(quotedEncoded(times(76, 'x') + "\n"), times(76, 'x') + "\r\n");
    EXPECT_EQ(quotedEncoded(times(77, 'x') + "\n"), times(75, 'x') + "=\r\nxx\r\n");
    EXPECT_EQ(quotedEncoded(times(76, 'x')), times(76, 'x'));
    EXPECT_EQ(quotedEncoded(times(152, 'x') + "\n"), times(75, 'x') + "=\r\n" + times(75, 'x') + "=\r\nxx\r\n");
    EXPECT_EQ(quotedEncoded(times(73, 'x') + "=\n"), times(73, 'x') + "=3D\r\n");
    EXPECT_EQ(quotedEncoded(times(74, 'x') + "=\n"), times(74, 'x') + "=\r\n=3D\r\n");
    EXPECT_EQ(quotedEncoded(times(73, 'x') + "=x\n"), times(73, 'x') + "=\r\n=3Dx\r\n");
    EXPECT_EQ(quotedEncoded(times(72, 'x') + "=x\n"), times(72, 'x') + "=3Dx\r\n");
    EXPECT_EQ(quotedEncoded(times(75, 'x') + "\n" + times(76, 'y') + "\n"),
              times(75, 'x') + "\r\n" + times(76, 'y') + "\r\n")
        << "each line begins to count anew";
}

TEST(EncodingsTest, LoneDotsAndRoomForASoftBreak) {
    const auto with = [](const std::string& text) { return quotedEncoded(text, QuotedStyle::dots); };
    EXPECT_EQ(with(".\n..\n.x\nx.\n"), "=2E\r\n..\r\n.x\r\nx.\r\n");
    EXPECT_EQ(with("."), "=2E") << "as Python's binascii writes it";
    EXPECT_EQ(with("x\n.\n"), "x\r\n=2E\r\n");
    EXPECT_EQ(with("x\ny\n.\n"), "x\r\ny\r\n=2E\r\n");
    EXPECT_EQ(with(times(76, 'x') + "\n"), times(76, 'x') + "\r\n");
    EXPECT_EQ(with(times(73, 'x') + "=\n"), times(73, 'x') + "=\r\n=3D\r\n");
    EXPECT_EQ(with(times(72, 'x') + "=\n"), times(72, 'x') + "=3D\r\n");
    EXPECT_EQ(with("From x\n"), "From x\r\n");
}

TEST(EncodingsTest, StartsThatRelaysChangeAreEscaped) {
    const auto with = [](const std::string& text) { return quotedEncoded(text, QuotedStyle::starts); };
    EXPECT_EQ(with("From x\nFrom \nFrom\nFro\nx From y\n"), "=46rom x\r\n=46rom=20\r\nFrom\r\nFro\r\nx From y\r\n");
    EXPECT_EQ(with(".\n..\nx.\n .\n"), "=2E\r\n=2E.\r\nx.\r\n .\r\n");
    EXPECT_EQ(with("\n.x\n\nFrom x"), "\r\n=2Ex\r\n\r\n=46rom x");
    EXPECT_EQ(with("From"), "From");
    EXPECT_EQ(with("F\n."), "F\r\n=2E");
    EXPECT_EQ(with("F.\nFr.\n"), "F.\r\nFr.\r\n");
    EXPECT_EQ(with("from x\nFROM x\n"), "from x\r\nFROM x\r\n");
}

TEST(EncodingsTest, Base64InLinesOfSeventySix) {
    const auto base64 = [](const std::string& text, bool isFollowed = false, bool lineFeeds = false) {
        return encoded(TransferEncoding::base64, text, QuotedStyle::least, lineFeeds, isFollowed);
    };
    // RFC 4648, 10.
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("\xFB\xFF\xBF"), "+/+/");
    // By `base64 -w 76`.
    EXPECT_EQ(base64(times(57, 'x')), "eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4");
    EXPECT_EQ(base64(times(58, 'x')),
              "eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4\r\neA==");
    EXPECT_EQ(base64("x\ny"), "eA0KeQ==");
    EXPECT_EQ(base64("x\ny\n"), "eA0KeQ0K\r\n") << "the last line end is one of the text, and ends the base64";
    EXPECT_EQ(base64("x\ny\n", true), "eA0KeQ==\r\n") << "but it is the boundary's when a part follows";
    EXPECT_EQ(base64("x\n\n", true), "eA0K\r\n");
    EXPECT_EQ(base64("x\ny\n", false, true), "eAp5Cg==\r\n");
}

TEST(EncodingsTest, WrappedLines) {
    Kept out;
    LineWrapper lines(out, 4);
    lines.put("abc");
    lines.put("defghij");
    lines.restart();
    lines.put("klmn");
    EXPECT_EQ(out.text, "abcd\r\nefgh\r\nijklmn") << "restart counts from the place that was reached";
    Kept whole;
    LineWrapper one(whole, 0);
    one.put("abcdef");
    one.put("ghi");
    EXPECT_EQ(whole.text, "abcdefghi");
}

std::string replacedOnce(std::string text, const std::string& what, const std::string& by) {
    return text.replace(text.find(what), what.size(), by);
}

/// A message of one part.
std::string recoded(const std::string& body, const Recoding& recoding) {
    std::string first;
    for (const std::size_t step : {body.size() + 1, std::size_t{1}, std::size_t{3}}) {
        Kept out;
        const UndoingPtr undoing = recode(out, recoding);
        BodyScanner scanner({undoing.get()});
        for (std::size_t at = 0; at < body.size(); at += step) {
            scanner.write(std::string_view(body).substr(at, step));
        }
        scanner.finish();
        first = step == body.size() + 1 ? out.text : first;
        EXPECT_EQ(out.text, first) << "in steps of " << step;
    }
    return first;
}

const std::string quotedFields =
    "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n";

TEST(EncodingsTest, PartsAreEncodedAnew) {
    EXPECT_EQ(recoded(quotedFields + "caf=c3=a9 =\nx\n", {.from = {TransferEncoding::quotedPrintable},
                                                          .to = TransferEncoding::base64,
                                                          .encodingName = "base64"}),
              "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\nY2Fmw6kgeA0K\n");
    EXPECT_EQ(recoded(quotedFields + "caf=c3=a9 =\nx\n",
                      {.from = {TransferEncoding::quotedPrintable}, .to = TransferEncoding::base64}),
              quotedFields + "caf=C3=A9 x\n")
        << "where the field stays, so does the encoding";
    EXPECT_EQ(recoded(quotedFields + "caf=c3=a9 =\nx\n", {.from = {TransferEncoding::quotedPrintable},
                                                          .to = TransferEncoding::eightBit,
                                                          .withoutEncodingField = true}),
              "Content-Type: text/plain; charset=utf-8\n\ncaf\xC3\xA9 x\n");
    EXPECT_EQ(recoded("Content-Transfer-Encoding:\n quoted-printable\nSubject: x\n folded\n\nx=3D\n",
                      {.to = TransferEncoding::eightBit, .withoutEncodingField = true}),
              "Subject: x\n folded\n\nx=\n")
        << "with the line that continues it";
    EXPECT_EQ(recoded(quotedFields + "=3d\n", {.from = {TransferEncoding::base64}, .to = TransferEncoding::eightBit}),
              quotedFields + "=3d\n");
    const std::string image = "Content-Type: image/png\nContent-Transfer-Encoding: base64\n\nAAAA\n";
    EXPECT_EQ(recoded(image, {.to = TransferEncoding::quotedPrintable, .encodingName = "quoted-printable"}), image)
        << "texts alone";
}

TEST(EncodingsTest, TheFieldOfTheEncodingIsWrittenAnew) {
    const Recoding toBase64{.to = TransferEncoding::base64, .encodingName = "base64"};
    EXPECT_EQ(recoded("Content-Transfer-Encoding:quoted-printable\nX: a\n b\n\nx=3D\n", toBase64),
              "Content-Transfer-Encoding:base64\nX: a\n b\n\neD0NCg==\n");
    EXPECT_EQ(recoded("content-transfer-encoding: \n quoted-printable\n \t(folded)\nX: a\n\nx=3D\n", toBase64),
              "content-transfer-encoding: base64\nX: a\n\neD0NCg==\n")
        << "the old value goes, on whatever lines it stands";
    EXPECT_EQ(recoded("Content-Transfer-Encoding: quoted-printable\n \t\nx=3D\n", toBase64),
              "Content-Transfer-Encoding: base64\n \t\neD0NCg==\n")
        << "a line of blanks ends the fields";
}

TEST(EncodingsTest, EachPartOfAMultipartIsEncodedForItself) {
    const std::string start = "Content-Type: multipart/mixed; boundary=b\n\nbefore =3d\n--b\n";
    const std::string body =
        start + quotedFields + "=3d\n--b\n\nplain =3d\n--b\n" + quotedFields + "x=\n--b--\nafter\n";
    EXPECT_EQ(recoded(body, {.from = {TransferEncoding::quotedPrintable},
                             .to = TransferEncoding::base64,
                             .encodingName = "base64"}),
              start + "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\nPQ==\n--b\n\n"
                      "plain =3d\n--b\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\n"
                      "eA==--b--\nafter\n");
}

TEST(EncodingsTest, CharacterSetsAreConverted) {
    const Recoding toLatin{.fromCharacterSet = "utf-8", .toCharacterSet = "ISO-8859-1"};
    const std::string utf8 = "Content-Type: text/plain;\n charset=UTF-8\nContent-Transfer-Encoding: 8bit\n\n";
    const std::string latin = "Content-Type: text/plain;\n charset=ISO-8859-1\nContent-Transfer-Encoding: 8bit\n\n";
    EXPECT_EQ(recoded(utf8 + "caf\xC3\xA9\nx", toLatin), latin + "caf\xE9\nx");
    EXPECT_EQ(recoded(utf8 + "\xE2\x82\xAC\n", toLatin), latin + "\xE2\x82\xAC\n")
        << "a character that it has not stays";
    EXPECT_EQ(recoded(utf8 + "a\xFFz\xC3\n\xC3\xA9", toLatin), latin + "a\xFFz\xC3\n\xE9")
        << "and so does what is none";
    EXPECT_EQ(recoded(utf8 + std::string(4095, 'x') + "\xC3\xA9\n", toLatin),
              latin + std::string(4095, 'x') + "\xE9\n");
    std::string many;
    std::string fewer;
    for (int count = 0; count != 6000; ++count) {
        many += "\xC3\xA9";
        fewer += '\xE9';
    }
    EXPECT_EQ(recoded(utf8 + many + "\n", toLatin), latin + fewer + "\n");
    EXPECT_EQ(recoded(latin + fewer + "\n", {.fromCharacterSet = "iso-8859-1", .toCharacterSet = "UTF-8"}),
              utf8 + many + "\n");
    EXPECT_EQ(recoded(quotedFields + "=C3=A9\n", toLatin),
              "Content-Type: text/plain; charset=ISO-8859-1\nContent-Transfer-Encoding: quoted-printable\n\n=E9\n");
    EXPECT_EQ(recoded(latin + "\xE9\n", toLatin), latin + "\xE9\n") << "another set";
    const Recoding toUtf8{.fromCharacterSet = "iso-8859-1", .toCharacterSet = "UTF-8"};
    EXPECT_EQ(recoded(latin + "\xE9\n\xE9", toUtf8), utf8 + "\xC3\xA9\n\xC3\xA9") << "lines of one octet";
    EXPECT_EQ(recoded(utf8 + "x\xC3", toLatin), latin + "x\xC3") << "half a character at the end";
    const std::string base64 = "\nContent-Transfer-Encoding: base64\n\n";
    for (const auto& [before, after] :
         {std::pair("Y2Fmw6k=\n", "Y2Fm6Q==\n"), {"Y2Fmw6k=", "Y2Fm6Q=="}, {"eMM=", "eMM="}}) {
        EXPECT_EQ(recoded("Content-Type: text/plain; charset=utf-8" + base64 + before, toLatin),
                  "Content-Type: text/plain; charset=ISO-8859-1" + base64 + after);
    }
    EXPECT_EQ(recoded(utf8 + "x\xC3\xA9\n", {.fromCharacterSet = "utf-8", .toCharacterSet = "no-such-set"}),
              "Content-Type: text/plain;\n charset=no-such-set\nContent-Transfer-Encoding: 8bit\n\nx\xC3\xA9\n");
}

TEST(EncodingsTest, TheCharacterSetIsNamedByItsParameterAlone) {
    const Recoding toLatin{.fromCharacterSet = "utf-8", .toCharacterSet = "ISO-8859-1"};
    const auto fields = [](const std::string& type, const std::string& behind = "") {
        return "Subject: =?utf-8?q?x?=\nContent-Description: charset utf-8\n" + type + "\n" + behind + "\n\xC3\xA9\n";
    };
    const auto expect = [&](const std::string& before, const std::string& after, const std::string& behind = "") {
        EXPECT_EQ(recoded(fields(before, behind), toLatin), replacedOnce(fields(after, behind), "\xC3\xA9", "\xE9"));
    };
    expect("Content-Type: text/plain; charset=utf-8; name=utf-8.txt",
           "Content-Type: text/plain; charset=ISO-8859-1; name=utf-8.txt");
    expect("Content-Type: text/plain; name=utf-8.txt; charset=utf-8",
           "Content-Type: text/plain; name=utf-8.txt; charset=ISO-8859-1");
    expect("Content-Type: text/plain;\n charset=utf-8;\n name=utf-8.txt",
           "Content-Type: text/plain;\n charset=ISO-8859-1;\n name=utf-8.txt");
    expect("Content-Type: text/plain; CharSet=\n \"UTF-8\";\n name=utf-8.txt",
           "Content-Type: text/plain; CharSet=\n \"ISO-8859-1\";\n name=utf-8.txt");
    expect("Content-Type: text/plain; charset=utf-8", "Content-Type: text/plain; charset=ISO-8859-1",
           "Content-Disposition: inline; filename=\"charset utf-8\"\nX: y\n utf-8\n");
}

} // namespace
