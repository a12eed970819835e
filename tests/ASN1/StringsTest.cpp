#include "ASN1/Values.h"

namespace {

using namespace asn1testing;

template <class Handle> class ASN1Strings : public testing::Test {};

struct OctetStrings {
    using Value = OctetString;
    using Handle = RefOctetString;
    static constexpr int type = V_ASN1_OCTET_STRING;
    static Bytes der(const Bytes& content) { return der::octetString(content); }
};
struct IA5Strings {
    using Value = IA5String;
    using Handle = RefIA5String;
    static constexpr int type = V_ASN1_IA5STRING;
    static Bytes der(const Bytes& content) { return der::element(0x16, content); }
};
struct BitStrings {
    using Value = BitString;
    using Handle = RefBitString;
    static constexpr int type = V_ASN1_BIT_STRING;
    static Bytes der(const Bytes& content) { return der::bitString(content); }
};
using StringFamilies = testing::Types<OctetStrings, IA5Strings, BitStrings>;
TYPED_TEST_SUITE(ASN1Strings, StringFamilies);

TYPED_TEST(ASN1Strings, WrappedPointerIsBorrowed) {
    const StringPtr object = string(TypeParam::type, "abc");
    const typename TypeParam::Handle handle(object.get());
    EXPECT_EQ(handle->object(), object.get());
    EXPECT_EQ(handle->data(), ASN1_STRING_get0_data(object.get()));
    EXPECT_EQ(handle->length(), 3U);
}

TYPED_TEST(ASN1Strings, NullIsEmpty) {
    const typename TypeParam::Value null;
    EXPECT_EQ(null.object(), nullptr);
    EXPECT_EQ(null.data(), nullptr);
    EXPECT_EQ(null.length(), 0U);
    const typename TypeParam::Handle handle(nullptr);
    ASSERT_FALSE(handle.isNull());
    EXPECT_EQ(handle->data(), nullptr);
    EXPECT_TRUE(typename TypeParam::Handle().isNull());
}

TYPED_TEST(ASN1Strings, DerIsOwned) {
    Bytes bytes = TypeParam::der({'a', 0, 'c'});
    const typename TypeParam::Handle handle(bytes.data(), lengthOf(bytes));
    std::fill(bytes.begin(), bytes.end(), 0xFF);
    ASSERT_NE(handle->object(), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(handle->data()), handle->length()), std::string("a\0c", 3));
    EXPECT_EQ(ASN1_STRING_type(handle->object()), TypeParam::type);
}

TYPED_TEST(ASN1Strings, ValuesCompareByOctets) {
    const StringPtr abc = string(TypeParam::type, "abc");
    const StringPtr same = string(TypeParam::type, "abc");
    const StringPtr abd = string(TypeParam::type, "abd");
    const StringPtr ab = string(TypeParam::type, "ab");
    const StringPtr nothing = string(TypeParam::type, "");
    const StringPtr alsoNothing(ASN1_STRING_type_new(TypeParam::type));
    using Value = typename TypeParam::Value;
    EXPECT_TRUE(Value(abc.get()) == Value(same.get()));
    EXPECT_FALSE(Value(abc.get()) != Value(same.get()));
    EXPECT_FALSE(Value(abc.get()) == Value(abd.get()));
    EXPECT_FALSE(Value(abc.get()) == Value(ab.get()));
    EXPECT_FALSE(Value(ab.get()) == Value(abc.get()));
    EXPECT_TRUE(Value(nothing.get()) == Value(alsoNothing.get()));
    EXPECT_FALSE(Value(nothing.get()) == Value());
    EXPECT_FALSE(Value() == Value(nothing.get()));
    EXPECT_FALSE(Value() == Value());
    EXPECT_TRUE(Value() != Value());
}

TYPED_TEST(ASN1Strings, CopiesOfAnOwnedOneAreIndependent) {
    typename TypeParam::Value copy;
    {
        const Bytes bytes = TypeParam::der({'a', 'b'});
        const typename TypeParam::Handle handle(bytes.data(), lengthOf(bytes));
        copy = *handle;
        EXPECT_NE(copy.object(), handle->object());
        EXPECT_TRUE(copy == *handle);
    }
    EXPECT_EQ(copy.length(), 2U);
    EXPECT_EQ(copy.data()[1], 'b');
}

TYPED_TEST(ASN1Strings, CopiedHandlesShareTheBody) {
    const Bytes bytes = TypeParam::der({'a', 'b'});
    const typename TypeParam::Handle handle(bytes.data(), lengthOf(bytes));
    const typename TypeParam::Handle copy = handle; // NOLINT(performance-unnecessary-copy-initialization)
    typename TypeParam::Handle assigned;
    assigned = handle;
    EXPECT_EQ(&*copy, &*handle);
    EXPECT_EQ(&*assigned, &*handle);
    EXPECT_EQ(handle->referenceCount(), 3);
}

TYPED_TEST(ASN1Strings, DamagedDer) {
    const Bytes good = TypeParam::der(norvauthority::bytes("hello, world"));
    for (const auto& damaged : {norvtest::properPrefixes(good), norvtest::oversized(good)}) {
        for (const Bytes& bad : damaged) {
            const typename TypeParam::Handle handle(bad.data(), lengthOf(bad));
            ASSERT_FALSE(handle.isNull());
            EXPECT_EQ(handle->object(), nullptr) << toHex(bad);
            EXPECT_EQ(handle->length(), 0U);
        }
    }
    for (const Bytes& flipped : norvtest::bitFlips(good)) {
        const typename TypeParam::Handle handle(flipped.data(), lengthOf(flipped));
        EXPECT_LT(handle->length(), flipped.size()) << toHex(flipped);
    }
    EXPECT_EQ(typename TypeParam::Handle(nullptr, 7)->object(), nullptr);
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1OctetString, HandleEquality) {
    const Bytes bytes = fromHex("0403aabbcc");
    const RefOctetString first(bytes.data(), 5);
    const RefOctetString second(bytes.data(), 5);
    const RefOctetString empty(nullptr, 0);
    const RefOctetString null;
    const RefOctetString otherNull;
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first != second);
    EXPECT_TRUE(empty == empty); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(empty == RefOctetString(nullptr, 0));
    EXPECT_FALSE(first == empty);
    EXPECT_FALSE(null == otherNull);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
}

TEST(ASN1IA5String, HandleEquality) {
    const Bytes a = fromHex("160161");
    const Bytes b = fromHex("160162");
    const RefIA5String first(a.data(), 3);
    const RefIA5String second(a.data(), 3);
    const RefIA5String other(b.data(), 3);
    const RefIA5String null;
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first == other);
    EXPECT_FALSE(null == RefIA5String());
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
}

TEST(ASN1BitString, HandlesOnDifferentBitsCompareEqualDeliberately) {
    const Bytes a = fromHex("03020780");
    const Bytes b = fromHex("03020560");
    const RefBitString first(a.data(), 4);
    const RefBitString second(b.data(), 4);
    const RefBitString null;
    const RefBitString otherNull;
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first != second);
    EXPECT_FALSE(*first == *second);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
    EXPECT_FALSE(null == otherNull);
}

} // namespace
