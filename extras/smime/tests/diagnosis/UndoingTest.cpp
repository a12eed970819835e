#include "diagnosis/Undoing.h"

#include "Putting.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using namespace puttogether;

using Undo = std::function<UndoingPtr(LineOutput&)>;

/// What is put out for a body, whatever the pieces that it comes in.
std::string undone(const std::string& body, const Undo& undo) {
    std::string first;
    for (const std::size_t step : {body.size() + 1, std::size_t{1}, std::size_t{3}, std::size_t{4096}}) {
        Kept out;
        const UndoingPtr undoing = undo(out);
        BodyScanner scanner({undoing.get()});
        for (std::size_t at = 0; at < body.size(); at += step) {
            scanner.write(std::string_view(body).substr(at, step));
        }
        scanner.finish();
        if (step == body.size() + 1) {
            first = out.text;
        }
        EXPECT_EQ(out.text, first) << "in steps of " << step;
    }
    return first;
}

std::string changed(const std::string& field, HeaderChange change) {
    const std::string text =
        undone(field + "\r\n\r\nA: b;  c\r\n", [&](LineOutput& out) { return rewriteHeaders(out, change); });
    const std::string rest = "\r\n\r\nA: b;  c\r\n";
    EXPECT_TRUE(text.ends_with(rest)) << text;
    return text.substr(0, text.size() - rest.size());
}

TEST(UndoingTest, BlanksAtLineEndsAreDropped) {
    EXPECT_EQ(undone("A: b \t\r\n\tc \r\n \r\n\r\n x \t \r\n\t\r\ny", dropBlanks),
              "A: b\r\n\tc\r\n\r\n\r\n x\r\n\r\ny");
    EXPECT_EQ(undone("text" + std::string(5000, ' ') + "more" + std::string(9000, '\t') + "\nx ", dropBlanks),
              "text" + std::string(5000, ' ') + "more\nx");
    EXPECT_EQ(undone("x" + std::string(5000, ' ') + "\n" + std::string(5000, ' ') + "y", dropBlanks),
              "x\n" + std::string(5000, ' ') + "y");
}

TEST(UndoingTest, StartsOfLines) {
    const auto with = [](const std::string& text, LineStart start) {
        return undone(text, [&](LineOutput& out) { return changeStarts(out, start); });
    };
    EXPECT_EQ(with("x\n--\n-- \n---\n--", LineStart::separatorBlank), "x\n-- \n-- \n---\n-- ");
    EXPECT_EQ(with("--" + std::string(4094, '-') + "x\n--\n", LineStart::separatorBlank),
              "--" + std::string(4094, '-') + "x\n-- \n");
    EXPECT_EQ(with("..\n.x\n...y\nz..\n", LineStart::oneDotLess), ".\n.x\n..y\nz..\n");
    EXPECT_EQ(with(".\nx.\n..y\n", LineStart::oneDotMore), "..\nx.\n...y\n");
    EXPECT_EQ(with("x\nFrom a\n>From b\n>>From c\n>from d\n", LineStart::fromUnescaped),
              "x\nFrom a\nFrom b\n>>From c\n>from d\n");
    EXPECT_EQ(with("x\nFrom a\n>From b\n>>From c\n>>>\n", LineStart::fromUnescapedDeeply),
              "x\nFrom a\nFrom b\n>From c\n>>>\n");
    EXPECT_EQ(with("x\nFrom a\n>From b\nfrom c\nFrom", LineStart::fromEscaped), "x\n>From a\n>From b\nfrom c\nFrom");
    EXPECT_EQ(with(std::string(4096, 'x') + "From y\n", LineStart::fromEscaped), std::string(4096, 'x') + "From y\n");
}

const std::string multipart = "Content-Type: multipart/mixed; boundary=b\n\n";

TEST(UndoingTest, WhatStandsBeforeTheFirstBoundary) {
    const Undo none = [](LineOutput& out) { return replacePreamble(out, {}); };
    const Undo two = [](LineOutput& out) { return replacePreamble(out, {"This is", ""}); };
    const std::string parts = "--b\n\nx\n--b\n\ny\n--b--\nafter\n";
    EXPECT_EQ(undone(multipart + "before\n\n" + parts, none), multipart + parts);
    EXPECT_EQ(undone(multipart + "before\n\n" + parts, two), multipart + "This is\r\n\r\n" + parts);
    EXPECT_EQ(undone(multipart + parts, two), multipart + "This is\r\n\r\n" + parts);
    const std::string within = "--b\nContent-Type: multipart/mixed; boundary=c\n\nkept\n--c\n\n--c--\nkept\n--b--\n";
    EXPECT_EQ(undone(multipart + within, none), multipart + within) << "that of the outermost alone";
}

TEST(UndoingTest, WhatStandsBehindTheLastBoundary) {
    const std::string within = "--b\nContent-Type: multipart/mixed; boundary=c\n\n--c\n\n--c--\nkept\n--b--\n";
    EXPECT_EQ(undone(multipart + within + "after\n\nmore", dropEpilogue), multipart + within);
    EXPECT_EQ(undone(multipart + within, dropEpilogue), multipart + within);
}

TEST(UndoingTest, Base64InLinesOfAnotherLength) {
    const auto wrapped = [](const std::string& body, std::size_t width) {
        return undone(body, [&](LineOutput& out) { return rewrapBase64(out, width); });
    };
    const std::string fields = "Content-Transfer-Encoding: base64\n\n";
    EXPECT_EQ(wrapped(fields + "AAAABBBBCC\nCCDDDD\n", 8), fields + "AAAABBBB\r\nCCCCDDDD\n");
    EXPECT_EQ(wrapped(fields + "AAAABBBBCC\nCCDDDD", 6), fields + "AAAABB\r\nBBCCCC\r\nDDDD");
    EXPECT_EQ(wrapped(fields + "AAAA\nBBBB\nCC==\n", 0), fields + "AAAABBBBCC==\n");
    EXPECT_EQ(wrapped(fields + "AZaz09+/=\n", 4), fields + "AZaz\r\n09+/\r\n=\n");
    EXPECT_EQ(wrapped(fields + "AAAA\nBBBB\n\nlist footer.\nCCCC\nDD", 0), fields + "AAAABBBB\n\nlist footer.\nCCCCDD");
    for (const char* const other : {"@", "[", "`", "{", "-", ":", ".", "\xC3"}) {
        EXPECT_EQ(wrapped(fields + "AAAA\n" + other + "\n", 2), fields + "AA\r\nAA\n" + other + "\n") << other;
    }
    EXPECT_EQ(wrapped("\nAAAA\nBBBB\n", 2), "\nAAAA\nBBBB\n") << "not encoded";
    const std::string longLine = std::string(4096, 'A') + "!";
    EXPECT_EQ(wrapped(fields + "AAAA\n" + longLine + "\n", 0), fields + "AAAA" + longLine + "\n")
        << "no line end comes in between, where the end of a long line is no base64";
    const std::string part = "--b\nContent-Transfer-Encoding: base64\n\nAAAA\nBBBB\n--b\n\nCCCC\nDDDD\n--b--\n";
    EXPECT_EQ(
        wrapped(multipart + "AAAA\nAAAA\n" + part + "EEEE\nEEEE\n", 0),
        multipart +
            "AAAA\nAAAA\n--b\nContent-Transfer-Encoding: base64\n\nAAAABBBB\n--b\n\nCCCC\nDDDD\n--b--\nEEEE\nEEEE\n");
    const std::string twice = "--b\n" + fields + "AAA\n--b\n" + fields + "BBBB\n";
    EXPECT_EQ(wrapped(multipart + twice, 4), multipart + twice) << "lines are counted from the start of a part";
}

TEST(UndoingTest, HexDigitsOfQuotedPrintable) {
    const auto with = [](const std::string& text, bool capital) {
        const std::string fields = "Content-Transfer-Encoding: quoted-printable\n\n";
        const std::string out = undone(fields + text, [&](LineOutput& to) { return changeHexDigits(to, capital); });
        EXPECT_TRUE(out.starts_with(fields));
        return out.substr(fields.size());
    };
    EXPECT_EQ(with("x=3d=c3=AFabc=af=fa=zz =\nd=a", true), "x=3D=C3=AFabc=AF=FA=zz =\nd=A");
    EXPECT_EQ(with("x=3D=C3=afABC=AF=FA=ZZ =\nD=A", false), "x=3d=c3=afABC=af=fa=ZZ =\nD=a");
    EXPECT_EQ(with("=g0=`0=G0=@0", true), "=g0=`0=G0=@0");
    EXPECT_EQ(with("=g0=`0=G0=@0", false), "=g0=`0=G0=@0");
    EXPECT_EQ(with("==3d\n", true), "==3D\n") << "the second of them is one of an octet";
    EXPECT_EQ(undone("x=3d\n", [](LineOutput& to) { return changeHexDigits(to, true); }), "x=3d\n") << "not encoded";
    const std::string others =
        multipart + "=3d\n--b\n\n=3d\n--b\nContent-Transfer-Encoding: quoted-printable\n\nx\n--b--\n=3d\n";
    EXPECT_EQ(undone(others, [](LineOutput& to) { return changeHexDigits(to, true); }), others);
}

TEST(UndoingTest, FieldsOnOtherLines) {
    const std::string field = "Content-Type: text/plain;\r\n  charset=x;\r\n\tformat=\"a;b\\\";\"";
    EXPECT_EQ(changed(field, HeaderChange::unfoldedToOneBlank),
              "Content-Type: text/plain; charset=x; format=\"a;b\\\";\"");
    EXPECT_EQ(changed(field, HeaderChange::unfolded), "Content-Type: text/plain;  charset=x;\tformat=\"a;b\\\";\"");
    EXPECT_EQ(changed(field, HeaderChange::continuedByTab),
              "Content-Type: text/plain;\r\n\tcharset=x;\r\n\tformat=\"a;b\\\";\"");
    EXPECT_EQ(changed(field, HeaderChange::continuedByBlank),
              "Content-Type: text/plain;\r\n charset=x;\r\n format=\"a;b\\\";\"");
    const std::string one = "Content-Type: text/plain; charset=x;format=\"a;b\\\";\"; last=1";
    EXPECT_EQ(changed(one, HeaderChange::eachParameterFoldedByTab),
              "Content-Type: text/plain;\r\n\tcharset=x;\r\n\tformat=\"a;b\\\";\";\r\n\tlast=1");
    EXPECT_EQ(changed(one, HeaderChange::eachParameterFoldedByBlank),
              "Content-Type: text/plain;\r\n charset=x;\r\n format=\"a;b\\\";\";\r\n last=1");
    EXPECT_EQ(changed(one, HeaderChange::firstParameterFoldedByTab),
              "Content-Type: text/plain;\r\n\tcharset=x;format=\"a;b\\\";\"; last=1");
    EXPECT_EQ(changed(one, HeaderChange::firstParameterFoldedByBlank),
              "Content-Type: text/plain;\r\n charset=x;format=\"a;b\\\";\"; last=1");
    EXPECT_EQ(changed(one, HeaderChange::lastParameterFoldedByTab),
              "Content-Type: text/plain; charset=x;format=\"a;b\\\";\";\r\n\tlast=1");
    EXPECT_EQ(changed(one, HeaderChange::lastParameterFoldedByBlank),
              "Content-Type: text/plain; charset=x;format=\"a;b\\\";\";\r\n last=1");
    EXPECT_EQ(changed("Content-Type: a; b=\"c\\", HeaderChange::eachParameterFoldedByTab),
              "Content-Type: a;\r\n\tb=\"c\\")
        << "nothing is escaped at the end";
    EXPECT_EQ(changed("Content-Type: a;\n b=c", HeaderChange::firstParameterFoldedByTab), "Content-Type: a;\n\tb=c")
        << "each line keeps its end, here LF and CR LF";
    EXPECT_EQ(changed("Subject: x; y; z", HeaderChange::eachParameterFoldedByTab), "Subject: x; y; z");
    EXPECT_EQ(changed("Subject: x\r\n  y\r\nTo: a\r\n\t b", HeaderChange::continuedByBlank),
              "Subject: x\r\n y\r\nTo: a\r\n b");
}

TEST(UndoingTest, BlanksInFields) {
    EXPECT_EQ(changed("A:  b:  c\r\nD:e", HeaderChange::blankBehindColon), "A: b:  c\r\nD: e");
    EXPECT_EQ(changed("A:  b:  c\r\nD:\te", HeaderChange::noBlankBehindColon), "A:b:  c\r\nD:e");
    const std::string field = "Content-Type: a;b;  c=\"; d\";\r\n e;\tf; ";
    EXPECT_EQ(changed(field, HeaderChange::blankBehindSemicolons), "Content-Type: a; b; c=\"; d\";\r\n e; f;");
    EXPECT_EQ(changed(field, HeaderChange::noBlankBehindSemicolons), "Content-Type: a;b;c=\"; d\";\r\n e;f;");
    EXPECT_EQ(changed("Subject: a;  b", HeaderChange::noBlankBehindSemicolons), "Subject: a;  b");
}

TEST(UndoingTest, NamesOfFields) {
    const std::string fields = "mime-VERSION: A-b\r\nCONTENT-type: c\r\ncontent-id: d\r\ncontent-MD5: e\r\nx-`{: f";
    EXPECT_EQ(changed(fields, HeaderChange::usualNames),
              "MIME-Version: A-b\r\nContent-Type: c\r\nContent-ID: d\r\nContent-MD5: e\r\nX-`{: f");
    EXPECT_EQ(changed(fields, HeaderChange::capitalWords),
              "Mime-Version: A-b\r\nContent-Type: c\r\nContent-Id: d\r\nContent-Md5: e\r\nX-`{: f");
    EXPECT_EQ(changed(fields, HeaderChange::capitalNames),
              "Mime-version: A-b\r\nContent-type: c\r\nContent-id: d\r\nContent-md5: e\r\nX-`{: f");
    EXPECT_EQ(changed("A-Z: Q\r\nzA: w", HeaderChange::smallNames), "a-z: Q\r\nza: w");
    EXPECT_EQ(changed("a-z: Q", HeaderChange::usualNames), "A-Z: Q");
    EXPECT_EQ(changed("x-identity: a\r\nCONTENT-IDENTIFIER: b\r\nx-md5sum: c\r\nx-mime-autoconverted: d",
                      HeaderChange::usualNames),
              "X-Identity: a\r\nContent-Identifier: b\r\nX-Md5sum: c\r\nX-MIME-Autoconverted: d")
        << "where \"ID\" is a word";
}

TEST(UndoingTest, ValuesOfParameters) {
    const std::string field = "Content-Type: text/plain; charset=Az ; name=\"x y\";flag;\r\n b=\"\";c=\"q\"";
    EXPECT_EQ(changed(field, HeaderChange::quoted),
              "Content-Type: text/plain; charset=\"Az\" ; name=\"x y\";flag;\r\n b=\"\";c=\"q\"");
    EXPECT_EQ(changed(field, HeaderChange::unquoted),
              "Content-Type: text/plain; charset=Az ; name=x y;flag;\r\n b=\"\";c=q");
    const std::string sets = "Content-Type: text/plain; CHARSET=Utf-8; name=Utf-8";
    EXPECT_EQ(changed(sets, HeaderChange::capitalCharacterSet), "Content-Type: text/plain; CHARSET=UTF-8; name=Utf-8");
    EXPECT_EQ(changed(sets, HeaderChange::smallCharacterSet), "Content-Type: text/plain; CHARSET=utf-8; name=Utf-8");
    EXPECT_EQ(changed("X-Type: a; b=c", HeaderChange::quoted), "X-Type: a; b=c");
    EXPECT_EQ(changed("CONTENT-disposition: a; b=c", HeaderChange::quoted), "CONTENT-disposition: a; b=\"c\"");
    EXPECT_EQ(changed("Content-Type: a; b=\"c", HeaderChange::unquoted), "Content-Type: a; b=\"c");
    EXPECT_EQ(changed("Content-Type: a; b=c\"", HeaderChange::unquoted), "Content-Type: a; b=c\"");
}

// RFC 2045, 7 and 8: the values of these are an identifier and a text, whatever signs are in them.
TEST(UndoingTest, FieldsWithoutParametersAreLeftAlone) {
    const std::string fields = "Content-ID: <a=\"b\";c=d@example.org>\r\nContent-Description: a;b=c; d=\"e\"";
    for (const HeaderChange change :
         {HeaderChange::quoted, HeaderChange::unquoted, HeaderChange::blankBehindSemicolons,
          HeaderChange::noBlankBehindSemicolons, HeaderChange::eachParameterFoldedByTab,
          HeaderChange::firstParameterFoldedByBlank, HeaderChange::lastParameterFoldedByTab}) {
        EXPECT_EQ(changed(fields, change), fields) << static_cast<int>(change);
    }
}

// An mbox line in front of the fields is none; what stands there stays.
TEST(UndoingTest, WhatIsNoFieldStays) {
    const std::string body = multipart + "--b\n folded: x\n\n";
    EXPECT_EQ(undone(body, [](LineOutput& out) { return rewriteHeaders(out, HeaderChange::smallNames); }),
              "content-type: multipart/mixed; boundary=b\n\n--b\n folded: x\n\n");
}

} // namespace
