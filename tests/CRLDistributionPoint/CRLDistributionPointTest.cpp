#include "support/HostileDer.h"
#include "support/Thrown.h"

#include <norvcrypto/CRLDistributionPoint.h>

#include <authority/Authority.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

using namespace Norvane::Crypto::NVX509;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::Name;
using norvauthority::toHex;
using norvtest::errorQueueIsEmpty;
using norvtest::lengthOf;
using Issued = norvauthority::GeneralName;
using IssuedName = norvauthority::DistributionPointName;
using IssuedPoint = norvauthority::DistributionPoint;

namespace {

RefCRLDistributionPoints decoded(const std::vector<IssuedPoint>& points) {
    const Bytes bytes = norvauthority::distributionPoints(points);
    return {bytes.data(), lengthOf(bytes)};
}

struct FreePoint {
    void operator()(DIST_POINT* point) const { DIST_POINT_free(point); }
    void operator()(ISSUING_DIST_POINT* point) const { ISSUING_DIST_POINT_free(point); }
};

/// DER of one point, outside of a list.
Bytes pointDer(const IssuedPoint& point) {
    const Bytes list = norvauthority::distributionPoints({point});
    const std::size_t header = list.at(1) < 0x80 ? 2 : 2 + (list.at(1) & 0x7FU);
    return {list.begin() + static_cast<std::ptrdiff_t>(header), list.end()};
}

RefCRLDistributionPoint onePoint(const IssuedPoint& point) {
    const Bytes bytes = pointDer(point);
    return {bytes.data(), lengthOf(bytes)};
}

IssuedPoint full(std::vector<Issued> names) {
    return {.name = IssuedName{.full = std::move(names)}};
}

IssuedPoint relative(const Name& name) {
    return {.name = IssuedName{.relative = name}};
}

/// Whether the names of two points are equal, asked both ways.
bool equalNames(const IssuedPoint& left, const IssuedPoint& right) {
    const RefCRLDistributionPoint a = onePoint(left);
    const RefCRLDistributionPoint b = onePoint(right);
    const bool equal = a->distributionPointName() == b->distributionPointName();
    EXPECT_EQ(equal, b->distributionPointName() == a->distributionPointName());
    EXPECT_EQ(!equal, a->distributionPointName() != b->distributionPointName());
    return equal;
}

const Issued uriA = Issued::uri("http://a.example/list.crl");
const Issued uriB = Issued::uri("http://b.example/list.crl");
const Issued uriC = Issued::uri("http://c.example/list.crl");

// -------------------------------------------------------------------------------------------------------- names

TEST(CRLDistributionPointNames, NullName) {
    const CRLDistributionPointName null;
    const CRLDistributionPointName otherNull(nullptr);
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.type(), -1);
    EXPECT_TRUE(null.fullName().empty());
    EXPECT_EQ(null.relativeName(), "");
    EXPECT_FALSE(null == otherNull);
    EXPECT_TRUE(null != otherNull);
    EXPECT_FALSE(null == null); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(null == DistinguishedName());
    EXPECT_FALSE(null == DistinguishedName(std::string("CN=a")));
    EXPECT_TRUE(null != DistinguishedName());
}

TEST(CRLDistributionPointNames, FullName) {
    const RefCRLDistributionPoint point = onePoint(full({uriA, Issued::directory({{"CN", "Lists"}}), uriB}));
    const CRLDistributionPointName& name = point->distributionPointName();
    EXPECT_EQ(name.type(), 0);
    ASSERT_EQ(name.fullName().size(), 3U);
    EXPECT_EQ(name.fullName().front().uri().text(), "http://a.example/list.crl");
    EXPECT_EQ(name.fullName().back().uri().text(), "http://b.example/list.crl");
    EXPECT_EQ(name.fullName().size(), 3U);
    EXPECT_EQ(name.relativeName(), "");
}

TEST(CRLDistributionPointNames, RelativeName) {
    const RefCRLDistributionPoint point = onePoint(relative({{"CN", "List 1"}}));
    const CRLDistributionPointName& name = point->distributionPointName();
    EXPECT_EQ(name.type(), 1);
    EXPECT_EQ(name.relativeName(), "CN=List 1");
    EXPECT_EQ(name.relativeName(), "CN=List 1");
    EXPECT_TRUE(name.fullName().empty());
}

TEST(CRLDistributionPointNames, RelativeNameOfSeveralAttributes) {
    const RefCRLDistributionPoint point =
        onePoint(relative({{"CN", "List"}, {.type = "OU", .value = "Unit", .joinsPreceding = true}}));
    EXPECT_EQ(point->distributionPointName().relativeName(), "OU=Unit,CN=List");
}

TEST(CRLDistributionPointNames, FullNamesThatShareOneAreEqual) {
    EXPECT_TRUE(equalNames(full({uriA, uriB}), full({uriC, uriB})));
    EXPECT_TRUE(equalNames(full({uriA}), full({uriC, uriB, uriA})));
    EXPECT_TRUE(equalNames(full({Issued::directory({{"CN", "Lists"}})}), full({Issued::directory({{"CN", "LISTS"}})})));
    EXPECT_FALSE(equalNames(full({uriA}), full({uriB, uriC})));
    EXPECT_FALSE(equalNames(full({uriA}), full({Issued::dns("a.example")})));
}

TEST(CRLDistributionPointNames, EmptyFullNameEqualsNothing) {
    // A sequence with [0] { [0] {} }: a full name without names.
    const Bytes bytes = fromHex("3004a002a000");
    const RefCRLDistributionPoint empty(bytes.data(), lengthOf(bytes));
    const RefCRLDistributionPoint other = onePoint(full({uriA}));
    EXPECT_EQ(empty->distributionPointName().type(), 0);
    EXPECT_TRUE(empty->distributionPointName().fullName().empty());
    EXPECT_FALSE(empty->distributionPointName() == other->distributionPointName());
    EXPECT_FALSE(other->distributionPointName() == empty->distributionPointName());
}

TEST(CRLDistributionPointNames, OneStructureEqualsItself) {
    const Bytes bytes = fromHex("3004a002a000");
    const RefCRLDistributionPoint point(bytes.data(), lengthOf(bytes));
    const CRLDistributionPointName copy = point->distributionPointName();
    EXPECT_TRUE(copy == point->distributionPointName());
}

TEST(CRLDistributionPointNames, RelativeNamesCompareWithoutCase) {
    EXPECT_TRUE(equalNames(relative({{"CN", "List One"}}), relative({{"CN", "lIST oNE"}})));
    EXPECT_TRUE(equalNames(relative({{"CN", "List"}}), relative({{"CN", "List"}})));
    EXPECT_FALSE(equalNames(relative({{"CN", "List"}}), relative({{"CN", "List 2"}})));
    EXPECT_FALSE(equalNames(relative({{"CN", "List"}}), relative({{"OU", "List"}})));
}

TEST(CRLDistributionPointNames, FullAndRelativeAreUnequal) {
    EXPECT_FALSE(equalNames(full({Issued::directory({{"CN", "List"}})}), relative({{"CN", "List"}})));
}

TEST(CRLDistributionPointNames, EqualsADistinguishedName) {
    const DistinguishedName lists(std::string("CN=Lists,O=Org"));
    const RefCRLDistributionPoint with =
        onePoint(full({uriA, Issued::directory({{"O", "Org"}, {"CN", "lists"}}), uriB}));
    const RefCRLDistributionPoint other = onePoint(full({Issued::directory({{"O", "Org"}, {"CN", "other"}})}));
    const RefCRLDistributionPoint uris = onePoint(full({uriA, uriB}));
    const RefCRLDistributionPoint step = onePoint(relative({{"CN", "Lists"}}));
    EXPECT_TRUE(with->distributionPointName() == lists);
    EXPECT_FALSE(with->distributionPointName() != lists);
    EXPECT_FALSE(other->distributionPointName() == lists);
    EXPECT_FALSE(uris->distributionPointName() == lists);
    EXPECT_FALSE(step->distributionPointName() == DistinguishedName(std::string("CN=Lists")));
    EXPECT_FALSE(with->distributionPointName() == DistinguishedName());
    EXPECT_TRUE(with->distributionPointName() != DistinguishedName());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(CRLDistributionPointNames, CopiesBorrow) {
    const RefCRLDistributionPoint point = onePoint(full({uriA}));
    CRLDistributionPointName copy;
    copy = point->distributionPointName();
    EXPECT_FALSE(copy.isNull());
    EXPECT_EQ(copy.fullName().front().object(), point->distributionPointName().fullName().front().object());
}

// ------------------------------------------------------------------------------------------------------- points

TEST(CRLDistributionPointPoints, WithoutReasonsAllOfThem) {
    EXPECT_EQ(onePoint(full({uriA}))->reasons(), 0x807FU);
}

TEST(CRLDistributionPointPoints, Reasons) {
    EXPECT_EQ(onePoint({.reasons = Bytes{0x60}})->reasons(), 0x60U);
    EXPECT_EQ(onePoint({.reasons = Bytes{0x00, 0x80}})->reasons(), 0x8000U);
    EXPECT_EQ(onePoint({.reasons = Bytes{0x40, 0x80}})->reasons(), 0x8040U);
    EXPECT_EQ(onePoint({.reasons = Bytes{0x40, 0x80, 0xFF}})->reasons(), 0x8040U);
}

TEST(CRLDistributionPointPoints, ReasonsAreNotMaskedDeliberately) {
    EXPECT_EQ(onePoint({.reasons = Bytes{0xFF, 0xFF}})->reasons(), 0xFFFFU);
}

TEST(CRLDistributionPointPoints, EmptyReasonsAreLookedAtOnEveryCall) {
    const Bytes bytes = pointDer({.reasons = Bytes{}});
    const unsigned char* at = bytes.data();
    const std::unique_ptr<DIST_POINT, FreePoint> object(d2i_DIST_POINT(nullptr, &at, static_cast<long>(bytes.size())));
    ASSERT_NE(object, nullptr);
    const RefCRLDistributionPoint point(object.get());
    EXPECT_EQ(point->reasons(), 0U);
    EXPECT_EQ(point->reasons(), 0U);
    ASN1_STRING_set(object->reasons, "\x60", 1);
    EXPECT_EQ(point->reasons(), 0x60U);
    ASN1_STRING_set(object->reasons, "\x40", 1);
    EXPECT_EQ(point->reasons(), 0x60U); // kept once it is not 0
}

TEST(CRLDistributionPointPoints, Issuers) {
    const RefCRLDistributionPoint point =
        onePoint({.issuers = {Issued::directory({{"CN", "Other CA"}}), Issued::dns("ca.example")}});
    ASSERT_EQ(point->issuers().size(), 2U);
    EXPECT_EQ(point->issuers().front().dn().asString(), "CN=Other CA");
    EXPECT_EQ(point->issuers().back().type(), 2);
    EXPECT_EQ(point->issuers().size(), 2U);
    EXPECT_TRUE(onePoint(full({uriA}))->issuers().empty());
}

TEST(CRLDistributionPointPoints, WithoutName) {
    const RefCRLDistributionPoint point = onePoint({.reasons = Bytes{0x60}});
    EXPECT_TRUE(point->distributionPointName().isNull());
    EXPECT_EQ(point->distributionPointName().type(), -1);
}

TEST(CRLDistributionPointPoints, NullStructure) {
    for (const RefCRLDistributionPoint& point :
         {RefCRLDistributionPoint(nullptr), RefCRLDistributionPoint(nullptr, 0), RefCRLDistributionPoint(nullptr, 9)}) {
        ASSERT_FALSE(point.isNull());
        EXPECT_EQ(point->reasons(), 0U);
        EXPECT_TRUE(point->issuers().empty());
        EXPECT_TRUE(point->distributionPointName().isNull());
    }
    EXPECT_TRUE(RefCRLDistributionPoint().isNull());
}

TEST(CRLDistributionPointPoints, NameIsKept) {
    const RefCRLDistributionPoint point = onePoint(full({uriA}));
    EXPECT_EQ(&point->distributionPointName(), &point->distributionPointName());
    EXPECT_EQ(&point->distributionPointName().fullName().front(), &point->distributionPointName().fullName().front());
}

// -------------------------------------------------------------------------------------------------- the extension

TEST(CRLDistributionPointExtension, PointsInOrder) {
    const RefCRLDistributionPoints points = decoded({full({uriA}), {.reasons = Bytes{0x60}}, relative({{"CN", "x"}})});
    EXPECT_EQ(points->identifier()->asString(), "2.5.29.31");
    ASSERT_EQ(points->distributionPoints().size(), 3U);
    auto point = points->distributionPoints().begin();
    EXPECT_EQ((*point)->distributionPointName().fullName().front().uri().text(), "http://a.example/list.crl");
    EXPECT_EQ((*point)->reasons(), 0x807FU);
    ++point;
    EXPECT_EQ((*point)->reasons(), 0x60U);
    ++point;
    EXPECT_EQ((*point)->distributionPointName().relativeName(), "CN=x");
    EXPECT_EQ(points->distributionPoints().size(), 3U);
}

TEST(CRLDistributionPointExtension, ZeroLengthInput) {
    const RefCRLDistributionPoints points(nullptr, 0);
    ASSERT_FALSE(points.isNull());
    EXPECT_TRUE(points->distributionPoints().empty());
    EXPECT_EQ(points->identifier()->asString(), "2.5.29.31");
    EXPECT_FALSE(points->critical());
    EXPECT_TRUE(points->derEncodedValue().isNull());
}

TEST(CRLDistributionPointExtension, HandleIsTypedAndShared) {
    RefExtension generic;
    {
        const RefCRLDistributionPoints points = decoded({full({uriA})});
        const RefCRLDistributionPoints shared = points; // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(&*shared, &*points);
        generic = points;
    }
    EXPECT_EQ(generic->identifier()->asString(), "2.5.29.31");
    const auto* points = dynamic_cast<CRLDistributionPoints*>(&*generic);
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(points->distributionPoints().size(), 1U);
    EXPECT_TRUE(RefCRLDistributionPoints().isNull());
}

TEST(CRLDistributionPointExtension, CopiesShareTheBody) {
    const RefCRLDistributionPoints points = decoded({full({uriA})});
    RefCRLDistributionPoints assignedPoints;
    assignedPoints = points;
    EXPECT_EQ(points->referenceCount(), 2);
    const RefCRLDistributionPoint point = onePoint(full({uriA}));
    RefCRLDistributionPoint assignedPoint;
    assignedPoint = point;
    EXPECT_EQ(&*assignedPoint, &*point);
    EXPECT_EQ(point->referenceCount(), 2);
}

TEST(CRLDistributionPointExtension, NullHandleThrows) {
    const RefCRLDistributionPoints null;
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(null->distributionPoints()); });
    norvtest::expectFailure(thrown, "operator->", 1, "include2/NorvRefcounted");
}

static_assert(!std::is_constructible_v<RefCRLDistributionPoints, const RefExtension&>);
static_assert(!std::is_assignable_v<RefCRLDistributionPoints&, const RefExtension&>);
static_assert(!std::is_copy_constructible_v<CRLDistributionPoint>);

// ---------------------------------------------------------------------------------------------- scope of a list

std::unique_ptr<ISSUING_DIST_POINT, FreePoint> scope(const norvauthority::IssuingDistributionPoint& issued) {
    const Bytes bytes = issued.der();
    const unsigned char* at = bytes.data();
    return std::unique_ptr<ISSUING_DIST_POINT, FreePoint>(
        d2i_ISSUING_DIST_POINT(nullptr, &at, static_cast<long>(bytes.size())));
}

TEST(IssuingDistributionPointTest, Flags) {
    const auto user = scope({.onlyUser = true});
    const auto authority = scope({.onlyCa = true});
    const auto indirect = scope({.indirect = true});
    const auto attribute = scope({.onlyAttribute = true});
    const IssuingDistributionPoint points[] = {
        IssuingDistributionPoint(user.get()), IssuingDistributionPoint(authority.get()),
        IssuingDistributionPoint(indirect.get()), IssuingDistributionPoint(attribute.get())};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(points[i].onlyUser(), i == 0);
        EXPECT_EQ(points[i].onlyCA(), i == 1);
        EXPECT_EQ(points[i].indirectCRL(), i == 2);
        EXPECT_EQ(points[i].onlyAttr(), i == 3);
    }
}

TEST(IssuingDistributionPointTest, NullStructure) {
    const IssuingDistributionPoint null;
    EXPECT_FALSE(null.onlyUser());
    EXPECT_FALSE(null.onlyCA());
    EXPECT_FALSE(null.indirectCRL());
    EXPECT_FALSE(null.onlyAttr());
    EXPECT_EQ(null.reasons(), 0U);
    EXPECT_TRUE(null.distributionPointName().isNull());
}

TEST(IssuingDistributionPointTest, ReasonsAreWhatWasSet) {
    const auto object = scope({.reasons = Bytes{0x60}});
    IssuingDistributionPoint point(object.get());
    EXPECT_EQ(point.reasons(), 0U);
    point.reasons(0x807F);
    EXPECT_EQ(point.reasons(), 0x807FU);
    const IssuingDistributionPoint copy = point; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.reasons(), 0x807FU);
}

TEST(IssuingDistributionPointTest, Name) {
    const auto object = scope({.name = IssuedName{.full = {uriA}}});
    const IssuingDistributionPoint point(object.get());
    EXPECT_EQ(point.distributionPointName().type(), 0);
    EXPECT_EQ(point.distributionPointName().fullName().front().uri().text(), "http://a.example/list.crl");
    // How a list is matched to the point that a certificate names.
    EXPECT_TRUE(onePoint(full({uriB, uriA}))->distributionPointName() == point.distributionPointName());
    EXPECT_TRUE(IssuingDistributionPoint(scope({.onlyCa = true}).get()).distributionPointName().isNull());
}

// -------------------------------------------------------------------------------------------------- damaged DER

TEST(CRLDistributionPointDamaged, Point) {
    const Bytes good = pointDer({.name = IssuedName{.full = {uriA}},
                                 .reasons = Bytes{0x60},
                                 .issuers = {Issued::directory({{"CN", "Other CA"}})}});
    EXPECT_EQ(RefCRLDistributionPoint(good.data(), lengthOf(good))->reasons(), 0x60U);
    for (const auto& damaged : {norvtest::properPrefixes(good), norvtest::oversized(good)}) {
        for (const Bytes& bad : damaged) {
            const RefCRLDistributionPoint point(bad.data(), lengthOf(bad));
            ASSERT_FALSE(point.isNull());
            EXPECT_EQ(point->reasons(), 0U) << toHex(bad);
            EXPECT_TRUE(point->issuers().empty());
            EXPECT_TRUE(point->distributionPointName().isNull());
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(CRLDistributionPointDamaged, Extension) {
    const Bytes good = norvauthority::distributionPoints({full({uriA}), relative({{"CN", "x"}})});
    for (const auto& damaged : {norvtest::properPrefixes(good), norvtest::oversized(good)}) {
        for (const Bytes& bad : damaged) {
            const RefCRLDistributionPoints points(bad.data(), lengthOf(bad));
            ASSERT_FALSE(points.isNull());
            EXPECT_TRUE(points->distributionPoints().empty()) << toHex(bad);
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(CRLDistributionPointDamaged, FlippedBitsGiveSaneAnswers) {
    const Bytes good =
        norvauthority::distributionPoints({full({uriA, Issued::directory({{"CN", "Lists"}})}),
                                           relative({{"CN", "x"}}),
                                           {.reasons = Bytes{0x60}, .issuers = {Issued::dns("ca.example")}}});
    for (const Bytes& flipped : norvtest::bitFlips(good)) {
        const RefCRLDistributionPoints points(flipped.data(), lengthOf(flipped));
        EXPECT_LE(points->distributionPoints().size(), 3U) << toHex(flipped);
        for (const RefCRLDistributionPoint& point : points->distributionPoints()) {
            const CRLDistributionPointName& name = point->distributionPointName();
            EXPECT_LE(point->reasons(), 0xFFFFU);
            EXPECT_EQ(name.isNull(), name.type() == -1);
            EXPECT_TRUE(name.relativeName().empty() || name.type() == 1);
            EXPECT_TRUE(name.fullName().empty() || name.type() == 0);
            EXPECT_EQ(name == name, !name.isNull()); // NOLINT(misc-redundant-expression)
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

} // namespace
