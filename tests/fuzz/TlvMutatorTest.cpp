#include "TlvMutator.h"

#include <authority/Authority.h>

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/err.h>

#include <algorithm>
#include <set>
#include <string>

using fuzz::Bytes;
using fuzz::Node;
using fuzz::TlvMutator;
using norvauthority::GeneralName;
namespace der = norvauthority::der;

namespace {

std::size_t s_asked = 0;

/// Turns the first bit over, and adds an octet where there is room.
std::size_t turnABit(std::uint8_t* octets, std::size_t count, std::size_t most) {
    ++s_asked;
    if (count != 0) {
        octets[0] ^= 0x80U;
    }
    if (count < most) {
        octets[count++] = 0x5A;
    }
    return count;
}

Bytes certificate() {
    static const Bytes made =
        norvauthority::issue({.subject = {{"C", "US"}, {"CN", "Alice"}},
                              .key = norvauthority::Key::ec(),
                              .alternativeNames = {GeneralName::email("a@b"), GeneralName::dns("b")}})
            .certificate.der;
    return made;
}

/// Lengths of both kinds, segments, and what is no element behind a tag that says so.
Bytes indefinite() {
    return {0x30, 0x80, 0x24, 0x80, 0x04, 0x02, 'a',  'b',  0x04, 0x01, 'c',  0x00, 0x00, 0x30,
            0x82, 0x00, 0x03, 0x02, 0x01, 0x05, 0xA0, 0x02, 0xFF, 0xFF, 0x00, 0x00, 0x05, 0x00};
}

bool holds(const Bytes& octets, const Bytes& part) {
    return std::search(octets.begin(), octets.end(), part.begin(), part.end()) != octets.end();
}

std::set<Bytes> partsOf(const Bytes& octets) {
    std::set<Bytes> all;
    auto parts = fuzz::parseAll(octets);
    for (Node& part : *parts) {
        fuzz::forEach(part, [&all](Node& node) { all.insert(fuzz::encode(node)); });
    }
    return all;
}

/// What OpenSSL reads of an octet string; "no string" for what is none.
std::string stringIn(const Bytes& octets) {
    const unsigned char* at = octets.data();
    ASN1_OCTET_STRING* string = d2i_ASN1_OCTET_STRING(nullptr, &at, static_cast<long>(octets.size()));
    ERR_clear_error();
    const std::string text = string == nullptr
                                 ? "no string"
                                 : std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
                                               static_cast<std::size_t>(ASN1_STRING_length(string)));
    ASN1_OCTET_STRING_free(string);
    return text;
}

constexpr std::size_t plenty = 100000;

TEST(TlvMutator, WhatComesOutIsMadeOfElements) {
    for (const Bytes& seed : {certificate(), indefinite(), der::sequence({}), Bytes{0x04, 0x00}}) {
        ASSERT_TRUE(fuzz::parseAll(seed));
        std::size_t changed = 0;
        for (unsigned int number = 0; number < 200; ++number) {
            TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
            const Bytes octets = mutator.change(seed, plenty);
            ASSERT_TRUE(fuzz::parseAll(octets)) << norvauthority::toHex(octets);
            changed += octets != seed ? 1 : 0;
        }
        EXPECT_GT(changed, 150U);
    }
}

TEST(TlvMutator, ChangesThatFollowEachOtherAreMadeOfElements) {
    Bytes octets = indefinite();
    for (unsigned int number = 0; number < 300; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        octets = mutator.change(octets, 500);
        ASSERT_LE(octets.size(), 500U);
        ASSERT_TRUE(fuzz::parseAll(octets)) << number;
    }
}

TEST(TlvMutator, StaysWithinItsBound) {
    const Bytes seed = certificate();
    for (const std::size_t most : {seed.size() + 10, seed.size(), seed.size() - 1, std::size_t{20}, std::size_t{1}}) {
        for (unsigned int number = 0; number < 100; ++number) {
            TlvMutator mutator(turnABit, number);
            EXPECT_LE(mutator.change(seed, most).size(), most);
            EXPECT_LE(mutator.cross(seed, indefinite(), most).size(), most);
        }
    }
}

TEST(TlvMutator, LengthsBecomeIndefiniteAndDefinite) {
    std::size_t became = 0;
    std::size_t gone = 0;
    const Bytes definite = der::sequence({der::sequence({der::integer("1"), der::integer("2")})});
    const Bytes open{0x30, 0x80, 0x02, 0x01, 0x01, 0x02, 0x01, 0x02, 0x00, 0x00};
    for (unsigned int number = 0; number < 20000 && (became == 0 || gone == 0); ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        const auto changed = fuzz::parse(mutator.change(definite, plenty));
        became += changed && changed->indefinite ? 1 : 0;
        gone += mutator.change(open, plenty) == der::sequence({der::integer("1"), der::integer("2")}) ? 1 : 0;
    }
    EXPECT_GT(became, 0U);
    EXPECT_GT(gone, 0U);
}

TEST(TlvMutator, StringsAreWrittenInSegments) {
    const std::string text = "abcdefghijklmnop";
    std::size_t inSegments = 0;
    for (unsigned int number = 0; number < 2000; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        const Bytes octets = mutator.change(der::octetString(norvauthority::bytes(text)), plenty);
        inSegments += octets.front() == 0x24 && stringIn(octets) == text ? 1 : 0;
    }
    EXPECT_GT(inSegments, 0U);
}

TEST(TlvMutator, WhatStringsHoldIsChangedByItsElements) {
    const Bytes inner = der::sequence({der::integer("1"), der::integer("2")});
    std::size_t octetStrings = 0;
    std::size_t bitStrings = 0;
    for (unsigned int number = 0; number < 1000; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        const Bytes swapped = der::sequence({der::integer("2"), der::integer("1")});
        octetStrings += mutator.change(der::octetString(inner), plenty) == der::octetString(swapped) ? 1 : 0;
        bitStrings += mutator.change(der::bitString(inner), plenty) == der::bitString(swapped) ? 1 : 0;
    }
    EXPECT_GT(octetStrings, 0U);
    EXPECT_GT(bitStrings, 0U);
}

TEST(TlvMutator, ElementsThatReadersKnowArePutIn) {
    const Bytes known = der::oid("emailProtection");
    std::size_t found = 0;
    for (unsigned int number = 0; number < 20000 && found == 0; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        found += holds(mutator.change(der::sequence({der::null()}), plenty), known) ? 1 : 0;
    }
    EXPECT_GT(found, 0U);
}

TEST(TlvMutator, ElementsAreRepeatedManyTimes) {
    std::size_t most = 0;
    for (unsigned int number = 0; number < 500; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        const auto changed = fuzz::parse(mutator.change(der::sequence({der::sequence({der::null()})}), plenty));
        most = std::max(most, changed ? changed->parts.size() : 0);
    }
    EXPECT_GE(most, 256U);
}

TEST(TlvMutator, CrossedOnesHoldElementsOfBoth) {
    const Bytes first = certificate();
    const Bytes second = der::sequence({der::octetString({9, 9, 9}), der::oid("1.2.3.4.5.6.7.8")});
    const std::set<Bytes> ofSecond = partsOf(second);
    for (unsigned int number = 0; number < 200; ++number) {
        TlvMutator mutator(turnABit, number, TlvMutator::Lengths::repaired);
        const Bytes octets = mutator.cross(first, second, plenty);
        ASSERT_TRUE(fuzz::parseAll(octets));
        EXPECT_TRUE(
            std::any_of(ofSecond.begin(), ofSecond.end(), [&](const Bytes& one) { return holds(octets, one); }));
    }
}

TEST(TlvMutator, LengthsAreWrongNowAndThen) {
    std::size_t wrong = 0;
    for (unsigned int number = 0; number < 1000; ++number) {
        TlvMutator mutator(turnABit, number);
        wrong += fuzz::parseAll(mutator.change(certificate(), plenty)) ? 0 : 1;
    }
    EXPECT_GT(wrong, 20U);
    EXPECT_LT(wrong, 300U);
}

TEST(TlvMutator, WhatIsMadeOfNoElementsIsChangedAsOctets) {
    s_asked = 0;
    TlvMutator mutator(turnABit, 1, TlvMutator::Lengths::repaired);
    EXPECT_EQ(mutator.change(norvauthority::bytes("-----"), 5), norvauthority::bytes("\xAD----"));
    EXPECT_EQ(mutator.change({}, 5), Bytes{0x5A});
    EXPECT_EQ(mutator.cross(norvauthority::bytes("-----"), certificate(), 5), norvauthority::bytes("\xAD----"));
    EXPECT_EQ(s_asked, 3U);
}

TEST(TlvMutator, TheSameNumberMakesTheSameChanges) {
    for (unsigned int number = 0; number < 50; ++number) {
        TlvMutator one(turnABit, number);
        TlvMutator another(turnABit, number);
        EXPECT_EQ(one.change(certificate(), plenty), another.change(certificate(), plenty));
    }
}

} // namespace
