#include "ASN1/Values.h"

#include <array>

namespace {

using namespace asn1testing;

/// An object made of raw octets, as no decoder would make it.
RefObjectIdentifier fromOctets(const std::string& hex,
                               std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)>& keep) {
    Bytes octets = fromHex(hex);
    keep.reset(ASN1_OBJECT_create(NID_undef, octets.data(), static_cast<int>(octets.size()), nullptr, nullptr));
    return RefObjectIdentifier(keep.get());
}

std::string dotted(const std::string& hex) {
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> keep(nullptr, ASN1_OBJECT_free);
    return fromOctets(hex, keep)->asString();
}

TEST(ASN1ObjectIdentifier, Clone) {
    const RefObjectIdentifier original(std::string("2.5.29.17"));
    const RefObjectIdentifier copy = original.clone();
    EXPECT_NE(&*original, &*copy);
    EXPECT_NE(original->object(), nullptr);
    EXPECT_EQ(copy->asString(), "2.5.29.17");
    EXPECT_TRUE(original == copy);
    EXPECT_FALSE(original != copy);
}

TEST(ASN1ObjectIdentifier, CloneOfNullThrows) {
    const auto thrown = norvtest::thrownBy([] { static_cast<void>(RefObjectIdentifier().clone()); });
    EXPECT_EQ(thrown.where(), "operator->");
    EXPECT_EQ(thrown.code(), 1);
}

TEST(ASN1ObjectIdentifier, DottedText) {
    EXPECT_EQ(dotted("2a864886f70d010702"), "1.2.840.113549.1.7.2");
    EXPECT_EQ(dotted("2a8648"), "1.2.840");
    EXPECT_EQ(dotted("551d11"), "2.5.29.17");
    EXPECT_EQ(dotted("00"), "0.0");
    EXPECT_EQ(dotted("27"), "0.39");
    EXPECT_EQ(dotted("28"), "1.0");
    EXPECT_EQ(dotted("4f"), "1.39");
    EXPECT_EQ(dotted("50"), "2.0");
    EXPECT_EQ(dotted("8837"), "2.999");
    EXPECT_EQ(dotted("8100"), "2.48");
}

TEST(ASN1ObjectIdentifier, TruncatedOctetsGiveTheEmptyText) {
    EXPECT_EQ(dotted("2a864886"), "");
    EXPECT_EQ(dotted("86"), "");
    EXPECT_EQ(dotted("2a864886f70d0107ff"), "");
}

TEST(ASN1ObjectIdentifier, TruncatedDerIsRefused) {
    const Bytes bytes = fromHex("06042a864886");
    const RefObjectIdentifier handle(bytes.data(), lengthOf(bytes));
    ASSERT_FALSE(handle.isNull());
    EXPECT_EQ(handle->object(), nullptr);
    EXPECT_EQ(handle->asString(), "");
    EXPECT_TRUE(errorQueueIsEmpty());
}

// 4294967299 is 2^32 + 3.
TEST(ASN1ObjectIdentifier, NumbersWrapAt32BitsDeliberately) {
    const Bytes wide = fromHex("060d2a864886f70d01079080808003");
    const RefObjectIdentifier wrapped(wide.data(), lengthOf(wide));
    const RefObjectIdentifier enveloped(std::string("1.2.840.113549.1.7.3"));
    ASSERT_NE(wrapped->object(), nullptr);
    EXPECT_EQ(wrapped->asString(), "1.2.840.113549.1.7.3");
    EXPECT_FALSE(wrapped == enveloped);
    EXPECT_FALSE(*wrapped == *enveloped);
}

TEST(ASN1ObjectIdentifier, NamesAreKeptAsGiven) {
    const RefObjectIdentifier named(std::string("subjectAltName"));
    EXPECT_EQ(named->asString(), "subjectAltName");
    EXPECT_TRUE(named == RefObjectIdentifier(std::string("2.5.29.17")));
    EXPECT_EQ(named.clone()->asString(), "subjectAltName");
}

TEST(ASN1ObjectIdentifier, UnknownTextsHaveNoObject) {
    for (const std::string& text :
         {std::string("no such thing"), std::string(), std::string("2.5.29.17\0.1", 12), std::string("3.1.2")}) {
        const RefObjectIdentifier handle(text);
        ASSERT_FALSE(handle.isNull());
        EXPECT_EQ(handle->object(), nullptr) << text;
        EXPECT_EQ(handle->asString(), text);
        EXPECT_FALSE(handle == handle.clone());
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1ObjectIdentifier, Equality) {
    const ObjectIdentifier null;
    const ObjectIdentifier otherNull;
    const ObjectIdentifier commonName(OBJ_nid2obj(NID_commonName));
    const ObjectIdentifier country(OBJ_nid2obj(NID_countryName));
    const ObjectIdentifier undefined(OBJ_nid2obj(NID_undef)); // no octets at all
    EXPECT_FALSE(null == otherNull);
    EXPECT_FALSE(null == commonName);
    EXPECT_FALSE(commonName == null);
    EXPECT_FALSE(commonName == country);
    EXPECT_TRUE(commonName != country);
    EXPECT_TRUE(commonName == ObjectIdentifier(OBJ_nid2obj(NID_commonName)));
    EXPECT_TRUE(undefined == ObjectIdentifier(OBJ_nid2obj(NID_undef)));
    EXPECT_EQ(undefined.asString(), "");
}

TEST(ASN1ObjectIdentifier, HandleEquality) {
    const RefObjectIdentifier null;
    const RefObjectIdentifier otherNull;
    const RefObjectIdentifier first(std::string("2.5.4.3"));
    const RefObjectIdentifier shared = first; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_FALSE(null == otherNull);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
    EXPECT_TRUE(first == shared);
    EXPECT_TRUE(first == RefObjectIdentifier(OBJ_nid2obj(NID_commonName)));
    EXPECT_FALSE(first == RefObjectIdentifier(std::string("2.5.4.4")));
    // Without an object nothing is equal, but a handle on the same body is the same.
    const RefObjectIdentifier unknown(std::string("?"));
    EXPECT_TRUE(unknown == unknown); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(unknown == RefObjectIdentifier(std::string("?")));
}

TEST(ASN1ObjectIdentifier, NullPointerGivesANullHandle) {
    EXPECT_TRUE(RefObjectIdentifier(static_cast<const asn1_object_st*>(nullptr)).isNull());
}

TEST(ASN1ObjectIdentifier, RelinquishedObjectOutlivesTheValue) {
    asn1_object_st* object = nullptr;
    {
        const Bytes bytes = fromHex("06032a0304"); // known to nobody, so that it is allocated
        RefObjectIdentifier handle(bytes.data(), lengthOf(bytes));
        handle->relinquishOwnerShip();
        object = const_cast<asn1_object_st*>(handle->object());
    }
    std::array<char, 20> text{};
    OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object, 1);
    EXPECT_STREQ(text.data(), "1.2.3.4");
    ASN1_OBJECT_free(object);
}

TEST(ASN1ObjectIdentifier, CopiesOfAnOwnedOneAreIndependent) {
    ObjectIdentifier copy;
    {
        const Bytes bytes = fromHex("06032a0304");
        const RefObjectIdentifier handle(bytes.data(), lengthOf(bytes));
        copy = *handle;
        EXPECT_NE(copy.object(), handle->object());
    }
    EXPECT_EQ(copy.asString(), "1.2.3.4");
}

TEST(ASN1ObjectIdentifier, DamagedDer) {
    const Bytes good = fromHex("06092a864886f70d010702");
    for (const auto& damaged : {norvtest::properPrefixes(good), norvtest::oversized(good)}) {
        for (const Bytes& bad : damaged) {
            const RefObjectIdentifier handle(bad.data(), lengthOf(bad));
            ASSERT_FALSE(handle.isNull());
            EXPECT_EQ(handle->object(), nullptr) << toHex(bad);
            EXPECT_EQ(handle->asString(), "");
        }
    }
    for (const Bytes& flipped : norvtest::bitFlips(good)) {
        const RefObjectIdentifier handle(flipped.data(), lengthOf(flipped));
        const bool contentFlipped = flipped[0] == good[0] && flipped[1] == good[1];
        EXPECT_TRUE(!contentFlipped || handle->asString() != "1.2.840.113549.1.7.2") << toHex(flipped);
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

} // namespace
