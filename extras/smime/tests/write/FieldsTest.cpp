// Header fields as they are written.

#include "write/Fields.h"
#include "GmimeParts.h"
#include "mime/Values.h"

#include <norvcmsg/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::SMime::writing;
using smimetest::readByGmime;
namespace mime = Norvane::Crypto::SMime::mime;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

std::string letters(std::size_t count) {
    return std::string(count, 'x');
}

// RFC 5322, 2.1.1: lines should have no more than 78 characters.
TEST(SmimeFieldsTest, FoldsItsOwnAtTheLastBlanksThatLeaveALineShortEnough) {
    EXPECT_EQ(newField("A", letters(75)), "A: " + letters(75) + "\r\n") << "78 characters";
    EXPECT_EQ(newField("A", letters(76)), "A:\r\n " + letters(76) + "\r\n");
    EXPECT_EQ(newField("A", "b " + letters(73)), "A: b " + letters(73) + "\r\n") << "78 characters";
    EXPECT_EQ(newField("A", "b " + letters(74)), "A: b\r\n " + letters(74) + "\r\n");
    EXPECT_EQ(newField("A", letters(75) + " b"), "A: " + letters(75) + "\r\n b\r\n");
    EXPECT_EQ(newField("A", "b \t " + letters(90) + " \tc"), "A: b\r\n \t " + letters(90) + "\r\n \tc\r\n");
    EXPECT_EQ(newField("A", std::string(90, ' ') + letters(90) + " b"),
              "A:\r\n" + std::string(91, ' ') + letters(90) + "\r\n b\r\n");
}

/// A line that looks empty ends a header for some.
TEST(SmimeFieldsTest, FoldsNoLineIntoOneOfBlanks) {
    EXPECT_EQ(newField("A", letters(90) + "  \t"), "A:\r\n " + letters(90) + "  \t\r\n");
    EXPECT_EQ(outerField("A: b\r\n" + std::string(1000, ' ') + "\r\n"), "A: b\r\n" + std::string(1000, ' ') + "\r\n");
}

TEST(SmimeFieldsTest, KeepsFieldsOutsideAsTheyStand) {
    for (const char* const field : {"A: b\r\n", "A:b\r\n\tc \r\n", "A:  b  \r\n \r\n c\r\n"}) {
        EXPECT_EQ(outerField(field), field);
        std::string feeds = field;
        std::erase(feeds, '\r');
        EXPECT_EQ(outerField(feeds), field);
        EXPECT_EQ(linesAsTheyStand(field), field);
        EXPECT_EQ(linesAsTheyStand(feeds), field);
    }
    EXPECT_EQ(outerField(std::string("A: b\rc\0d\n", 9)), "A: b c d\r\n");
    EXPECT_EQ(outerField("A: b"), "A: b\r\n");
    EXPECT_EQ(outerField("A: b\r\n\r"), "A: b\r\n");
    EXPECT_EQ(linesAsTheyStand(std::string("a\rb\0c \n\r", 8)), std::string("a\rb\0c \r\n", 8));
    // What SMTP carries stays, and no more.
    EXPECT_EQ(outerField("A: b " + letters(985) + "\n"), "A: b " + letters(985) + "\r\n") << "990 characters";
    EXPECT_EQ(outerField("A: b " + letters(986) + "\n"), "A: b\r\n " + letters(986) + "\r\n");
}

TEST(SmimeFieldsTest, LinesLoseWhatRelaysCutOff) {
    EXPECT_EQ(withoutTrailingBlanks("a \t\r\n \r\n b\r\n\r\nc d\r\n"), "a\r\n b\r\nc d\r\n");
}

/// The field with this value, written inside.
std::string inside(const std::string& name, const std::string& value) {
    return innerField(name, value, "the message");
}

TEST(SmimeFieldsTest, KeepsSevenBitFieldsInside) {
    EXPECT_EQ(inside("A", " b\r\n\tc\r\n"), "A: b\r\n\tc\r\n");
    EXPECT_EQ(inside("A", "b \n \t\n c\t\n"), "A:b\r\n c\r\n");
    EXPECT_EQ(inside("A", " " + letters(987)), "A: " + letters(987) + "\r\n") << "990 characters";
    EXPECT_EQ(inside("A", " b " + letters(986)), "A: b\r\n " + letters(986) + "\r\n");
    EXPECT_THROW(inside("A", " " + letters(990)), Norvane::Exception);
}

TEST(SmimeFieldsTest, LosesNoCharacterOfAValueThatIsEncoded) {
    for (const char* const value : {"x\xc3\xa4y", " x\xc3\xa4y", "\t x\xc3\xa4y"}) {
        EXPECT_EQ(readByGmime(inside("Subject", value) + "\r\n").subject, "x\xc3\xa4y");
    }
    for (const char* const name : {"Subject", "Comments", "X-Other"}) {
        const std::string field = inside(name, " a  b \"\xc3\xa4\" \\ c");
        EXPECT_THAT(field, StartsWith(std::string(name) + ": a "));
        EXPECT_TRUE(isSevenBit(field));
    }
}

// RFC 2047, 5: in a phrase an encoded word stands for a word, and within a quoted string there is none.
TEST(SmimeFieldsTest, EncodesEachKindOfFieldInItsWay) {
    const auto from = [](const std::string& value) { return readByGmime(inside("From", value) + "\r\n").from; };
    EXPECT_EQ(from(" \"J\xc3\xbcrgen\" <j@example.com>"), "J\xc3\xbcrgen <j@example.com>");
    EXPECT_EQ(from(" \"J\xc3\xbcrgen (x), \\\"Y\\\" \\\\\" <j@example.com>"),
              "\"J\xc3\xbcrgen (x), \\\"Y\\\" \\\\\" <j@example.com>");
    EXPECT_EQ(from("\"J\xc3\xbcrgen\"\r\n <j@example.com>,\r\n \"k\" <k@example.com>"),
              "J\xc3\xbcrgen <j@example.com>, k <k@example.com>");
    EXPECT_THAT(inside("From", " \"J\xc3\xbcrgen\" <j@example.com>"),
                MatchesRegex("From: =\\?[^ \"]+\\?= <j@example\\.com>\r\n"));
    // RFC 2231, 4.
    const std::string named = inside("Content-Type", " text/plain; name=\"\xc3\xbc.txt\"");
    EXPECT_THAT(named, AllOf(StartsWith("Content-Type: text/plain; name*="), Not(HasSubstr("=?"))));
    EXPECT_EQ(readByGmime(named + "\r\nx").parts.at(0).name, "\xc3\xbc.txt");
    const std::string filed = inside("Content-Disposition", " attachment; filename=\"r\xc3\xa9sum\xc3\xa9.txt\"");
    EXPECT_THAT(filed, AllOf(StartsWith("Content-Disposition: attachment; filename*="), Not(HasSubstr("=?"))));
    EXPECT_EQ(readByGmime(filed + "\r\nx").parts.at(0).name, "r\xc3\xa9sum\xc3\xa9.txt");
}

/// RFC 2047, 5: no part of an address is an encoded word, and one in a remark does not hold its end.
TEST(SmimeFieldsTest, KeepsAddressesForOthersToRead) {
    const std::string book = "@b\xc3\xbc"
                             "cher.example";
    for (const auto& [value, addresses] : std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"j" + book, {"j" + book}},
             {"J\xc3\xbcrgen <j" + book + ">", {"j" + book}},
             {"\"J, K\" <j" + book + ">, k@l.example", {"j" + book, "k@l.example"}},
             {"g\xc3\xbc: j@k.example, l" + book + ";, m@n.example", {"j@k.example", "l" + book, "m@n.example"}},
             {"j@k.example (remark \xc3\xbc)", {"j@k.example"}},
             {"\xc3\xbc <j@k.example> (\xc3\xbc, l@m.example), n@o.example", {"j@k.example", "n@o.example"}}}) {
        const std::string field = inside("To", " " + value);
        EXPECT_TRUE(isSevenBit(field)) << field;
        const mime::Addresses found = mime::addressesOf(readAgain(field), "To");
        EXPECT_TRUE(found.isReadable) << field;
        EXPECT_EQ(found.mailboxes, addresses) << field;
    }
    EXPECT_THAT(inside("To", " J\xc3\xbcrgen <j" + book + ">"),
                EndsWith("?= <j@xn--bcher-kva.example>\r\n")); // RFC 5890
}

TEST(SmimeFieldsTest, KeepsBoundariesForOthersToFind) {
    const std::string other = "; name=\"\xc3\xbc\"";
    const auto boundaryIn = [](const std::string& parameters) {
        const std::string field = inside("Content-Type", " multipart/mixed" + parameters);
        EXPECT_TRUE(isSevenBit(field)) << field;
        return mime::contentTypeOf(readAgain(field)).boundary;
    };
    for (const std::string boundary : {"a b", "a=?b", "'()+_,-./:=?"}) {
        const std::string parameter = "; boundary=\"" + boundary + '"';
        EXPECT_EQ(boundaryIn(parameter + other), boundary);
        EXPECT_EQ(boundaryIn(other + parameter), boundary);
    }
    // It looks like an encoded word, and is none (RFC 2047, 5); what cannot be told in another way is refused.
    EXPECT_EQ(boundaryIn("; boundary=\"=?utf-8?q?a?=\"" + other), "=?utf-8?q?a?=");
    for (const std::string& parameters :
         {other + "; boundary=\"=?utf-8?q?a?=\"", std::string("; x-\xc3\xbc=1; boundary=\"a b\"")}) {
        EXPECT_THROW(boundaryIn(parameters), Norvane::Exception) << parameters;
    }
    EXPECT_TRUE(isSevenBit(inside("Content-Type", " text/plain; x-\xc3\xbc=1; charset=utf-8")));
}

/// GMime never ends with names of 70 to 72 octets, and repeats one that is a little shorter for each few octets of the value.
TEST(SmimeFieldsTest, GivesGmimeNoParameterWithALongName) {
    for (const std::size_t length : {std::size_t{41}, std::size_t{69}, std::size_t{70}, std::size_t{71},
                                     std::size_t{72}, std::size_t{73}, std::size_t{500}}) {
        for (const std::string& value : {std::string("\xc3\xbc"), "\xc3\xbc" + letters(300), letters(1000)}) {
            const std::string parameter = letters(length) + "=\"" + value + '"';
            const std::string type = inside("Content-Type", " application/x; " + parameter + "; charset=utf-8");
            EXPECT_EQ(readByGmime(type + "\r\nx").parts.at(0).type, "application/x") << length;
            EXPECT_TRUE(isSevenBit(type)) << length;
            EXPECT_GT(4 * parameter.size(), type.size()) << length;
            EXPECT_THAT(inside("Content-Disposition", " attachment; " + parameter),
                        StartsWith("Content-Disposition: attachment;"));
        }
    }
    const std::string sixteen = letters(16 * 1024);
    EXPECT_GT(6 * 16 * 1024,
              inside("Content-Type", " application/x; " + letters(40) + "=\"\xc3\xbc" + sixteen + '"').size());
    EXPECT_THAT(inside("Content-Type", " application/x; " + letters(40) + "=\"\xc3\xbc\""),
                HasSubstr(letters(40) + "*="));
}

/// Of what GMime cannot read as addresses it would leave parts out.
TEST(SmimeFieldsTest, LeavesNothingOutOfWhatItEncodes) {
    for (const char* const value : {"\xc3\xa4 <eve@example.com", "eve@example.com (\xc3\xa4, bob@example.com",
                                    "bob@example.com \xc3\xa4 eve", "\xc3\xa4 bob@example.com;;"}) {
        std::string subject = readByGmime("Subject:" + inside("To", value).substr(3) + "\r\n").subject;
        std::string expected = value;
        std::erase(subject, ' ');
        std::erase(expected, ' ');
        EXPECT_EQ(subject, expected);
    }
}

/// As many groups as GMime may take to begin within one another, each a level of the stack.
TEST(SmimeFieldsTest, ReadsNoMoreGroupsThanItMay) {
    const auto from = [](std::size_t colons) {
        return inside("From", '"' + std::string(colons, ':') + "\xc3\xbc\" <j@example.com>");
    };
    EXPECT_EQ(readByGmime(from(100) + "\r\n").from, '"' + std::string(100, ':') + "\xc3\xbc\" <j@example.com>");
    EXPECT_THAT(from(100), Not(HasSubstr("=22"))) << "the quotes are none of the name";
    EXPECT_THAT(from(101), HasSubstr("=22")) << "words, whatever they are";
}

/// Of a field that may be costly GMime gets what is known to be cheap: few separators, or few words between them that are no
/// addresses. Of another one the quotation marks are encoded with the rest.
TEST(SmimeFieldsTest, TakesForAddressesWhatIsCheapToRead) {
    const auto isRead = [](const std::string& words, const std::string& behind) {
        const std::string field = inside("From", "\"\xc3\xbc" + words + "\" <j@example.com>" + behind);
        EXPECT_TRUE(isSevenBit(field)) << field;
        return field.find("=22") == std::string::npos;
    };
    EXPECT_TRUE(isRead(letters(300), ""));
    EXPECT_TRUE(isRead(letters(60) + std::string(100, ','), "")) << "in quotation marks";
    const auto others = [](int count) {
        std::string all;
        for (int number = 0; number != count; ++number) {
            all += ", a";
        }
        return all;
    };
    EXPECT_TRUE(isRead(letters(60), others(100)));
    EXPECT_FALSE(isRead(letters(60), others(101)));
}

TEST(SmimeFieldsTest, TakesBytesThatAreNoUtf8ForIso8859) {
    EXPECT_EQ(asUtf8("caf\xc3\xa9"), "caf\xc3\xa9");
    EXPECT_EQ(asUtf8("caf\xe9"), "caf\xc3\xa9");
    // RFC 3629, 3: two octets for U+0080 to U+00FF.
    for (unsigned int value = 0; value != 256; ++value) {
        std::string expected(1, static_cast<char>(value));
        if (value >= 0x80) {
            expected = {static_cast<char>(value < 0xc0 ? 0xc2 : 0xc3),
                        static_cast<char>(value < 0xc0 ? value : value - 0x40)};
        }
        EXPECT_EQ(asUtf8(std::string(1, static_cast<char>(value)) + "\xff"), expected + "\xc3\xbf") << value;
        EXPECT_EQ(isSevenBit(std::string("a") + static_cast<char>(value)), value < 0x80) << value;
    }
}

TEST(SmimeFieldsTest, AddsParametersBehindThoseThatAreThere) {
    EXPECT_EQ(withParameter("A: b\r\n", "c=d"), "A: b;\r\n c=d\r\n");
    EXPECT_EQ(withParameter("A: b;\r\n e=f; \r\n", "c=d"), "A: b;\r\n e=f;\r\n c=d\r\n");
    EXPECT_EQ(readAgain(withParameter("A: b\r\n", "c=d")).first("a"), "b; c=d");
}

} // namespace
