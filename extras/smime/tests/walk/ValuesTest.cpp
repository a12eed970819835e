#include "mime/Values.h"

#include "mime/Limits.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Norvane::Crypto::SMime::mime;

ContentType typed(const std::string& value) {
    Header header;
    MemoryOctets octets("Content-Type: " + value + "\r\n\r\n");
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    return contentTypeOf(header);
}

TEST(ContentTypeWords, AreInLowerCase) {
    const ContentType type = typed("ABCXYZ/AZ@; micalg=\"ZA[@\"");
    EXPECT_EQ(type.type, "abcxyz");
    EXPECT_EQ(type.micalg, "za[@");
}

// The segments stand in the wrong order (RFC 2231, 3), and beside them what looks like a separator or a segment and is none, since
// it is quoted or in a comment (RFC 822, 3.4).
TEST(ContentTypeSegments, AreNotThoseInQuotesAndComments) {
    const std::string first = "; name*0*=utf-8''%C3%A9";
    for (const std::string& value : {
             "application/x" + std::string("; name*1=Z") + first,
             "application/x (a \" b); name*1=Z" + first,
             "application/x (a (b) \" ; c*0*=d); name*1=Z" + first,
             "application/x (a \\) ;c*0*=d); name*1=Z" + first,
             "application/x; name*1=Z; x=\"a;q*0*=b\"" + first,
             "application/x; x=\"(\"; name*1=Z" + first,
             "application/x; x=\"a\\\";q*0*=b\"; name*1=Z" + first,
             "application/x; x=\")\"; name*1=Z" + first,
             std::string("application/x; name*1=Z; name*0* =utf-8''%C3%A9"),
             std::string("application/x;; name*1=Z;;name*0*=utf-8''%C3%A9"),
             "application/x); name*1=Z" + first,
             "application/x; x=a); name*1=Z" + first,
             "(a; b*1=x) application/x; name*1=Z" + first,
             "application/x;(a; b*0*=c) name*1=Z" + first,
             "application/x; name*1 (a*0*=b)=Z" + first,
             std::string("application/x; name*1=Z; name*0* (a;b)=utf-8''%C3%A9"),
         })
        EXPECT_EQ(typed(value).name, "\u00e9Z") << value;
}

TEST(ContentTypeSegments, LeaveTheOthersInTheirOrder) {
    for (const std::string value :
         {"application/x; name=a", "application/x; (c*d) name=a", "application/x; x=\"b*c\"; name=a"})
        EXPECT_EQ(typed(value + "; name*0*=utf-8''b").name, "a") << "the first one counts";
}

TEST(ContentTypeBoundary, IsMadeOfItsOwnOctets) {
    EXPECT_EQ(typed("multipart/mixed; boundary=\"a?b\"").boundary, "a?b");
    EXPECT_EQ(typed("multipart/mixed; boundary=\"=?=?a\"").boundary, "=?=?a");
    EXPECT_EQ(typed("multipart/mixed; boundary=\"a\x01"
                    "b\"")
                  .boundary,
              "a\x01"
              "b")
        << "it is no question mark";
    EXPECT_EQ(typed("multipart/mixed; boundary=\"=?\x01\"").boundary, "=?\x01");
    EXPECT_EQ(typed("multipart/mixed; boundary=\"=?\x01\x02\x03\x04\x05\x06\x07\"").boundary,
              "=?\x01\x02\x03\x04\x05\x06\x07");
    EXPECT_EQ(typed("multipart/mixed; boundary=\"=?\x01\x02\x03\x04\x05\x06\x07\x08\"").boundary, "")
        << "no octet is left that could stand for the question mark";
}

TEST(ContentTypeValue, IsReadUpToItsLimit) {
    const std::string begin = "text/html; x=";
    const ContentType longest = typed(begin + std::string(maximumValue - begin.size(), 'x'));
    EXPECT_EQ(longest.text(), "text/html");
    EXPECT_EQ(longest.oddity, "");
    const ContentType tooLong = typed(begin + std::string(maximumValue - begin.size() + 1, 'x'));
    EXPECT_EQ(tooLong.text(), "application/octet-stream");
    EXPECT_EQ(tooLong.oddity, "Content-Type is longer than 16384 bytes");
}

TEST(DecodedText, OfAValueBeyondItsLimitsIsItsStartAsItStands) {
    EXPECT_EQ(decodedText(std::string("=?utf-8?q?=61?=\0b", 17)), "=?utf-8?q?=61?=");
    EXPECT_EQ(decodedText("ab" + std::string(maximumValue, 'x')), "ab" + std::string(maximumValue - 2, 'x'));
    EXPECT_EQ(decodedText("=?utf-8?q?=61?="), "a");
}

} // namespace
