// What the text of a mail begins with so that people see what header protection hides (RFC 9788, 5.2).

#include "write/LegacyDisplay.h"
#include "support/Streams.h"
#include "write/Fields.h"
#include "write/Filters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane;
using namespace Norvane::Crypto::SMime;
using namespace Norvane::Crypto::SMime::writing;

/// A document into whose body "#" is put, the same in all pieces.
std::string placed(const std::string& html) {
    std::string whole;
    for (const std::size_t piece : {html.size() + 1, std::size_t{1}, std::size_t{3}}) {
        const MemoryMediaOut out;
        MediaOut in = withElement(out, LegacyDisplay{"#", true, false});
        const auto tag = std::make_shared<BodyTag>();
        MediaOut watch = watching(tag);
        for (std::size_t at = 0; at < html.size(); at += piece) {
            put(in, std::string_view(html).substr(at, piece));
            put(watch, std::string_view(html).substr(at, piece));
        }
        in.end();
        const std::string text = norvtest::textOf(out.content());
        EXPECT_EQ(tag->isFound(), text != html) << html;
        EXPECT_TRUE(whole.empty() || text == whole) << html;
        whole = text;
    }
    return whole;
}

TEST(SmimeLegacyElementTest, StandsBehindTheTagOfTheBody) {
    for (const char* const html :
         {"<body>#x", "<html><BODY>#x", "<bOdY class='a>b' id=\"c>'d\">#x", "<body\n>#x", "<body\t\f\r>#x<body>",
          "<body/>#x", "<<body>#x", "< body><body>#x", "<b><body>#x", "<bodyx><body>#x", "<tbody></body><body >#x",
          "<body a=\"'\" b='\"'>#x", "a<!-b><body>#x"}) {
        std::string without = html;
        std::erase(without, '#');
        EXPECT_EQ(placed(without), html);
    }
    for (const char* const html :
         {"", "<", "<body", "<body ", "<body a='>", "body>", "<bodyx>", "</body>", "< body>"}) {
        EXPECT_EQ(placed(html), html);
    }
}

// The HTML Standard, 13.2.5.43 to 13.2.5.51: where a remark ends.
TEST(SmimeLegacyElementTest, StandsInNoRemark) {
    for (const char* const html :
         {"<!-- <body> --><body>#x", "<!-- a > <body> --><body>#x", "<!-- a -> <body> --><body>#x",
          "<!-- -- <body> --><body>#x", "<!-- - - > <body> --><body>#x", "<!-- --x> <body> --><body>#x",
          "<!----><body>#x", "<!-- x---><body>#x", "<!--><body>#x", "<!---><body>#x", "<!--a--><!--<body>--><body>#x",
          "<!--[if mso]><body><![endif]--><body>#x"}) {
        std::string without = html;
        std::erase(without, '#');
        EXPECT_EQ(placed(without), html);
    }
    EXPECT_EQ(placed("<!-- <body>"), "<!-- <body>");
}

TEST(SmimeLegacyElementTest, StandsAtTheStartOfATextOnce) {
    for (const char* const text : {"", "a", "<body>", "ab"}) {
        const MemoryMediaOut out;
        MediaOut in = withElement(out, LegacyDisplay{"#", false, false});
        for (const char* at = text; *at != '\0'; ++at) {
            put(in, {at, 1});
        }
        in.end();
        EXPECT_EQ(norvtest::textOf(out.content()), std::string("#") + text);
    }
}

std::string hidden(const std::string& subject) {
    return hiddenFieldsOf(readAgain("Subject: " + subject + "\r\n"));
}

TEST(SmimeLegacyElementTest, IsOneShortLineForTheSubject) {
    EXPECT_EQ(hiddenFieldsOf(readAgain("To: a@example.com\r\n")), "");
    EXPECT_EQ(hidden(""), "");
    EXPECT_EQ(hidden("a\r\n b"), "Subject: a b\r\n");
    EXPECT_EQ(hidden("=?utf-8?q?a=01=7F=0Ab=1F=20~=C3=A4?="), "Subject: a   b  ~\xc3\xa4\r\n");
    EXPECT_EQ(hidden("caf\xc3\xa9"), "Subject: caf\xc3\xa9\r\n");
    EXPECT_EQ(hidden("caf\xe9"), "Subject: caf\xc3\xa9\r\n") << "as the field inside is written";
    EXPECT_EQ(hidden(std::string(1000, 'x')), "Subject: " + std::string(1000, 'x') + "\r\n");
    EXPECT_EQ(hidden(std::string(1001, 'x')), "");
}

LegacyDisplay displayed(const std::string& fields, const std::string& hiddenFields) {
    const mime::Header header = readAgain(fields);
    return legacyDisplayOf(header, mime::contentTypeOf(header), hiddenFields);
}

TEST(SmimeLegacyElementTest, IsInTheCharacterSetOfItsText) {
    const std::string ascii = "Subject: a\r\n";
    const std::string other = "Subject: \xc3\xa4\xe2\x82\xac\r\n"; // U+00E4 and U+20AC
    for (const char* const type :
         {"X: y\r\n", "Content-Type: text/plain\r\n", "Content-Type: text/plain; charset=US-ASCII\r\n"}) {
        EXPECT_EQ(displayed(type, ascii).element, ascii + "\r\n");
        EXPECT_FALSE(displayed(type, ascii).becomesUtf8) << type;
        EXPECT_EQ(displayed(type, other).element, other + "\r\n");
        EXPECT_TRUE(displayed(type, other).becomesUtf8) << type;
    }
    const auto in = [&](const std::string& characterSet) {
        const LegacyDisplay display = displayed("Content-Type: text/plain; charset=" + characterSet + "\r\n", other);
        EXPECT_FALSE(display.becomesUtf8);
        return display.element;
    };
    EXPECT_EQ(in("utf-8"), other + "\r\n");
    EXPECT_EQ(in("UTF-8"), other + "\r\n");
    EXPECT_EQ(in("iso-8859-1"), "Subject: \xe4?\r\n\r\n");
    EXPECT_EQ(in("iso-8859-15"), "Subject: \xe4\xa4\r\n\r\n");
    EXPECT_EQ(in("koi8-r"), "Subject: ??\r\n\r\n");
    EXPECT_EQ(in("utf-16"), "") << "no ASCII in it";
    EXPECT_EQ(in("x-unheard-of"), "");
    EXPECT_EQ(displayed("Content-Type: text/html; charset=iso-8859-1\r\n", other).element,
              "<div class=\"header-protection-legacy-display\"><pre>Subject: \xe4?</pre></div>\r\n");
}

TEST(SmimeLegacyElementTest, IsOfTextsThatAreShownAlone) {
    for (const char* const fields :
         {"Content-Type: text/csv\r\n", "Content-Type: image/png\r\n", "Content-Disposition: attachment\r\n",
          "Content-Disposition: ATTACHMENT;filename=x\r\n", "Content-Disposition: attachment ; filename=x\r\n",
          "Content-Transfer-Encoding: x-uuencode\r\n", "Content-Type: image/plain\r\n"}) {
        EXPECT_EQ(displayed(fields, "Subject: a\r\n").element, "") << fields;
    }
    EXPECT_EQ(displayed("X: y\r\n", "").element, "");
    EXPECT_NE(displayed("Content-Disposition: inline\r\n", "Subject: a\r\n").element, "");
    EXPECT_NE(displayed("Content-Transfer-Encoding: base64\r\n", "Subject: a\r\n").element, "");
}

TEST(SmimeLegacyElementTest, IsToldInTheTypeOfItsText) {
    const auto told = [](const std::string& value, bool becomesUtf8 = false) {
        const std::string field = legacyType("Content-Type: " + value + "\r\n", LegacyDisplay{"#", false, becomesUtf8});
        if (!field.empty()) {
            EXPECT_EQ(mime::contentTypeOf(readAgain(field)).hpLegacyDisplay, "1") << field;
        }
        return field;
    };
    EXPECT_EQ(told("text/plain"), "Content-Type: text/plain;\r\n hp-legacy-display=\"1\"\r\n");
    EXPECT_EQ(told("text/plain; charset=utf-8;"),
              "Content-Type: text/plain; charset=utf-8;\r\n hp-legacy-display=\"1\"\r\n");
    EXPECT_EQ(told("text/plain", true), "Content-Type: text/plain;\r\n charset=utf-8;\r\n hp-legacy-display=\"1\"\r\n");
    const std::string changed = told("text/html; charset=us-ascii; format=flowed", true);
    const mime::Header header = readAgain(changed);
    EXPECT_EQ(mime::contentTypeOf(header).characterSet, "utf-8");
    EXPECT_EQ(mime::contentTypeOf(header).text(), "text/html");
    EXPECT_THAT(changed, testing::HasSubstr("format=flowed"));
    // GMime never ends with such a name, and is not asked to encode it.
    EXPECT_EQ(told("text/plain; charset=us-ascii; " + std::string(72, 'n') + "=\"" + std::string(300, 'v') + '"', true),
              "");
    // Nothing is read behind a quote that is not closed; and the first of two counts.
    for (const char* const value : {"text/plain; charset=\"utf-8", "text/plain; hp-legacy-display=0"}) {
        EXPECT_EQ(told(value), "") << value;
    }
}

} // namespace
