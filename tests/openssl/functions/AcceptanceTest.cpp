// What is refused before it is decoded, looked at element by element: shapes that are nearly a key or a distribution point, the bounds
// themselves, and segments that are known already.
#include "openssl/Acceptance.h"

#include <authority/Authority.h>
#include <authority/Der.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace {

using namespace Norvane::Crypto::openssl;
using Norvane::Crypto::framing::SegmentRun;
using norvauthority::Bytes;
using norvauthority::fromHex;
namespace der = norvauthority::der;

const Bytes& ecPublicKey() {
    static const Bytes identifier = der::oid("1.2.840.10045.2.1");
    return identifier;
}

/// An AlgorithmIdentifier whose curve is spelled out (RFC 5480, 2.1.1 forbids it).
Bytes explicitCurve() {
    return der::sequence({ecPublicKey(), der::sequence({der::integer("1")})});
}

/// SubjectPublicKeyInfo (RFC 5280, 4.1.2.7).
Bytes publicKey() {
    return der::sequence({der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()}), der::bitString({1})});
}

Bytes repeated(std::size_t count, const Bytes& part) {
    return der::concat(std::vector<Bytes>(count, part));
}

/// [0] of parts.
Bytes around(const std::vector<Bytes>& parts) {
    return der::element(der::contextConstructed(0), der::concat(parts));
}

/// The smallest DistributionPoint whose name is relative to its issuer (RFC 5280, 4.2.1.13): six octets.
Bytes smallestPoint() {
    return fromHex("3004A002A100");
}

/// An Extension with distribution points.
Bytes pointsExtension(const Bytes& points) {
    return der::sequence({der::oid("2.5.29.31"), der::octetString(der::sequence({points}))});
}

Refusal refusal(const Bytes& octets, const SegmentRun& known = {}) {
    const Refusal found = refusalOf(octets.data(), octets.size(), known);
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return found;
}

TEST(AcceptanceFunctions, OnlyASequenceWithTheIdentifierInFrontIsAnAlgorithm) {
    EXPECT_EQ(refusal(explicitCurve()), Refusal::explicitCurve);
    EXPECT_EQ(refusal(der::sequence({explicitCurve()})), Refusal::explicitCurve);
    const Bytes parameters = der::sequence({der::integer("1")});
    EXPECT_EQ(refusal(der::set({ecPublicKey(), parameters})), Refusal::none);
    EXPECT_EQ(refusal(der::element(der::contextConstructed(16), der::concat({ecPublicKey(), parameters}))),
              Refusal::none);
    EXPECT_EQ(refusal(der::sequence({der::integer("1"), ecPublicKey(), parameters})), Refusal::none);
    EXPECT_EQ(refusal(der::sequence({ecPublicKey(), der::null(), parameters})), Refusal::none);
    EXPECT_EQ(refusal(der::sequence({ecPublicKey(), der::element(der::contextConstructed(16), {})})), Refusal::none);
    const Bytes content(ecPublicKey().begin() + 2, ecPublicKey().end());
    EXPECT_EQ(refusal(der::sequence({der::element(der::context(6), content), parameters})), Refusal::none);
    // Of as many octets, and others.
    EXPECT_EQ(refusal(der::sequence({der::oid("1.2.840.10040.4.1"), parameters})), Refusal::none) << "DSA";
    EXPECT_EQ(refusal(der::sequence({der::oid("1.2.840.10045.2"), parameters})), Refusal::none);
    EXPECT_EQ(refusal(der::sequence({der::oid("1.2.840.10045.2.1.1"), parameters})), Refusal::none);
}

TEST(AcceptanceFunctions, PublicKeysAreCountedByTheirShape) {
    EXPECT_EQ(refusal(der::sequence({repeated(2500, publicKey())})), Refusal::none);
    EXPECT_EQ(refusal(der::sequence({repeated(2501, publicKey())})), Refusal::tooManyPublicKeys);
    EXPECT_EQ(refusal(der::set({repeated(2501, publicKey())})), Refusal::tooManyPublicKeys);
    const Bytes bits = der::bitString({1});
    const Bytes algorithm = der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()});
    for (const Bytes& other :
         {der::sequence({der::integer("1"), bits}), der::sequence({der::sequence({der::integer("1")}), bits}),
          der::sequence({der::sequence({der::integer("1"), der::oid("CN")}), bits}),
          der::sequence({algorithm, der::octetString({1})}), der::sequence({der::integer("1"), algorithm, bits}),
          der::sequence({algorithm, der::null(), bits}), der::set({algorithm, bits})}) {
        EXPECT_EQ(refusal(der::sequence({repeated(3000, other)})), Refusal::none) << norvauthority::toHex(other);
    }
}

// The issuer is the third element in front of the key: the octets of its name are copied for each point.
TEST(AcceptanceFunctions, RelativePointsTimesTheIssuerAreBoundedExactly) {
    const auto signedPart = [](std::size_t points, std::size_t issuer, const Bytes& point) {
        const Bytes name = der::sequence({der::octetString(Bytes(issuer - 8, 'x'))});
        EXPECT_EQ(name.size(), issuer);
        return der::sequence({name, der::sequence({der::null()}), der::sequence({der::null(), der::null()}),
                              publicKey(), pointsExtension(repeated(points, point))});
    };
    EXPECT_EQ(refusal(signedPart(16, 1024, smallestPoint())), Refusal::none);
    EXPECT_EQ(refusal(signedPart(16, 1025, smallestPoint())), Refusal::relativePoints);
    EXPECT_EQ(refusal(signedPart(17, 1024, smallestPoint())), Refusal::relativePoints);
    EXPECT_EQ(refusal(der::sequence({signedPart(17, 1024, smallestPoint()), der::null()})), Refusal::relativePoints);
    // OpenSSL takes a relative name that says that it is primitive.
    EXPECT_EQ(refusal(signedPart(17, 1024, fromHex("3004A0028100"))), Refusal::relativePoints);
    // The reasons of a point, be they in parts, are no relative name, nor is what has another tag.
    EXPECT_EQ(refusal(signedPart(17, 1024, fromHex("3006A10403020640"))), Refusal::none);
    EXPECT_EQ(refusal(signedPart(17, 1024, fromHex("3004A0020100"))), Refusal::none);
}

TEST(AcceptanceFunctions, OnlyTheValueOfTheExtensionHoldsPoints) {
    const Bytes value = der::octetString(der::sequence({repeated(100, smallestPoint())}));
    const Bytes name = der::sequence({der::octetString(Bytes(1000, 'x'))});
    for (const Bytes& other : {der::sequence({der::oid("2.5.29.35"), value}), der::sequence({value}),
                               der::sequence({der::null(), value}), der::set({der::oid("2.5.29.31"), value})}) {
        EXPECT_EQ(refusal(der::sequence({name, der::null(), der::null(), publicKey(), other})), Refusal::none);
    }
    EXPECT_EQ(refusal(der::sequence({name, der::null(), der::null(), publicKey(),
                                     der::sequence({der::oid("2.5.29.31"), der::boolValue(true), value})})),
              Refusal::relativePoints);
}

// As many points as there could be: one for each six octets.
TEST(AcceptanceFunctions, AValueInPartsIsTakenForPointsOfTheSmallestSize) {
    const auto withParts = [](std::size_t length, std::size_t issuer) {
        const Bytes parts = der::element(0x24, der::octetString(Bytes(length - 4, 0)));
        EXPECT_EQ(parts.size(), length);
        return der::sequence({der::sequence({der::octetString(Bytes(issuer - 8, 'x'))}), der::null(), der::null(),
                              publicKey(), der::sequence({der::oid("2.5.29.31"), parts})});
    };
    EXPECT_EQ(refusal(withParts(101, 1024)), Refusal::none) << "16 points";
    EXPECT_EQ(refusal(withParts(102, 1024)), Refusal::relativePoints) << "17 points";
}

/// In a [0], which is what the content of a message stands in: other elements, segments of two octets and what follows.
Bytes withSegments(std::size_t before, std::size_t segments, const std::vector<Bytes>& after) {
    std::vector<Bytes> parts(before, der::octetString(Bytes(1200, 1)));
    parts.insert(parts.end(), segments, der::octetString(Bytes(1000, 2)));
    parts.insert(parts.end(), after.begin(), after.end());
    return around(parts);
}

SegmentRun knownIn(const Bytes& octets, std::size_t before, std::size_t segments) {
    const std::size_t length = before * 1204 + segments * 1004;
    const auto segment = octets.end() - static_cast<std::ptrdiff_t>(length);
    return {static_cast<std::size_t>(segment - octets.begin()) + before * 1204, 4, 1000, segments};
}

TEST(AcceptanceFunctions, KnownSegmentsAreNotLookedAt) {
    // Elements as long as the first segment, and what is in them would be refused.
    const Bytes curve = explicitCurve();
    const Bytes costly = der::sequence({curve, der::octetString(Bytes(1004 - 4 - curve.size() - 4, 0))});
    ASSERT_EQ(costly.size(), 1004U);
    for (const std::size_t others : {1U, 2U, 3U, 10U}) {
        for (std::size_t place = 0; place != others; ++place) {
            std::vector<Bytes> parts(others, der::octetString(Bytes(1000, 2)));
            parts[place] = costly;
            const Bytes octets = around({der::octetString(Bytes(1000, 2)), der::concat(parts)});
            const SegmentRun known = knownIn(octets, 0, others + 1);
            EXPECT_EQ(refusal(octets), Refusal::explicitCurve);
            EXPECT_EQ(refusal(octets, known), Refusal::none) << others << ' ' << place;
            EXPECT_EQ(refusal(der::sequence({octets}), {known.start + 4, 4, 1000, others + 1}), Refusal::none);
            // More than there are, or in a sequence, where each counts: all are looked at.
            EXPECT_EQ(refusal(octets, {known.start, 4, 1000, others + 2}), Refusal::explicitCurve);
            Bytes sequence = octets;
            sequence.front() = der::sequenceTag;
            EXPECT_EQ(refusal(sequence, known), Refusal::explicitCurve);
            EXPECT_EQ(refusal(octets, {known.start - 1, 4, 1000, others + 1}), Refusal::explicitCurve);
        }
        // What follows the run is looked at.
        std::vector<Bytes> parts(others + 1, der::octetString(Bytes(1000, 2)));
        const SegmentRun known = knownIn(around(parts), 0, others + 1);
        parts.push_back(costly);
        EXPECT_EQ(refusal(around(parts), known), Refusal::explicitCurve);
    }
    const Bytes alone = der::octetString(Bytes(1000, 2));
    EXPECT_EQ(refusal(alone, {0, 4, 1000, 2}), Refusal::none);
}

TEST(AcceptanceFunctions, WhatIsKnownChangesNoVerdict) {
    // A key behind the segments makes the third element in front of it the issuer.
    for (std::size_t before = 0; before != 4; ++before) {
        for (std::size_t segments = 1; segments != 5; ++segments) {
            for (const std::size_t points : {0U, 13U, 14U, 16U, 17U}) {
                const Bytes whole =
                    withSegments(before, segments, {publicKey(), pointsExtension(repeated(points, smallestPoint()))});
                SegmentRun known = knownIn(withSegments(before, segments, {}), before, segments);
                // The issuer has 1204 octets, or 1004 when segments are all that stands there, or there is none.
                const std::size_t issuer = before + segments < 3 ? 0 : segments >= 3 ? 1004 : 1204;
                const Refusal expected = points * issuer > 16384 ? Refusal::relativePoints : Refusal::none;
                EXPECT_EQ(refusal(whole), expected) << before << ' ' << segments << ' ' << points;
                EXPECT_EQ(refusal(whole, known), expected) << before << ' ' << segments << ' ' << points;
                known.count = 1;
                EXPECT_EQ(refusal(whole, known), expected) << before << ' ' << segments << ' ' << points;
                if (segments > 2) {
                    known.count = 2;
                    EXPECT_EQ(refusal(whole, known), expected) << before << ' ' << segments << ' ' << points;
                }
            }
        }
    }
}

TEST(AcceptanceFunctions, LengthsAreBoundedByWhatOpensslCounts) {
    const Bytes octets = der::null();
    EXPECT_EQ(refusalOf(octets.data(), INT_MAX), Refusal::none) << "of which two are looked at";
    EXPECT_EQ(refusalOf(octets.data(), std::size_t{INT_MAX} + 1), Refusal::tooLong);
    EXPECT_EQ(refusalOf(nullptr, 0), Refusal::none);
}

TEST(AcceptanceFunctions, RelativePointsOfADecodedCertificate) {
    using namespace norvauthority;
    static const Key key = Key::ec();
    DistributionPoint point;
    point.name.emplace();
    point.name->relative = Name{{"CN", "list"}};
    const auto certificate = [&](std::size_t points, const Name& subject) {
        return issue({.subject = subject,
                      .key = key,
                      .subjectKeyIdentifier = false,
                      .crlDistributionPoints = {points, point}})
            .certificate.x509();
    };
    const auto nameOf = [](std::size_t octets) {
        const Name name{{"CN", std::string(octets - 21, 'x')}};
        EXPECT_EQ(name.der().size(), octets);
        return name;
    };
    EXPECT_FALSE(hasTooManyRelativePoints(nullptr));
    EXPECT_FALSE(hasTooManyRelativePoints(certificate(16, nameOf(1024)).get()));
    EXPECT_TRUE(hasTooManyRelativePoints(certificate(16, nameOf(1025)).get()));
    EXPECT_TRUE(hasTooManyRelativePoints(certificate(17, nameOf(1024)).get()));
    EXPECT_FALSE(hasTooManyRelativePoints(certificate(0, nameOf(20000)).get())) << "no points, a long name";
    EXPECT_TRUE(hasTooManyRelativePoints(certificate(1, nameOf(20000)).get()));
    const std::unique_ptr<X509, decltype(&X509_free)> empty(X509_new(), X509_free);
    EXPECT_FALSE(hasTooManyRelativePoints(empty.get()));
}

} // namespace
