// The order in which the elements of an encoding are met, and what ends a walk.
#include "framing/Walk.h"

#include <authority/Der.h>

#include <gtest/gtest.h>

#include <string>

using namespace Norvane::Crypto::framing;
using norvauthority::Bytes;
using norvauthority::fromHex;

namespace {

struct Account {
    std::string steps; ///< "(" opened, ")" closed, the tag of what is primitive, and how it ended
    std::size_t count = 0;
};

Account walk(const Bytes& octets, Walk::Opening opening = Walk::Opening::none) {
    Account account;
    Walk through(octets.data(), octets.size(), opening);
    for (;;) {
        switch (const auto step = through.next()) {
        case Walk::Step::opened:
            account.steps += '(';
            break;
        case Walk::Step::closed:
            account.steps += ')';
            break;
        case Walk::Step::primitive:
            account.steps += static_cast<char>('a' + through.header().tag);
            break;
        default:
            account.steps += step == Walk::Step::finished  ? " finished"
                             : step == Walk::Step::damaged ? " damaged"
                                                           : " deep";
            EXPECT_EQ(through.next(), step) << "the last step is answered again";
            return account;
        }
        ++account.count;
    }
}

std::string stepsOf(const std::string& hex) {
    return walk(fromHex(hex)).steps;
}

} // namespace

TEST(FramingWalk, ElementsThatAreKnownArePassedWithinTheOneAroundThem) {
    const Bytes octets = fromHex("3080"
                                 "24060401010401020500"
                                 "0000");
    Walk through(octets.data(), octets.size());
    EXPECT_EQ(through.next(), Walk::Step::opened);
    EXPECT_EQ(through.next(), Walk::Step::opened);
    EXPECT_EQ(through.next(), Walk::Step::primitive);
    EXPECT_FALSE(through.pass(4)) << "the outer one holds so many, this one does not";
    EXPECT_TRUE(through.pass(3));
    EXPECT_EQ(through.next(), Walk::Step::closed);
    EXPECT_EQ(through.elementSize(), 8U);
    EXPECT_EQ(through.next(), Walk::Step::primitive);
    EXPECT_EQ(through.next(), Walk::Step::closed);
    EXPECT_EQ(through.next(), Walk::Step::finished);
}

namespace {

Bytes nested(std::size_t levels, bool indefinite) {
    Bytes octets;
    if (indefinite) {
        for (std::size_t i = 0; i < levels; ++i) {
            norvauthority::der::append(octets, {0x30, 0x80});
        }
        octets.resize(octets.size() + 2 * levels);
        return octets;
    }
    for (std::size_t i = 0; i < levels; ++i) {
        octets = norvauthority::der::element(0x30, octets);
    }
    return octets;
}

} // namespace

TEST(FramingWalk, GoesThroughDefiniteAndIndefiniteLengths) {
    EXPECT_EQ(stepsOf("020105"), "c finished");
    EXPECT_EQ(stepsOf("3006020105040100"), "(ce) finished");
    EXPECT_EQ(stepsOf("30800201053180040100"
                      "0000"
                      "0000"),
              "(c(e)) finished");
    EXPECT_EQ(stepsOf("3000"), "() finished");
    EXPECT_EQ(stepsOf("3000"
                      "020105"),
              "() finished")
        << "what follows the first element is not looked at";
    EXPECT_EQ(stepsOf("3004"
                      "0000"
                      "0500"),
              "(af) finished")
        << "zeroes end nothing whose length is announced";
}

TEST(FramingWalk, GivesContentDepthAndSizes) {
    const Bytes octets = fromHex("300b"
                                 "0403616263"
                                 "3004"
                                 "02020102");
    Walk through(octets.data(), octets.size());
    EXPECT_EQ(through.next(), Walk::Step::opened);
    EXPECT_EQ(through.depth(), 0U);
    EXPECT_EQ(through.next(), Walk::Step::primitive);
    EXPECT_EQ(through.depth(), 1U);
    EXPECT_EQ(through.content(), octets.data() + 4);
    EXPECT_EQ(through.header().contentLength, 3U);
    EXPECT_EQ(through.elementSize(), 5U);
    EXPECT_EQ(through.next(), Walk::Step::opened);
    EXPECT_EQ(through.depth(), 1U);
    EXPECT_EQ(through.next(), Walk::Step::primitive);
    EXPECT_EQ(through.depth(), 2U);
    EXPECT_EQ(through.next(), Walk::Step::closed);
    EXPECT_EQ(through.depth(), 1U);
    EXPECT_EQ(through.elementSize(), 6U);
    EXPECT_EQ(through.next(), Walk::Step::closed);
    EXPECT_EQ(through.depth(), 0U);
    EXPECT_EQ(through.elementSize(), 13U);
    EXPECT_EQ(through.next(), Walk::Step::finished);
}

// As OpenSSL decodes SEQUENCE OF and SET OF, the implicitly tagged ones among them.
TEST(FramingWalk, ListsNeedNoConstructedBit) {
    EXPECT_EQ(stepsOf("1005"
                      "1103"
                      "020105"),
              "((c)) finished");
    EXPECT_EQ(stepsOf("3008"
                      "8003"
                      "020105"
                      "810107"),
              "(ab) finished");
    const Bytes octets = fromHex("300c"
                                 "8003"
                                 "020105"
                                 "8102"
                                 "05ff" // no list
                                 "410107");
    EXPECT_EQ(walk(octets, Walk::Opening::contextSpecific).steps, "((c)()b) finished");
}

TEST(FramingWalk, DamageInsideAnAnnouncedLengthIsPassedOver) {
    EXPECT_EQ(stepsOf("3009"
                      "3003"
                      "040500"
                      "020105"
                      "00"),
              "(()c) finished");
    EXPECT_EQ(stepsOf("3008"
                      "3003"
                      "3080ff"
                      "020105"),
              "((())c) finished");
}

TEST(FramingWalk, DamageThatNothingEnclosesEndsTheWalk) {
    EXPECT_EQ(stepsOf(""), " damaged");
    EXPECT_EQ(stepsOf("30"), " damaged");
    EXPECT_EQ(stepsOf("3005"
                      "0201"),
              " damaged");
    EXPECT_EQ(stepsOf("3080"
                      "020105"),
              "(c) damaged");
    EXPECT_EQ(stepsOf("3080"
                      "0480"
                      "0000"),
              "() damaged");
    EXPECT_EQ(stepsOf("3088ffffffffffffffff"), " damaged");
}

TEST(FramingWalk, GoesSoManyLevelsDownAndNoFurther) {
    for (const bool indefinite : {false, true}) {
        EXPECT_EQ(walk(nested(128, indefinite)).steps, std::string(128, '(') + std::string(128, ')') + " finished");
        EXPECT_EQ(walk(nested(129, indefinite)).steps, std::string(128, '(') + " deep");
        EXPECT_EQ(walk(nested(2000, indefinite)).count, 128U);
    }
    // What is primitive may stand in the deepest one, too, and has as many around it.
    Bytes around = nested(128, true);
    around.insert(around.begin() + 256, {0x05, 0x00});
    Walk through(around.data(), around.size());
    while (through.next() == Walk::Step::opened) {
        EXPECT_LT(through.depth(), Walk::deepest);
    }
    EXPECT_EQ(through.depth(), Walk::deepest);
    EXPECT_EQ(walk(around).steps, std::string(128, '(') + "f" + std::string(128, ')') + " finished");
}

TEST(FramingWalk, TakesAsManyStepsAsThereAreElements) {
    Bytes content;
    for (int i = 0; i < 100000; ++i) {
        norvauthority::der::append(content, fromHex("30800000"));
    }
    EXPECT_EQ(walk(norvauthority::der::element(0x30, content)).count, 200002U);
}
