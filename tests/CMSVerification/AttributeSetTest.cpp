#include "support/HandMadeSigners.h"

#include <norvcrypto/CMSVerification.h>

using namespace cmstest;
namespace der = norvauthority::der;

namespace {

bool inPieces(const Bytes& bytes, std::size_t piece) {
    CMS::AttributeSetDetector detector;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        detector.update(bytes.data() + at, std::min(piece, bytes.size() - at));
    }
    return detector.isAttributeSet();
}

bool isSet(const Bytes& bytes) {
    const bool answer = inPieces(bytes, bytes.size() + 1);
    for (const std::size_t piece : {1U, 2U, 3U, 7U}) {
        EXPECT_EQ(inPieces(bytes, piece), answer) << piece;
    }
    return answer;
}

Bytes attribute(const std::string& type, const std::vector<Bytes>& values) {
    return der::sequence({der::oid(type), der::set(values)});
}
const Bytes& contentType() {
    static const Bytes made = attribute("1.2.840.113549.1.9.3", {der::oid("1.2.840.113549.1.7.1")});
    return made;
}
const Bytes& messageDigest() {
    static const Bytes made = attribute("1.2.840.113549.1.9.4", {der::octetString(Bytes(32, 7))});
    return made;
}
Bytes indefinite(unsigned char tag, const Bytes& content) {
    return der::concat({{tag, 0x80}, content, {0, 0}});
}

} // namespace

TEST(AttributeSet, EveryOrderAndNumberOfAttributes) {
    EXPECT_TRUE(isSet(der::set({contentType(), messageDigest()})));
    EXPECT_TRUE(isSet(der::set({messageDigest(), contentType()})));
    EXPECT_TRUE(isSet(der::set({messageDigest()})));
    EXPECT_TRUE(isSet(der::set({attribute("1.2.3.4", {der::octetString(bodyOf(70000))}), messageDigest()})));
    EXPECT_TRUE(isSet(der::set({attribute("1.2.3.4", {}), messageDigest()})));
    EXPECT_TRUE(isSet(der::set({attribute("1.2.3.4", {der::null(), der::null()})})));
}

TEST(AttributeSet, WhatOpensslSignsAndItsOwnDecoderReads) {
    const Bytes structure = signedByOpenssl(identities().rsa, bodyOf(10), "SHA256", CMS_DETACHED);
    static_cast<void>(changed(structure, [](PKCS7_SIGNER_INFO* signer) {
        unsigned char* set = nullptr;
        const int length =
            ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(signer->auth_attr), &set, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
        ASSERT_GT(length, 0);
        EXPECT_TRUE(isSet(Bytes(set, set + length)));
        OPENSSL_free(set);
    }));
}

TEST(AttributeSet, LengthsOfEveryForm) {
    const Bytes first = contentType();
    EXPECT_TRUE(isSet(indefinite(0x31, der::concat({first, messageDigest()}))));
    const Bytes open = indefinite(0x30, der::concat({der::oid("1.2.3.4"), der::set({der::null()})}));
    EXPECT_TRUE(isSet(der::set({open, first})));
    EXPECT_TRUE(isSet(indefinite(0x31, der::concat({open, open}))));
    const Bytes nested =
        indefinite(0x24, der::concat({indefinite(0x24, der::octetString({1})), der::octetString({2})}));
    const Bytes values = der::concat({der::oid("1.2.3.4"), indefinite(0x31, nested)});
    EXPECT_TRUE(isSet(der::set({der::sequence({values}), first})));
    EXPECT_TRUE(isSet(indefinite(0x31, indefinite(0x30, values))));
    // A length in more octets than it needs.
    EXPECT_TRUE(isSet(der::concat({{0x31, 0x84, 0, 0, 0, static_cast<unsigned char>(first.size())}, first})));
    // Of all elements, and in as many octets as there can be.
    const Bytes longer = der::concat(
        {{0x30, 0x82, 0, static_cast<unsigned char>(first.size() - 2)}, Bytes(first.begin() + 2, first.end())});
    EXPECT_TRUE(isSet(der::set({longer, first, longer})));
    const auto length = static_cast<unsigned char>(first.size());
    EXPECT_TRUE(isSet(der::concat({{0x31, 0x87, 0, 0, 0, 0, 0, 0, length}, first})));
    EXPECT_TRUE(isSet(der::concat({{0x31, 0x88, 0, 0, 0, 0, 0, 0, 0, length}, first})));
    EXPECT_TRUE(isSet(der::concat({{0x31, 0xFF}, Bytes(126, 0), {length}, first})));
    EXPECT_TRUE(
        isSet(der::set({der::concat({{0x30, 0x89, 0, 0, 0, 0, 0, 0, 0, 0}, Bytes(first.begin() + 1, first.end())})})));
    // A tag of more than one octet among the values.
    EXPECT_TRUE(isSet(der::set({attribute("1.2.3.4", {{0x1F, 0x81, 0x01, 0x02, 0x05, 0x06}})})));
    EXPECT_TRUE(isSet(
        der::set({der::sequence({der::oid("1.2.3.4"), indefinite(0x31, {0x1F, 0x81, 0x01, 0x02, 0x05, 0x06})})})));
}

// X.690, 8.1.2.4 has the long form for numbers from 31 on; decoders take it for all of them.
TEST(AttributeSet, TagsInTheLongForm) {
    EXPECT_TRUE(isSet({0x31, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00}));
    EXPECT_TRUE(isSet({0x3F, 0x11, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00}));
    EXPECT_TRUE(isSet({0x31, 0x07, 0x3F, 0x10, 0x04, 0x06, 0x00, 0x31, 0x00}));
    EXPECT_TRUE(isSet({0x31, 0x07, 0x30, 0x05, 0x1F, 0x06, 0x00, 0x31, 0x00}));
    EXPECT_TRUE(isSet({0x31, 0x0C, 0x30, 0x0A, 0x06, 0x00, 0x3F, 0x80, 0x80, 0x80, 0x80, 0x80, 0x11, 0x00}));
    // The greatest number that decoders take, and the one behind it.
    const auto numbered = [](const Bytes& number) {
        const Bytes value = der::concat({{0x1F}, number, {0x00}});
        return isSet(der::set({der::sequence({der::oid("1.2.3.4"), indefinite(0x31, value)})}));
    };
    EXPECT_TRUE(numbered({0x87, 0xFF, 0xFF, 0xFF, 0x7F}));
    EXPECT_FALSE(numbered({0x88, 0x80, 0x80, 0x80, 0x00}));
    // The end of a set of values is two octets, whatever else has the tag and the length.
    const Bytes type = der::oid("1.2.3.4");
    for (const Bytes& notTheEnd : std::vector<Bytes>{{0x00, 0x81, 0x00}, {0x1F, 0x00, 0x00}, {0x20, 0x00}}) {
        EXPECT_TRUE(isSet(der::set({der::sequence({type, indefinite(0x31, notTheEnd)})})));
    }
}

TEST(AttributeSet, NothingIsLackingAndNothingFollows) {
    for (const Bytes& whole :
         {der::set({contentType(), messageDigest()}),
          indefinite(0x31, indefinite(0x30, der::concat({der::oid("1.2.3.4"), indefinite(0x31, der::null())})))}) {
        ASSERT_TRUE(isSet(whole));
        for (std::size_t length = 0; length < whole.size(); ++length) {
            EXPECT_FALSE(isSet(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)))) << length;
        }
        for (const unsigned char byte : Bytes{0x00, 0x0A, 0x30, 0x31}) {
            EXPECT_FALSE(isSet(der::concat({whole, {byte}})));
        }
    }
}

TEST(AttributeSet, OtherBodiesAreNone) {
    const Bytes type = der::oid("1.2.3.4");
    const Bytes values = der::set({der::null()});
    for (const Bytes& body : std::vector<Bytes>{
             {},
             bytesOf(std::string("1. The first point of ten\r\n")),
             bytesOf(std::string("Content-Type: text/plain\r\n\r\nHello\r\n")),
             {0x31, 0x00},
             {0x31, 0x80, 0x00, 0x00},
             der::sequence({contentType()}),
             contentType(),
             der::set({der::set({type, values})}),
             der::set({der::sequence({values, type})}),
             der::set({der::sequence({der::null(), values})}),
             der::set({der::sequence({der::octetString({0x2A, 3, 4}), values})}),
             der::set({der::sequence({type})}),
             der::set({der::sequence({})}),
             der::set({der::sequence({type, der::sequence({der::null()})})}),
             der::set({der::sequence({type, values, values})}),
             der::set({contentType(), der::null()}),
             der::set({der::sequence({indefinite(0x26, type), values})}),
             // Lengths beyond what encloses them, and beyond all bodies.
             {0x31, 0x0B, 0x30, 0x0C, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x02, 0x05, 0x00},
             {0x31, 0x0B, 0x30, 0x09, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x04, 0x05, 0x00, 0x05, 0x00},
             {0x31, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x30, 0x00},
             {0x31, 0x87, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x30, 0x00},
             {0x31, 0xFF, 0x01},
             {0x31, 0x88, 0x80, 0, 0, 0, 0, 0, 0, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             {0x31, 0x89, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             // Tags of other classes and kinds that have the numbers, and those beyond all numbers.
             {0x3F, 0x12, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             {0x1F, 0x11, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             {0xBF, 0x11, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             {0x3F, 0x90, 0x80, 0x80, 0x80, 0x11, 0x06, 0x30, 0x04, 0x06, 0x00, 0x31, 0x00},
             // What does not fit, or is of another kind, in front of what would.
             der::set({Bytes{0x30, 0x7F}, contentType()}),
             der::set({contentType(), Bytes{0x30, 0x7F}, messageDigest()}),
             der::sequence({contentType()}),
             der::set({der::sequence({type, Bytes{0x30, 0}, values})}),
             der::set({der::sequence({type, indefinite(0x31, der::concat({{0x04, 0x80}, der::null()}))})}),
             der::set({der::sequence({Bytes{0x06, 0x80}, values})}),
             der::set({der::sequence({Bytes{0x06, 0x80}, type, values})}),
             {0x31, 0x01, 0x30},
             {0x31, 0x00, 0x30, 0x07, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x00},
             // A header across the end of what encloses it.
             {0x31, 0x09, 0x30, 0x82, 0x00, 0x07, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x00},
             {0x31, 0x01, 0x30, 0x07, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x00},
             // The end of an attribute of indefinite length, behind the end of the set.
             {0x31, 0x09, 0x30, 0x80, 0x06, 0x03, 0x2A, 0x03, 0x04, 0x31, 0x00, 0x00, 0x00},
             // A primitive element of indefinite length among the values.
             der::set({der::sequence({type, indefinite(0x31, {0x04, 0x80, 0x00, 0x00})})}),
         }) {
        EXPECT_FALSE(isSet(body)) << norvauthority::toHex(body).substr(0, 60);
    }
}

TEST(AttributeSet, AnAnswerCanBeAskedForOnTheWay) {
    const Bytes whole = der::set({messageDigest()});
    CMS::AttributeSetDetector first;
    EXPECT_FALSE(first.isAttributeSet());
    first.update(whole.data(), whole.size() - 1);
    EXPECT_FALSE(first.isAttributeSet());
    CMS::AttributeSetDetector detector(std::move(first));
    detector.update(whole.data() + whole.size() - 1, 1);
    EXPECT_TRUE(detector.isAttributeSet());
    detector.update(whole.data(), 0);
    EXPECT_TRUE(detector.isAttributeSet());
    detector.update(whole.data(), 1);
    EXPECT_FALSE(detector.isAttributeSet());
}

TEST(AttributeSet, AMovedDetectorGoesOn) {
    const Bytes set = der::set({contentType(), messageDigest()});
    CMS::AttributeSetDetector first;
    first.update(set.data(), 5);
    CMS::AttributeSetDetector second;
    second.update(set.data() + 1, 1);
    second = std::move(first);
    second.update(set.data() + 5, set.size() - 5);
    EXPECT_TRUE(second.isAttributeSet());
}
