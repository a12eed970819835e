#include <norvcmsg/SocketAddress.h>

#include "../Shown.h"
#include "../Sockets.h"
#include "support/Interpose.h"

#include <net/if.h>
#include <netdb.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace {

int s_lookUpError = 0;        ///< what the name service answers
bool s_answersOthers = false; ///< with an address that is none of the Internet's

} // namespace

extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    if (s_lookUpError != 0) {
        errno = ENFILE;
        return s_lookUpError;
    }
    const int result = norvtest::next<&getaddrinfo>("getaddrinfo")(host, service, hints, found);
    for (addrinfo* each = *found; s_answersOthers && each != nullptr; each = each->ai_next) {
        each->ai_addr->sa_family = AF_UNIX;
    }
    return result;
}

namespace {

using Norvane::IPAddress;
using Norvane::SocketAddress;
using sockets::failureOf;

TEST(SocketAddress, ADefaultOneIsNull) {
    const SocketAddress address;
    EXPECT_TRUE(address.isNull());
    EXPECT_EQ(address.family(), 0);
    EXPECT_EQ(address.port(), 0);
    EXPECT_EQ(address.asString(), "");
    EXPECT_TRUE(address.asINET().ipAddress().isNull());
    EXPECT_FALSE(address.asINET().ipAddress().isV4());
    EXPECT_EQ(address, SocketAddress(IPAddress(), 0));
}

TEST(SocketAddress, ReadsAndWritesVersion4) {
    const SocketAddress address("192.0.2.1:25");
    EXPECT_FALSE(address.isNull());
    EXPECT_EQ(address.family(), 2);
    EXPECT_TRUE(address.asINET().ipAddress().isV4());
    EXPECT_EQ(address.asINET().ipAddress().asString(), "192.0.2.1");
    EXPECT_EQ(address.asINET().port(), 25);
    EXPECT_EQ(address.asString(), "192.0.2.1:25");
    EXPECT_EQ(address, SocketAddress(IPAddress::fromText("192.0.2.1"), 25));
}

TEST(SocketAddress, ReadsAndWritesVersion6) {
    const SocketAddress address("[2001:DB8:0::1]:65535");
    EXPECT_EQ(address.family(), 10);
    EXPECT_FALSE(address.asINET().ipAddress().isV4());
    EXPECT_EQ(address.port(), 65535);
    EXPECT_EQ(address.asString(), "[2001:db8::1]:65535");
    EXPECT_EQ(SocketAddress("[::]:0").asString(), "[::]:0");
    EXPECT_EQ(SocketAddress("[::ffff:192.0.2.1]:25").family(), 10) << "a mapped address is one of version 6";
}

TEST(SocketAddress, ALinkLocalAddressKeepsItsInterface) {
    const auto loopback = if_nametoindex("lo");
    if (loopback == 0) {
        GTEST_SKIP() << "there is no interface named lo";
    }
    const SocketAddress address("[fe80::1%lo]:25");
    EXPECT_EQ(address.asINET().scope(), loopback);
    EXPECT_EQ(address.asString(), "[fe80::1%" + std::to_string(loopback) + "]:25");
    EXPECT_EQ(SocketAddress(address.asString()), address);
    EXPECT_EQ(SocketAddress("[febf::1%77]:25").asINET().scope(), 77U) << "the last of the link-local addresses";
    EXPECT_EQ(SocketAddress("[fe80::1]:25").asINET().scope(), 0U);
}

TEST(SocketAddress, EqualityIsOfEveryPart) {
    const SocketAddress address("192.0.2.1:25");
    EXPECT_NE(address, SocketAddress("192.0.2.1:26"));
    EXPECT_NE(address, SocketAddress("192.0.2.2:25"));
    EXPECT_NE(SocketAddress("[fe80::1%7]:25"), SocketAddress("[fe80::1%8]:25"));
    EXPECT_NE(address, SocketAddress());
}

class NotAnAddress : public testing::TestWithParam<Shown> {};

TEST_P(NotAnAddress, IsRefusedWithTheText) {
    EXPECT_EQ(failureOf([] { SocketAddress{GetParam().text}; }),
              "SocketAddress (4): not an address and port: " + GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Texts, NotAnAddress,
                         testing::Values("", ":", ":25", "25", "192.0.2.1", "192.0.2.1:", "192.0.2.1:65536",
                                         "192.0.2.1:-1", "192.0.2.1:+1", "192.0.2.1: 25", "192.0.2.1:25 ",
                                         "192.0.2.1:smtp", "192.0.2.256:25", "192.0.02.1:25", "[192.0.2.1]:25",
                                         "localhost:25", "::1:25", "[::1]", "[::1]:", "[]:25", "[::1:25", "::1]:25",
                                         "[::1]25", "[[::1]]:25", "[2001:db8::1%1]:25", "[fec0::1%1]:25",
                                         "[fe80::1%]:25", "[fe80::1%0]:25", "[fe80::1%4294967296]:25",
                                         "[fe80::1%no such interface]:25", std::string("192.0.2.1\0:25", 13),
                                         std::string("192.0.2.1:25\0", 13)));

TEST(SocketAddress, ResolvesNumericHosts) {
    const auto v4 = SocketAddress::resolve("192.0.2.1", 25);
    ASSERT_EQ(v4.size(), 1U);
    EXPECT_EQ(v4[0].asString(), "192.0.2.1:25");
    const auto v6 = SocketAddress::resolve("2001:db8::1", 465);
    ASSERT_EQ(v6.size(), 1U);
    EXPECT_EQ(v6[0].asString(), "[2001:db8::1]:465");
}

TEST(SocketAddress, ResolvesTheLocalHost) {
    const auto addresses = SocketAddress::resolve("localhost", 25);
    EXPECT_FALSE(addresses.empty());
    for (const auto& address : addresses) {
        EXPECT_EQ(address.port(), 25);
        EXPECT_TRUE(address.asString() == "127.0.0.1:25" || address.asString() == "[::1]:25") << address.asString();
    }
}

TEST(SocketAddress, AHostThatNobodyKnowsIsAFailure) {
    EXPECT_EQ(failureOf([] { return SocketAddress::resolve("", 25); }),
              "SocketAddress::resolve (4): : Name or service not known");
    EXPECT_EQ(failureOf([] { return SocketAddress::resolve(std::string("127.0.0.1\0.example", 18), 25); }),
              std::string("SocketAddress::resolve (4): 127.0.0.1\0.example: Name or service not known", 73));
    const norvtest::During failing(s_lookUpError, EAI_AGAIN);
    EXPECT_EQ(failureOf([] { return SocketAddress::resolve("mx.example", 25); }),
              "SocketAddress::resolve (4): mx.example: Temporary failure in name resolution");
}

TEST(SocketAddress, AFailureOfTheSystemWhileResolvingIsTold) {
    const norvtest::During failing(s_lookUpError, EAI_SYSTEM);
    EXPECT_EQ(failureOf([] { return SocketAddress::resolve("mx.example", 25); }),
              "SocketAddress::resolve (4): mx.example: Too many open files in system (23)");
}

TEST(SocketAddress, AHostWithOtherAddressesAloneIsAFailure) {
    const norvtest::During answering(s_answersOthers, true);
    EXPECT_EQ(failureOf([] { return SocketAddress::resolve("192.0.2.1", 25); }),
              "SocketAddress::resolve (4): 192.0.2.1: No address associated with hostname");
}

} // namespace
