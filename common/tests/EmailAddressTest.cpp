#include <norvcmsg/EmailAddress.h>

#include "Shown.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Norvane::EmailAddress;

EmailAddress parse(const std::string& text, bool allowUtf8 = false) {
    return EmailAddress::rfc5321Parse(text, allowUtf8);
}

class GoodAddress : public testing::TestWithParam<Shown> {};

TEST_P(GoodAddress, IsTakenAsItIs) {
    for (const bool allowUtf8 : {false, true}) {
        const auto address = parse(GetParam().text, allowUtf8);
        EXPECT_FALSE(address.isNull());
        EXPECT_FALSE(address.isEmptyAddress());
        EXPECT_EQ(address.address(), GetParam().text);
        EXPECT_EQ(address.localPart() + "@" + address.domain(), GetParam().text);
    }
}

const std::string labelOf63(63, 'a');

INSTANTIATE_TEST_SUITE_P(Mailboxes, GoodAddress,
                         testing::Values("a@b", "Fred.Bloggs@example.com", "user+tag@example.com", "x.y.z@a.b.c",
                                         "!#$%&'*+-/=?^_`{|}~@example.com", "1@2", "a@localhost", "a@1.2.3.4",
                                         "a@xn--mnchen-3ya.example", "a@a-b--c.example", "a@0x.1y", "\"\"@example.com",
                                         "\"fred bloggs\"@example.com", "\"a@b\"@example.com", "\"a..b\"@example.com",
                                         R"("a\"b\\c"@example.com)", R"("\ \~"@example.com)", "a@[192.0.2.1]",
                                         "a@[0.0.0.0]", "a@[255.255.255.255]", "a@[192.000.002.001]",
                                         "a@[IPv6:2001:db8::1]", "a@[ipv6:::1]", "a@[IPv6:::]",
                                         "a@[IPv6:1:2:3:4:5:6:7:8]", "a@[IPv6:1:2:3:4:5:6::]", "a@[IPv6:::3:4:5:6:7:8]",
                                         "a@[IPv6:::ffff:192.0.2.1]", "a@[IPv6:1:2:3:4:5:6:192.0.2.1]",
                                         "a@[IPv6:1:2:3:4::192.0.2.1]", "a@[IPv6:::192.000.002.001]", "a@[tag:content]",
                                         "a@[2001:db8::1]", // by the grammar a literal with the tag 2001
                                         "a@[x-1:!Z^~]", std::string(64, 'l') + "@b", "a@" + labelOf63 + ".example",
                                         // 254 bytes in all
                                         "ab@" + labelOf63 + "." + labelOf63 + "." + labelOf63 + "." +
                                             std::string(59, 'd')));

class BadAddress : public testing::TestWithParam<Shown> {};

TEST_P(BadAddress, IsNull) {
    for (const bool allowUtf8 : {false, true}) {
        const auto address = parse(GetParam().text, allowUtf8);
        EXPECT_TRUE(address.isNull());
        EXPECT_TRUE(address.isEmptyAddress());
        EXPECT_EQ(address.address(), "");
        EXPECT_EQ(address.localPart(), "");
        EXPECT_EQ(address.domain(), "");
    }
}

INSTANTIATE_TEST_SUITE_P(LocalParts, BadAddress,
                         testing::Values("@", "@b", ".a@b", "a.@b", "a..b@c", "a b@c", "a@b@c", "a,b@c", "a(x)@b",
                                         "a\\b@c", "a\"b\"@c", "\"a\"b@c", "\"a\".b@c", "\"a@b", "\"a\"@", "\"a\"",
                                         "\"@b", "\"a\\\"@b", "\"a\tb\"@c", "\"a\\\tb\"@c", "\"a\nb\"@c", "a\n@b",
                                         "\x7F@b", "\"\x7F\"@b", "a", "abc.example", "a:b@c", "<a@b>", "Fred <a@b>",
                                         " a@b", std::string(65, 'l') + "@b", "\"" + std::string(63, 'l') + "\"@b"));

INSTANTIATE_TEST_SUITE_P(Domains, BadAddress,
                         testing::Values("a@", "a@.", "a@b.", "a@.b", "a@b..c", "a@-b", "a@b-", "a@b-.c", "a@b.-c",
                                         "a@b_c", "a@b c", "a@b ", "a@b\n", "a@b\r\n", "a@(x)b", "a@b!c", "a@\"b\"",
                                         "a@" + labelOf63 + "a.example",
                                         // 255 bytes in all
                                         "abc@" + labelOf63 + "." + labelOf63 + "." + labelOf63 + "." +
                                             std::string(59, 'd')));

INSTANTIATE_TEST_SUITE_P(
    Literals, BadAddress,
    testing::Values("a@[]", "a@[", "a@]", "a@[1.2.3.4", "a@1.2.3.4]", "a@[1.2.3]", "a@[1.2.3.4.5]", "a@[1.2.3.256]",
                    "a@[1.2.3.1000]", "a@[1.2.3.]", "a@[1.2..4]", "a@[1.2.3.-4]", "a@[ 1.2.3.4]", "a@[1.2.3.4].b",
                    "a@[IPv6:]", "a@[IPv6:1]", "a@[IPv6:1:2:3:4:5:6:7]", "a@[IPv6:1:2:3:4:5:6:7:8:9]",
                    "a@[IPv6:1:2:3:4:5:6:7::]", "a@[IPv6:::2:3:4:5:6:7:8]", "a@[IPv6:1:2:3::5:6:7:8]",
                    "a@[IPv6:1:2:3:4:5::192.0.2.1]", "a@[IPv6:1::2::3]", "a@[IPv6:g::]", "a@[IPv6:12345::]",
                    "a@[IPv6:fe80::1%eth0]", "a@[IPv6:::1.2.3.256]", "a@[IPv6:::0001.2.3.4]", "a@[IPv6:1.2.3.4]",
                    "a@[IPv6:1.2.3.4::]", "a@[IPv6:::1.2.3.4:5]", "a@[IPv6::1.2.3.4]", "a@[:x]", "a@[x:]", "a@[x-:y]",
                    "a@[x y:z]", "a@[x:y z]", "a@[x:[]", "a@[x:]]", "a@[x:\\]", "a@[x_y:z]"));

INSTANTIATE_TEST_SUITE_P(NulBytes, BadAddress,
                         testing::Values(std::string("a@b\0", 4), std::string("a\0@b", 4), std::string("\0", 1),
                                         std::string("a@b\0.example", 12), std::string("\"a\0\"@b", 6),
                                         std::string("\"\\\0\"@b", 6), std::string("a@[x:\0]", 7),
                                         std::string("a@[IPv6:::1\0]", 13), std::string("a@[1.2.3.4\0]", 12)));

INSTANTIATE_TEST_SUITE_P(NoUtf8, BadAddress,
                         testing::Values("m\xFCller@b", "m\xC3@b", "a@m\xFCnchen", "\"\xFF\"@b", "a@\xC0\xAF",
                                         "\xED\xA0\x80@b", "a@[x:\xC3\xBC]",
                                         // controls and what changes the direction of writing
                                         "a\xC2\x85@b", "a@b\xE2\x80\xAE", "\"\xE2\x80\xA8\"@b",
                                         // a backslash quotes ASCII only
                                         "\"\\\xC3\xBC\"@b"));

TEST(EmailAddress, Utf8NeedsTheFlag) {
    const std::vector<std::string> addresses = {
        "m\xC3\xBCller@example.com", "a@m\xC3\xBCnchen.example", "\"m \xC3\xBC\"@example.com",
        "\xE7\x94\xA8\xE6\x88\xB7@\xE4\xBE\x8B\xE5\xAD\x90.\xE5\xB9\xBF\xE5\x91\x8A", "\xF0\x9F\x93\xA7@example.com"};
    for (const auto& text : addresses) {
        EXPECT_TRUE(parse(text, false).isNull()) << text;
        EXPECT_EQ(parse(text, true).address(), text);
    }
}

TEST(EmailAddress, LengthsOfUtf8AreCountedInBytesAndOfLabelsAsTheDnsHasThem) {
    std::string local;
    for (int i = 0; i < 32; ++i) {
        local += "\xC3\xBC";
    }
    EXPECT_FALSE(parse(local + "@b", true).isNull());
    EXPECT_TRUE(parse(local + "x@b", true).isNull());
    std::string label;
    for (int i = 0; i < 59; ++i) {
        label += "\xC3\xBC";
    }
    EXPECT_FALSE(parse("a@" + label, true).isNull());
    EXPECT_TRUE(parse("a@" + label + "\xC3\xBC", true).isNull());
}

TEST(EmailAddress, ADefaultOneIsNull) {
    const EmailAddress none;
    EXPECT_TRUE(none.isNull());
    EXPECT_TRUE(none.isEmptyAddress());
    EXPECT_EQ(none.address(), "");
    EXPECT_EQ(none.localPart(), "");
    EXPECT_EQ(none.domain(), "");
}

TEST(EmailAddress, AnEmptyTextIsTheEmptyAddressAndNotNull) {
    const auto empty = parse("");
    EXPECT_FALSE(empty.isNull());
    EXPECT_TRUE(empty.isEmptyAddress());
    EXPECT_EQ(empty.address(), "");
    EXPECT_EQ(empty.domain(), "");
}

TEST(EmailAddress, TellsItsParts) {
    const auto quoted = parse("\"a@b\"@Example.COM");
    EXPECT_EQ(quoted.localPart(), "\"a@b\"");
    EXPECT_EQ(quoted.domain(), "Example.COM");
    EXPECT_EQ(parse("a@[192.0.2.1]").domain(), "[192.0.2.1]");
}

TEST(EmailAddress, CopiesAreEqualAndIndependent) {
    auto address = parse("a@b");
    const EmailAddress copy(address);
    EXPECT_TRUE(copy == address);
    address = parse("c@d");
    EXPECT_EQ(copy.address(), "a@b");
    EXPECT_FALSE(copy == address);
}

TEST(EmailAddress, EqualityMindsTheCaseOfTheLocalPartOnly) {
    EXPECT_TRUE(parse("Fred@Example.COM") == parse("Fred@example.com"));
    EXPECT_FALSE(parse("Fred@example.com") == parse("fred@example.com"));
    EXPECT_FALSE(parse("a@bc") == parse("ab@c"));
    EXPECT_TRUE(EmailAddress() == parse("@"));
    EXPECT_FALSE(EmailAddress() == parse(""));
    EXPECT_TRUE(parse("") == parse(""));
}

TEST(EmailAddress, LongTextsAreRefused) {
    EXPECT_TRUE(parse(std::string(10'000'000, 'a')).isNull());
    EXPECT_TRUE(parse(std::string(10'000'000, '@')).isNull());
    EXPECT_TRUE(parse("\"" + std::string(10'000'000, '\\')).isNull());
}

} // namespace
