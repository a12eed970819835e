// Elements one after the other, where it is known what to look for.
#include "framing/Elements.h"

#include "support/Costly.h"

#include <authority/Der.h>

#include <openssl/asn1.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Norvane::Crypto::framing;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::toHex;

namespace {

std::string hexOf(Octets octets) {
    return toHex({octets.begin(), octets.end()});
}

/// The first element, as hexadecimal digits: whole and content. Nothing: "none".
std::pair<std::string, std::string> firstOf(const std::string& hex) {
    const Bytes octets = fromHex(hex);
    const auto element = firstElement(octets);
    return element ? std::pair(hexOf(element->whole), hexOf(element->content)) : std::pair("none", "");
}

using Parts = std::pair<std::string, std::string>;

} // namespace

TEST(FramingElements, TheFirstEndsWhereItsLengthSays) {
    EXPECT_EQ(firstOf("020105"), Parts("020105", "05"));
    EXPECT_EQ(firstOf("300302010504"), Parts("3003020105", "020105"));
    EXPECT_EQ(firstOf("3000ff"), Parts("3000", ""));
}

TEST(FramingElements, TheFirstOfIndefiniteLengthEndsAtItsOwnEndOfContents) {
    EXPECT_EQ(firstOf("30800201050000ff"), Parts("30800201050000", "020105"));
    EXPECT_EQ(firstOf("3080308004010000000000"), Parts("3080308004010000000000", "30800401000000"))
        << "zero octets in a string and the end of what is inside are not its end";
    EXPECT_EQ(firstOf("30803002000000000000"), Parts("308030020000"
                                                     "0000",
                                                     "30020000"))
        << "what is in an element of definite length is not looked at";
}

TEST(FramingElements, WhatDoesNotEndOrIsNoneIsNoElement) {
    for (const char* none :
         {"", "30", "3082", "3002", "300201", "30800201", "3080020105", "308002010500", "0000", "0480",
          "1f888080808000", "30880000000000000003", "3088ffffffffffffffff", "30803088ffffffffffffffff0000"}) {
        EXPECT_EQ(firstOf(none), Parts("none", "")) << none;
    }
}

TEST(FramingElements, AreTakenByTheirKind) {
    const Bytes octets = fromHex("020105a003040101"
                                 "3000"
                                 "31");
    Elements elements{Octets(octets)};
    EXPECT_FALSE(elements.nextUniversal(sequence)) << "another stands there, which stays";
    EXPECT_FALSE(elements.nextContext(integer)) << "the same number in another class";
    ASSERT_TRUE(elements.nextUniversal(integer));
    const auto context = elements.nextContext(0);
    ASSERT_TRUE(context);
    EXPECT_TRUE(context->header.constructed);
    EXPECT_TRUE(Elements(*context).nextUniversal(octetString));
    ASSERT_TRUE(elements.next());
    EXPECT_FALSE(elements.atEnd());
    EXPECT_FALSE(elements.next()) << "its length is missing";
    EXPECT_EQ(hexOf(elements.rest()), "31");
}

/// Deeper than a walk that keeps levels could go, and as deep as a recursive one would end the process.
TEST(FramingElements, NestingTakesNoMemory) {
    constexpr std::size_t levels = 1000000;
    Bytes octets;
    for (std::size_t i = 0; i < levels; ++i) {
        octets.insert(octets.end(), {0x30, 0x80});
    }
    octets.resize(4 * levels);
    const auto element = firstElement(octets);
    ASSERT_TRUE(element);
    EXPECT_EQ(element->whole.size(), octets.size());
    octets.pop_back();
    EXPECT_FALSE(firstElement(octets));
}

TEST(FramingElements, DerAndItsIndefiniteFormHaveTheSameElements) {
    const Bytes der = norvauthority::der::sequence(
        {norvauthority::der::integer("1"),
         norvauthority::der::set({norvauthority::der::sequence({norvauthority::der::integer("2")})}),
         norvauthority::der::octetString(Bytes(300, 0))});
    const Bytes ber = norvtest::indefinite(der);
    for (const Bytes& encoded : {der, ber}) {
        const auto outer = firstElement(encoded);
        ASSERT_TRUE(outer);
        EXPECT_EQ(outer->whole.size(), encoded.size());
        Elements elements(*outer);
        EXPECT_TRUE(elements.nextUniversal(integer));
        const auto inner = elements.nextUniversal(set);
        ASSERT_TRUE(inner);
        EXPECT_TRUE(Elements(*inner).nextUniversal(sequence));
        const auto string = elements.nextUniversal(octetString);
        ASSERT_TRUE(string);
        EXPECT_EQ(string->content.size(), 300U);
        EXPECT_TRUE(elements.atEnd());
    }
}

TEST(FramingElements, AreMadeOfParts) {
    const Bytes one = fromHex("020105");
    const Bytes large = norvauthority::der::octetString(Bytes(200, 1));
    const std::vector<Octets> parts{one, large};
    const auto made = constructed(TagClass::universal, sequence, parts);
    EXPECT_EQ(made, norvauthority::der::sequence({one, large}));
    EXPECT_EQ(hexOf(constructed(TagClass::contextSpecific, 0, std::vector<Octets>{one})), "a003020105");
    EXPECT_EQ(hexOf(constructed(TagClass::universal, set, {})), "3100");
}

/// The same octets many times: nothing is copied before it is known how many there are.
TEST(FramingElements, AreNotMadeOfTwoGibibytesAndMore) {
    const Bytes part(1U << 20U);
    const std::vector<Octets> parts(2048, part);
    EXPECT_TRUE(constructed(TagClass::universal, sequence, parts).empty());
}
