// What is refused before it is decoded, and what is not.
#include "support/Costly.h"
#include "support/Places.h"
#include "support/Thrown.h"

#include <norvcrypto/Acceptance.h>

#include <openssl/ec.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace norvauthority;
using norvtest::asIfPrimitive;
using norvtest::certificatesOnly;
using norvtest::curveKey;
using norvtest::explicitIdentity;
using norvtest::indefinite;

namespace {

constexpr const char* explicitCurve = "refused: explicit elliptic curve parameters";
constexpr const char* tooManyKeys = "refused: more than 2500 public keys in one structure";
constexpr const char* tooManyPoints = "refused: too many distribution points relative to the issuer";

std::string refusalOf(const Bytes& octets) {
    const std::string text =
        Norvane::Crypto::refusal(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
    return text;
}

std::string refusalOf(const std::string& text) {
    return refusalOf(bytes(text));
}

Key sharedKey() {
    static const Key key = Key::ec();
    return key;
}

const Identity& ordinary() {
    static const Identity identity = issue({.subject = {{"CN", "Ordinary"}}, .key = sharedKey()});
    return identity;
}

Bytes requestFor(const Key& key) {
    const std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> request(X509_REQ_new(), X509_REQ_free);
    EXPECT_EQ(X509_REQ_set_pubkey(request.get(), key.get()), 1);
    EXPECT_NE(X509_REQ_sign(request.get(), key.get(), EVP_sha256()), 0);
    unsigned char* encoded = nullptr;
    const int length = i2d_X509_REQ(request.get(), &encoded);
    const Bytes der(encoded, encoded + length);
    OPENSSL_free(encoded);
    return der;
}

/// Empty when OpenSSL makes no key on that curve.
Bytes curveSpki(int nid, bool explicitParameters) {
    try {
        return curveKey(OBJ_nid2sn(nid), explicitParameters).publicDer();
    } catch (const std::runtime_error&) {
        ERR_clear_error();
        return {};
    }
}

/// A certificate whose distribution points stand for `issuer` octets of the issuer's name each.
Bytes withPoints(std::size_t points, std::size_t issuer) {
    // A name of one entry: SEQUENCE, SET, SEQUENCE with lengths of three octets, commonName, UTF8String.
    const std::size_t around = 4 + 4 + 4 + 5 + 4;
    const Name name{{"CN", std::string(issuer - around, 'x')}};
    EXPECT_EQ(name.der().size(), issuer);
    DistributionPoint point;
    point.name.emplace();
    point.name->relative = Name{{"CN", "list"}};
    return issue({.subject = name, .key = sharedKey(), .crlDistributionPoints = {points, point}}).certificate.der;
}

} // namespace

TEST(Acceptance, ExplicitCurvesAreRefusedWhereverTheyStand) {
    const Key key = curveKey("P-256", true);
    const Certificate& certificate = explicitIdentity().certificate;
    EXPECT_EQ(refusalOf(certificate.der), explicitCurve);
    EXPECT_EQ(refusalOf(indefinite(certificate.der)), explicitCurve);
    EXPECT_EQ(refusalOf(key.publicDer()), explicitCurve);
    EXPECT_EQ(refusalOf(requestFor(key)), explicitCurve);
    EXPECT_EQ(refusalOf(crossPair(&ordinary().certificate, &certificate)), explicitCurve);
    EXPECT_EQ(refusalOf(certificatesOnly({ordinary().certificate.der, certificate.der})), explicitCurve);
    EXPECT_EQ(refusalOf(indefinite(certificatesOnly({certificate.der}))), explicitCurve);
    EXPECT_EQ(refusalOf(certificate.pem()), explicitCurve);
    EXPECT_EQ(refusalOf("text\n" + ordinary().certificate.pem() + key.publicPem()), explicitCurve);
}

// The structure in a structure is decoded with its certificates, too.
TEST(Acceptance, ExplicitCurvesAreFoundInEmbeddedStructures) {
    const Bytes inner = certificatesOnly({explicitIdentity().certificate.der});
    const Bytes outer = der::sequence({der::integer("1"), der::set({}), inner, der::set({})});
    EXPECT_EQ(
        refusalOf(der::sequence({der::oid("1.2.840.113549.1.7.2"), der::element(der::contextConstructed(0), outer)})),
        explicitCurve);
}

TEST(Acceptance, DamageInFrontOfAKeyDoesNotHideIt) {
    // An attribute value that is no encoding inside: decoders take such a value as it is.
    const Bytes odd = der::element(0x30, fromHex("3080ff"));
    EXPECT_EQ(refusalOf(der::sequence({odd, curveKey("P-256", true).publicDer()})), explicitCurve);
}

TEST(Acceptance, CurvesOfTheOtherAlgorithmThatOpenSslDecodesAreRefused) {
    // The algorithm SM2 (1.2.156.10197.1.301) in the place of id-ecPublicKey.
    const Bytes spki =
        der::sequence({der::sequence({der::oid("1.2.156.10197.1.301"), der::sequence({der::integer("1")})}),
                       der::bitString({4, 1, 2})});
    EXPECT_EQ(refusalOf(spki), explicitCurve);
}

TEST(Acceptance, EveryNamedCurveIsAcceptedAndEverySpelledOutOneIsRefused) {
    std::vector<EC_builtin_curve> curves(EC_get_builtin_curves(nullptr, 0));
    EC_get_builtin_curves(curves.data(), curves.size());
    int named = 0;
    for (const auto& curve : curves) {
        const Bytes byName = curveSpki(curve.nid, false);
        const Bytes spelledOut = curveSpki(curve.nid, true);
        if (!byName.empty()) {
            EXPECT_EQ(refusalOf(byName), "") << curve.comment;
            ++named;
        }
        if (!spelledOut.empty()) {
            EXPECT_EQ(refusalOf(spelledOut), explicitCurve) << curve.comment;
        }
    }
    EXPECT_GT(named, 50);
}

TEST(Acceptance, KeysOfOtherAlgorithmsAreAccepted) {
    for (const Key& key : {Key::rsa(1024), Key::dsa(), Key::ed25519(), Key::ec("P-384")}) {
        EXPECT_EQ(refusalOf(key.publicDer()), "");
    }
    EXPECT_EQ(refusalOf(issue({.subject = {{"CN", "x"}}, .key = Key::dsa()}).certificate.der), "");
}

TEST(Acceptance, AFewRelativeDistributionPointsAreAccepted) {
    EXPECT_EQ(refusalOf(withPoints(3, 600)), "");
    EXPECT_EQ(refusalOf(withPoints(1, 16384)), "");
}

TEST(Acceptance, RelativePointsTimesTheIssuersNameAreBounded) {
    EXPECT_EQ(refusalOf(withPoints(16, 1024)), "");
    EXPECT_EQ(refusalOf(withPoints(16, 1025)), tooManyPoints);
    EXPECT_EQ(refusalOf(withPoints(17, 1024)), tooManyPoints);
    EXPECT_EQ(refusalOf(indefinite(withPoints(17, 1024))), tooManyPoints);
    EXPECT_EQ(refusalOf(certificatesOnly({ordinary().certificate.der, withPoints(17, 1024)})), tooManyPoints);
}

// The constructed bit is missing where OpenSSL does without it: at lists of extensions and of points, and at relative names.
TEST(Acceptance, RelativePointsAreFoundInListsThatLookPrimitive) {
    const auto certificate = [](std::size_t points, unsigned char list, unsigned char relativeName,
                                unsigned char extensions) {
        const Bytes point = der::sequence({der::element(0xA0, der::element(relativeName, {}))});
        const Bytes value = der::element(list, der::concat(std::vector<Bytes>(points, point)));
        const Bytes extension = der::sequence({der::oid("2.5.29.31"), der::octetString(value)});
        const Bytes name = der::octetString(Bytes(1020, 0)); // any element; what counts is its size
        const Bytes signedPart = der::sequence(
            {der::element(0xA0, der::integer("2")), der::integer("1"), der::sequence({}), name, der::sequence({}),
             der::sequence({}), ordinary().key.publicDer(), der::element(0xA3, der::element(extensions, extension))});
        return der::sequence({signedPart, der::sequence({}), der::bitString({})});
    };
    EXPECT_EQ(refusalOf(certificate(17, 0x30, 0xA1, 0x30)), tooManyPoints);
    EXPECT_EQ(refusalOf(certificate(17, 0x30, 0x81, 0x30)), tooManyPoints);
    EXPECT_EQ(refusalOf(certificate(17, 0x10, 0xA1, 0x30)), tooManyPoints);
    EXPECT_EQ(refusalOf(certificate(17, 0x30, 0xA1, 0x10)), tooManyPoints);
    EXPECT_EQ(refusalOf(certificate(17, 0x10, 0x81, 0x10)), tooManyPoints);
    EXPECT_EQ(refusalOf(certificate(10, 0x10, 0x81, 0x10)), "");
}

TEST(Acceptance, KeysAreFoundInListsThatLookPrimitive) {
    const Bytes all = certificatesOnly({explicitIdentity().certificate.der});
    EXPECT_EQ(refusalOf(asIfPrimitive(all, "a082", explicitIdentity().certificate.der)), explicitCurve);
    const Bytes& one = ordinary().certificate.der;
    EXPECT_EQ(refusalOf(asIfPrimitive(certificatesOnly(std::vector<Bytes>(2501, one)), "a083", one)), tooManyKeys);
    EXPECT_EQ(refusalOf(asIfPrimitive(certificatesOnly(std::vector<Bytes>(50, one)), "a082", one)), "");
}

TEST(Acceptance, FullNamesCountForNothing) {
    DistributionPoint point;
    point.name.emplace();
    point.name->full = {GeneralName::uri("http://ca.example/list.crl")};
    const Name name{{"CN", std::string(2000, 'x')}};
    EXPECT_EQ(
        refusalOf(issue({.subject = name, .key = sharedKey(), .crlDistributionPoints = {500, point}}).certificate.der),
        "");
}

// Every name of a certificate is its own: two with points just below the bound are two times that, not four.
TEST(Acceptance, RelativePointsAreCountedForEachCertificate) {
    const Bytes allowed = withPoints(16, 1024);
    EXPECT_EQ(refusalOf(certificatesOnly({allowed, allowed, allowed})), "");
}

// BER may split the octets of an extension into parts; the points in them are then estimated from their length.
TEST(Acceptance, PointsInAValueThatIsInPartsAreEstimated) {
    const auto split = [](std::size_t issuer, std::size_t octets) {
        const Bytes value = der::element(0x24, der::octetString(Bytes(octets, 0)));
        const Bytes extension = der::sequence({der::oid("2.5.29.31"), value});
        const Bytes key = ordinary().key.publicDer();
        const Bytes name = der::octetString(Bytes(issuer - 4, 0)); // any element; what counts is its size
        const Bytes signedPart =
            der::sequence({der::element(0xA0, der::integer("2")), der::integer("1"), der::sequence({}), name,
                           der::sequence({}), der::sequence({}), key, der::element(0xA3, der::sequence({extension}))});
        return der::sequence({signedPart, der::sequence({}), der::bitString({})});
    };
    EXPECT_EQ(refusalOf(split(1024, 80)), "");
    EXPECT_EQ(refusalOf(split(1024, 110)), tooManyPoints);
}

// The value goes on beyond the end of the extension by its own account; ASan sees who follows it.
TEST(Acceptance, DistributionPointsAreLookedForInTheirValueAlone) {
    for (const char* const value : {"300604020000", "30080402000030", "3081"}) {
        const Bytes extension = der::sequence({der::oid("2.5.29.31"), der::octetString(fromHex(value))});
        EXPECT_EQ(refusalOf(Bytes(extension.begin(), extension.end())), "");
    }
}

TEST(Acceptance, PublicKeysInOneStructureAreBounded) {
    const Bytes& one = ordinary().certificate.der;
    EXPECT_EQ(refusalOf(certificatesOnly(std::vector<Bytes>(50, one))), "");
    EXPECT_EQ(refusalOf(certificatesOnly(std::vector<Bytes>(2500, one))), "");
    EXPECT_EQ(refusalOf(certificatesOnly(std::vector<Bytes>(2501, one))), tooManyKeys);
    // In PEM each block is a structure of its own.
    std::string text;
    for (int i = 0; i < 2501; ++i) {
        text += ordinary().certificate.pem();
    }
    EXPECT_EQ(refusalOf(text), "");
}

TEST(Acceptance, NestingIsBounded) {
    Bytes octets;
    for (int i = 0; i < 128; ++i) {
        octets = der::sequence({octets});
    }
    EXPECT_EQ(refusalOf(octets), "");
    EXPECT_EQ(refusalOf(der::sequence({octets})), "refused: nested too deeply");
}

// A refusal is not what damage is called.
TEST(Acceptance, WhatDoesNotDecodeIsNotRefused) {
    EXPECT_EQ(refusalOf(Bytes()), "");
    EXPECT_EQ(refusalOf(fromHex("30")), "");
    EXPECT_EQ(refusalOf(fromHex("3003020101")), "");
    EXPECT_EQ(refusalOf("-----BEGIN CERTIFICATE-----\nMIIB\n"), "");
    const Bytes& whole = ordinary().certificate.der;
    for (std::size_t length = 0; length < whole.size(); length += 7) {
        EXPECT_EQ(refusalOf(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length))), "");
    }
}

TEST(Acceptance, ForeignMessagesAreAccepted) {
    const std::filesystem::path folder = norvtest::samplePath("rfc4134");
    if (!std::filesystem::exists(folder)) {
        GTEST_SKIP() << "no samples beside the checkout: rfc4134";
    }
    int looked = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            std::ifstream file(entry.path(), std::ios::binary);
            EXPECT_EQ(refusalOf(Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>())), "")
                << entry.path();
            ++looked;
        }
    }
    EXPECT_GT(looked, 5);
}
