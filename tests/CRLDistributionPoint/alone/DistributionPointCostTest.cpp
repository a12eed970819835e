// What comparing lists of names costs whoever compares them: the lists come from strangers.

#include "support/HostileDer.h"
#include "support/Interpose.h"
#include "support/Thrown.h"

#include <norvcrypto/CRLDistributionPoint.h>

#include <authority/Authority.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

std::size_t s_comparisons = 0;

} // namespace

extern "C" int GENERAL_NAME_cmp(GENERAL_NAME* left, GENERAL_NAME* right) {
    ++s_comparisons;
    return norvtest::next<&GENERAL_NAME_cmp>("GENERAL_NAME_cmp")(left, right);
}

namespace {

using namespace Norvane::Crypto::NVX509;
using norvauthority::Bytes;
using norvtest::lengthOf;
namespace der = norvauthority::der;
using Issued = norvauthority::GeneralName;
using IssuedName = norvauthority::DistributionPointName;
using IssuedPoint = norvauthority::DistributionPoint;

IssuedPoint full(std::vector<Issued> names) {
    return {.name = IssuedName{.full = std::move(names)}};
}

RefCRLDistributionPoints decoded(const std::vector<IssuedPoint>& points) {
    const Bytes bytes = norvauthority::distributionPoints(points);
    return {bytes.data(), lengthOf(bytes)};
}

std::vector<Issued> uris(const std::string& beginning, int count) {
    std::vector<Issued> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(Issued::uri(beginning + std::to_string(100000 + i)));
    }
    return names;
}

/// The comparisons of names that `act` made.
template <class Act> std::size_t comparisonsOf(Act act) {
    const std::size_t before = s_comparisons;
    act();
    return s_comparisons - before;
}

TEST(DistributionPointCost, TwoLongListsAreNotComparedEachWithEach) {
    constexpr int count = 4096;
    const auto left = decoded({full(uris("a", count))});
    const auto right = decoded({full(uris("b", count))});
    const auto& mine = left->distributionPoints().front()->distributionPointName();
    const auto& theirs = right->distributionPoints().front()->distributionPointName();
    // Sorting and looking up take about log2(n) = 12 comparisons a name each, and OpenSSL compares a name with itself.
    EXPECT_LT(comparisonsOf([&] { EXPECT_FALSE(mine == theirs); }), 60U * count);
}

TEST(DistributionPointCost, ManyPointsAreNotComparedWithEachNameOfAList) {
    constexpr int count = 2000;
    std::vector<IssuedPoint> points;
    for (const auto& name : uris("a", count)) {
        points.push_back(full({name}));
    }
    const auto certificate = decoded(points);
    const auto list = decoded({full(uris("b", count))});
    const auto& scope = list->distributionPoints().front()->distributionPointName();
    EXPECT_LT(comparisonsOf([&] {
                  for (const auto& point : certificate->distributionPoints()) {
                      EXPECT_FALSE(point->distributionPointName() == scope);
                      EXPECT_FALSE(scope == point->distributionPointName());
                  }
              }),
              90U * count);
}

TEST(DistributionPointCost, AWarmedNameIsOnlyRead) {
    const auto left = decoded({full(uris("a", 64))});
    const auto& mine = left->distributionPoints().front()->distributionPointName();
    const auto right = decoded({full({Issued::uri("b")})});
    const auto& theirs = right->distributionPoints().front()->distributionPointName();
    EXPECT_GT(comparisonsOf([&] { mine.warm(); }), 64U);
    EXPECT_LT(comparisonsOf([&] { EXPECT_FALSE(mine == theirs); }), 20U) << "the order was made before";
}

Issued edi(const std::string& assigner, const std::string& party) {
    const auto text = [](unsigned char tag, const std::string& value) {
        return der::element(tag, der::element(0x0C, Bytes(value.begin(), value.end())));
    };
    std::vector<Bytes> parts;
    if (!assigner.empty()) {
        parts.push_back(text(der::contextConstructed(0), assigner));
    }
    parts.push_back(text(der::contextConstructed(1), party));
    return Issued::raw(der::element(der::contextConstructed(5), der::concat(parts)));
}

/// Names of every kind, alike in pairs: the same octets under other tags, other values of one type, other letter case.
std::vector<Issued> everyKind() {
    const Bytes octets{'a', 'b'};
    return {Issued::uri("ab"),
            Issued::uri("abc"),
            Issued::email("ab"),
            Issued::dns("ab"),
            Issued::ip("10.0.0.1"),
            Issued::ip("10.0.0.2"),
            Issued::registeredId("1.2.3"),
            Issued::registeredId("1.2.4"),
            Issued::directory({{"CN", "Lists"}}),
            Issued::directory({{"CN", "LISTS"}}),
            Issued::directory({{"CN", "Others"}}),
            Issued::directory({}),
            Issued::otherName("1.2.3", der::element(0x0C, octets)),
            Issued::otherName("1.2.3", der::element(0x04, octets)),
            Issued::otherName("1.2.3", der::element(0x16, octets)),
            Issued::otherName("1.2.3", der::element(0x05, {})),
            Issued::otherName("1.2.3", der::element(0x01, {0xFF})),
            Issued::otherName("1.2.3", der::element(0x01, {0x00})),
            Issued::otherName("1.2.3", der::oid("1.2.3")),
            Issued::otherName("1.2.4", der::element(0x0C, octets)),
            edi("", "ab"),
            edi("a", "ab"),
            edi("b", "ab"),
            Issued::raw(der::element(der::contextConstructed(3), der::element(0x02, {0x01}))),
            Issued::raw(der::element(der::contextConstructed(3), der::element(0x02, {0x02})))};
}

TEST(DistributionPointCost, TheAnswersAreThoseOfComparingEachWithEach) {
    const auto kinds = everyKind();
    std::mt19937 random(20251); // the same lists each time
    const auto someOf = [&](std::size_t count) {
        std::vector<Issued> names;
        for (std::size_t i = 0; i < count; ++i) {
            names.push_back(kinds.at(random() % kinds.size()));
        }
        return names;
    };
    int equal = 0;
    constexpr int rounds = 3000;
    for (int round = 0; round < rounds; ++round) {
        const auto left = decoded({full(someOf(random() % 8))});
        const auto right = decoded({full(someOf(random() % 8))});
        const auto& mine = left->distributionPoints().front()->distributionPointName();
        const auto& theirs = right->distributionPoints().front()->distributionPointName();
        const auto& others = theirs.fullName();
        const bool expected = std::any_of(mine.fullName().begin(), mine.fullName().end(), [&](const GeneralName& name) {
            return std::find(others.begin(), others.end(), name) != others.end();
        });
        ASSERT_EQ(expected, mine == theirs) << round;
        ASSERT_EQ(expected, theirs == mine) << round;
        equal += expected ? 1 : 0;
    }
    EXPECT_GT(equal, rounds / 4);
    EXPECT_LT(equal, rounds * 3 / 4);
}

TEST(DistributionPointCost, EveryKindOfNameEqualsItself) {
    for (const auto& kind : everyKind()) {
        const auto left = decoded({full({Issued::uri("other"), kind})});
        const auto right = decoded({full({kind})});
        ASSERT_FALSE(left.isNull());
        EXPECT_TRUE(left->distributionPoints().front()->distributionPointName() ==
                    right->distributionPoints().front()->distributionPointName())
            << norvauthority::toHex(kind.der);
    }
}

} // namespace
