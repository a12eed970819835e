#include "ASN1/Values.h"

namespace {

using namespace asn1testing;

TEST(ASN1Printing, OctetStringsAndIntegersInHexadecimal) {
    const StringPtr octets = string(V_ASN1_OCTET_STRING, std::string("\x00\x0F\xAB", 3));
    EXPECT_EQ(printed(OctetString(octets.get())), "000fab");
    EXPECT_EQ(printed(RefOctetString(octets.get())), "000fab");
    EXPECT_EQ(printed(*octets), "000fab");
    EXPECT_EQ(printed(static_cast<const asn1_string_st*>(octets.get())), "000fab");
    const StringPtr number = integer("0FAB");
    EXPECT_EQ(printed(RefInteger(number.get())), "0fab");
}

TEST(ASN1Printing, NothingForNull) {
    EXPECT_EQ(printed(static_cast<const asn1_string_st*>(nullptr)), "");
    EXPECT_EQ(printed(OctetString()), "");
    EXPECT_EQ(printed(RefOctetString()), "");
    EXPECT_EQ(printed(RefOctetString(nullptr)), "");
    EXPECT_EQ(printed(RefInteger()), "");
}

TEST(ASN1Printing, OtherTypesByteByByte) {
    const StringPtr ia5 = string(V_ASN1_IA5STRING, "a\tb");
    EXPECT_EQ(printed(*ia5), "a0x9b");
    const StringPtr edges = string(V_ASN1_UTF8STRING, std::string("\x1F ~\x7F\0", 5));
    EXPECT_EQ(printed(*edges), "0x1f ~0x7f0x0");
    const StringPtr bits = string(V_ASN1_BIT_STRING, "A");
    EXPECT_EQ(printed(*bits), "A");
}

TEST(ASN1Printing, BytesFrom80PrintSignExtendedDeliberately) {
    const StringPtr latin = string(V_ASN1_T61STRING, "caf\xE9");
    EXPECT_EQ(printed(*latin), "caf0xffffffe9");
    const StringPtr edges = string(V_ASN1_T61STRING, "\x80\xFF");
    EXPECT_EQ(printed(*edges), "0xffffff800xffffffff");
}

TEST(ASN1Printing, StreamIsLeftInHexadecimalDeliberately) {
    for (const int type : {V_ASN1_OCTET_STRING, V_ASN1_INTEGER, V_ASN1_IA5STRING}) {
        const StringPtr value = string(type, "\x01");
        std::ostringstream out;
        out << *value << ' ' << 255;
        EXPECT_TRUE(out.str().ends_with(" ff")) << out.str();
    }
}

TEST(ASN1Printing, FormattingOfTheStreamDoesNotChangeTheText) {
    const StringPtr octets = string(V_ASN1_OCTET_STRING, "\x0F\xAB");
    const StringPtr text = string(V_ASN1_IA5STRING, "\xE9");
    std::ostringstream out;
    out << std::uppercase << std::showbase << *octets << *text;
    EXPECT_EQ(out.str(), "0fab0xffffffe9");
}

// RFC 5280 times as OpenSSL's tools print them.
TEST(ASN1Printing, Times) {
    const StringPtr utc = string(V_ASN1_UTCTIME, "261120111207Z");
    const StringPtr general = string(V_ASN1_GENERALIZEDTIME, "20510203040506Z");
    EXPECT_EQ(printed(*utc), "Nov 20 11:12:07 2026 GMT");
    EXPECT_EQ(printed(*general), "Feb  3 04:05:06 2051 GMT");
}

TEST(ASN1Printing, BadTimes) {
    const StringPtr bad = string(V_ASN1_UTCTIME, "nonsense");
    EXPECT_EQ(printed(*bad), "Bad time value");
    EXPECT_TRUE(errorQueueIsEmpty());
}

} // namespace
