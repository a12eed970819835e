#include <norvcmsg/IPAddress.h>

#include "Shown.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Norvane::IPAddress;

TEST(IPAddress, ADefaultOneIsNull) {
    const IPAddress address;
    EXPECT_TRUE(address.isNull());
    EXPECT_FALSE(address.isV4());
    EXPECT_FALSE(address.isV6());
    EXPECT_EQ(address.octets(), "");
    EXPECT_EQ(address.asString(), "");
}

TEST(IPAddress, FourRawOctetsAreVersion4) {
    const IPAddress address(std::string("\xC0\x00\x02\x01", 4));
    EXPECT_FALSE(address.isNull());
    EXPECT_TRUE(address.isV4());
    EXPECT_FALSE(address.isV6());
    EXPECT_EQ(address.asString(), "192.0.2.1");
    EXPECT_EQ(address.octets(), std::string("\xC0\x00\x02\x01", 4));
}

TEST(IPAddress, SixteenRawOctetsAreVersion6) {
    const IPAddress address(std::string("\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16));
    EXPECT_TRUE(address.isV6());
    EXPECT_FALSE(address.isV4());
    EXPECT_EQ(address.asString(), "2001:db8::1");
}

TEST(IPAddress, TextsAreRead) {
    EXPECT_EQ(IPAddress("192.0.2.1").octets(), std::string("\xC0\x00\x02\x01", 4));
    EXPECT_TRUE(IPAddress("192.0.2.1").isV4());
    EXPECT_EQ(IPAddress("2001:DB8::1").asString(), "2001:db8::1");
    EXPECT_EQ(IPAddress("::1").asString(), "::1");
    EXPECT_TRUE(IPAddress("0.0.0.0").isV4());
}

TEST(IPAddress, ATextOf4Or16CharactersIsTakenAsOctets) {
    // Deliberate: the octets of a certificate must not become another address because they spell one.
    const IPAddress four("::ab");
    EXPECT_TRUE(four.isV4());
    EXPECT_EQ(four.asString(), "58.58.97.98");
    const IPAddress sixteen("2001:db8::12:345");
    EXPECT_TRUE(sixteen.isV6());
    EXPECT_EQ(sixteen.octets(), "2001:db8::12:345");
    EXPECT_EQ(sixteen.asString(), "3230:3031:3a64:6238:3a3a:3132:3a33:3435");
    EXPECT_EQ(IPAddress::fromText("::ab").asString(), "::ab");
    EXPECT_EQ(IPAddress::fromText("2001:db8::12:345").asString(), "2001:db8::12:345");
}

TEST(IPAddress, FromOctetsTakesNothingElse) {
    EXPECT_TRUE(IPAddress::fromOctets("").isNull());
    EXPECT_TRUE(IPAddress::fromOctets("abc").isNull());
    EXPECT_TRUE(IPAddress::fromOctets("192.0.2.1").isNull());
    EXPECT_TRUE(IPAddress::fromOctets(std::string(8, '\0')).isNull()) << "an address with its mask";
    EXPECT_TRUE(IPAddress::fromOctets(std::string(4, '\0')).isV4());
    EXPECT_TRUE(IPAddress::fromOctets(std::string(16, '\0')).isV6());
}

class NoAddress : public testing::TestWithParam<Shown> {};

TEST_P(NoAddress, IsNull) {
    EXPECT_TRUE(IPAddress(GetParam().text).isNull());
    EXPECT_TRUE(IPAddress::fromText(GetParam().text).isNull());
}

INSTANTIATE_TEST_SUITE_P(Texts, NoAddress,
                         testing::Values("", "1", "1.2.3", "1.2.3.4.5", "1.2.3.256", "01.2.3.4", "1.2.3.4 ", " 1.2.3.4",
                                         "0x7f.0.0.1", "2130706433", ":::", "1::2::3", "12345::", "fe80::1%eth0",
                                         "[::1]", "1.2.3.4/24", "localhost", std::string("1.2.3.4\0", 8),
                                         std::string(8, '\0'), std::string("\xC0\x00\x02\x01\xFF\xFF\xFF\x00", 8)));

TEST(IPAddress, AMappedVersion4AddressIsVersion6) {
    const auto mapped = IPAddress::fromText("::ffff:192.0.2.1");
    EXPECT_TRUE(mapped.isV6());
    EXPECT_EQ(mapped.asString(), "::ffff:192.0.2.1");
    EXPECT_FALSE(mapped == IPAddress("192.0.2.1"));
}

TEST(IPAddress, EqualityIsByOctets) {
    EXPECT_TRUE(IPAddress("192.0.2.1") == IPAddress(std::string("\xC0\x00\x02\x01", 4)));
    EXPECT_FALSE(IPAddress("192.0.2.1") == IPAddress("192.0.2.2"));
    EXPECT_TRUE(IPAddress() == IPAddress("nonsense"));
}

} // namespace
