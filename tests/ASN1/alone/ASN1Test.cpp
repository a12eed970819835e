#include "support/HostileDer.h"
#include "support/Interpose.h"
#include "support/Thrown.h"

#include <norvcrypto/ASN1.h>

#include <authority/Der.h>

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

using namespace Norvane::Crypto::ASN1;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::toHex;
using norvtest::errorQueueIsEmpty;
using norvtest::lengthOf;
namespace der = norvauthority::der;

namespace {

bool s_withoutCopies = false;

} // namespace

extern "C" ASN1_STRING* ASN1_STRING_dup(const ASN1_STRING* string) {
    return s_withoutCopies ? nullptr : norvtest::next<&ASN1_STRING_dup>("ASN1_STRING_dup")(string);
}

extern "C" ASN1_OBJECT* OBJ_dup(const ASN1_OBJECT* object) {
    return s_withoutCopies ? nullptr : norvtest::next<&OBJ_dup>("OBJ_dup")(object);
}

namespace {

struct FreeString {
    void operator()(ASN1_STRING* string) const { ASN1_STRING_free(string); }
};
using StringPtr = std::unique_ptr<ASN1_STRING, FreeString>;

StringPtr string(int type, const std::string& content) {
    StringPtr made(ASN1_STRING_type_new(type));
    ASN1_STRING_set(made.get(), content.data(), static_cast<int>(content.size()));
    return made;
}

/// An OpenSSL integer from "-" and hexadecimal digits.
StringPtr integer(const std::string& digits) {
    BIGNUM* number = nullptr;
    BN_hex2bn(&number, digits.c_str());
    StringPtr made(BN_to_ASN1_INTEGER(number, nullptr));
    BN_free(number);
    return made;
}

std::string hexOf(const Norvane::Buffer& buffer) {
    return toHex(Bytes(buffer.data(), buffer.data() + buffer.length()));
}

template <class Value> std::string printed(const Value& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

void expectTypeFailure(const Norvane::Exception& thrown) {
    norvtest::expectFailure(thrown, "ASN1::Integer::Integer", 4, "ASN1", 25);
    EXPECT_EQ(norvtest::detailOf(thrown), "Parameter value is not an ASN1 Integer");
    EXPECT_FALSE(thrown.hasCause());
}

// ---------------------------------------------------------------------------------------------------- integers

TEST(ASN1Integer, NegativeTypeIsRefused) {
    const StringPtr negative = integer("-1");
    ASSERT_EQ(ASN1_STRING_type(negative.get()), 0x102);
    expectTypeFailure(norvtest::thrownBy([&] { const Integer refused(negative.get()); }));
    expectTypeFailure(norvtest::thrownBy([&] { const RefInteger refused(negative.get()); }));
}

TEST(ASN1Integer, NegativeDerIsRefused) {
    const Bytes minusOne = fromHex("0201ff");
    expectTypeFailure(norvtest::thrownBy([&] { const RefInteger refused(minusOne.data(), 3); }));
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1Integer, OtherTypesAreRefused) {
    for (const int type : {V_ASN1_OCTET_STRING, V_ASN1_ENUMERATED, V_ASN1_BIT_STRING, V_ASN1_UTCTIME}) {
        const StringPtr other = string(type, "\x05");
        expectTypeFailure(norvtest::thrownBy([&] { const Integer refused(other.get()); }));
    }
}

TEST(ASN1Integer, AsIntOfNullThrows) {
    const Integer null(nullptr);
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(null.asInt()); });
    norvtest::expectFailure(thrown, "ASN1::Integer::Integer", 4, "ASN1", 47);
    EXPECT_EQ(norvtest::detailOf(thrown), "Encoding value is Null");
}

TEST(ASN1Integer, NullIsEmptyEverywhere) {
    const Integer null;
    EXPECT_EQ(null.object(), nullptr);
    EXPECT_EQ(null.encoded().length(), 0U);
    EXPECT_EQ(null.content().length(), 0U);
    EXPECT_EQ(null.hex(), "");
    EXPECT_EQ(printed(null), "");
}

struct IntegerForms {
    const char* digits;
    const char* encoded;
    const char* content;
    const char* hex;
};

// ITU-T X.690, 8.3: the shortest two's complement, so that 80 needs a leading zero octet.
TEST(ASN1Integer, EncodingContentAndHex) {
    for (const IntegerForms& forms : {IntegerForms{"0", "020100", "00", "00"}, //
                                      {"5", "020105", "05", "05"},             //
                                      {"7F", "02017f", "7f", "7f"},            //
                                      {"80", "02020080", "0080", "80"},        //
                                      {"0100", "02020100", "0100", "0100"},    //
                                      {"DEADBEEF", "020500deadbeef", "00deadbeef", "deadbeef"}}) {
        const StringPtr object = integer(forms.digits);
        const Integer value(object.get());
        EXPECT_EQ(hexOf(value.encoded()), forms.encoded);
        EXPECT_EQ(hexOf(value.content()), forms.content);
        EXPECT_EQ(value.hex(), forms.hex);
        EXPECT_EQ(printed(value), forms.hex);
    }
}

TEST(ASN1Integer, LongContentHasALongLength) {
    const StringPtr object = integer("01" + std::string(std::size_t{2} * 199, '0'));
    const Integer value(object.get());
    EXPECT_EQ(value.encoded().length(), 203U);
    EXPECT_EQ(hexOf(value.encoded()).substr(0, 8), "0281c801");
    EXPECT_EQ(value.content().length(), 200U);
}

TEST(ASN1Integer, AsInt) {
    const StringPtr zero = integer("0");
    const StringPtr small = integer("80");
    const StringPtr largest = integer("7FFFFFFF");
    EXPECT_EQ(Integer(zero.get()).asInt(), 0);
    EXPECT_EQ(Integer(small.get()).asInt(), 128);
    EXPECT_EQ(Integer(largest.get()).asInt(), 2147483647);
}

TEST(ASN1Integer, AsIntBeyond32BitsKeepsTheLowOnesDeliberately) {
    const StringPtr object = integer("0100000005");
    EXPECT_EQ(Integer(object.get()).asInt(), 5);
}

TEST(ASN1Integer, AsIntBeyondLongIsMinusOneAndQueuesNothing) {
    const StringPtr object = integer("0123456789ABCDEF0123456789ABCDEF01234567");
    EXPECT_EQ(Integer(object.get()).asInt(), -1);
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1Integer, AsIntIsComputedOnce) {
    const StringPtr object = integer("5");
    const Integer value(object.get());
    EXPECT_EQ(value.asInt(), 5);
    ASN1_INTEGER_set(object.get(), 9);
    EXPECT_EQ(value.asInt(), 5);
    EXPECT_EQ(Integer(object.get()).asInt(), 9);
}

TEST(ASN1Integer, OrderIsNumeric) {
    const std::vector<std::string> ascending{"0",
                                             "1",
                                             "7F",
                                             "80",
                                             "FF",
                                             "0100",
                                             "7FFF",
                                             "8000",
                                             "FFFFFF",
                                             "01000000",
                                             "7FFFFFFF",
                                             "80000000",
                                             "FFFFFFFF",
                                             "0100000000",
                                             "7FFFFFFFFFFFFFFF",
                                             "FFFFFFFFFFFFFFFF",
                                             "010000000000000000",
                                             "0123456789ABCDEF0123456789ABCDEF01234566",
                                             "0123456789ABCDEF0123456789ABCDEF01234567",
                                             "FF23456789ABCDEF0123456789ABCDEF01234567"};
    std::vector<StringPtr> objects;
    for (const auto& digits : ascending) {
        objects.push_back(integer(digits));
    }
    for (std::size_t i = 0; i < objects.size(); ++i) {
        for (std::size_t j = 0; j < objects.size(); ++j) {
            const Integer left(objects[i].get());
            const Integer right(objects[j].get());
            EXPECT_EQ(left < right, i < j) << ascending[i] << " < " << ascending[j];
            EXPECT_EQ(left <= right, i <= j) << ascending[i] << " <= " << ascending[j];
            EXPECT_EQ(left == right, i == j) << ascending[i] << " == " << ascending[j];
            EXPECT_EQ(left != right, i != j) << ascending[i] << " != " << ascending[j];
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1Integer, NullOrderAndEquality) {
    const StringPtr object = integer("0");
    const Integer null;
    const Integer otherNull;
    const Integer zero(object.get());
    EXPECT_TRUE(null < zero);
    EXPECT_FALSE(zero < null);
    EXPECT_FALSE(null < otherNull);
    EXPECT_FALSE(null == otherNull);
    EXPECT_TRUE(null != otherNull);
    EXPECT_FALSE(null == zero);
    EXPECT_FALSE(zero == null);
    EXPECT_TRUE(null <= zero);
    EXPECT_FALSE(null <= otherNull);
}

TEST(ASN1Integer, BorrowingCopiesAsBorrowing) {
    const StringPtr object = integer("1234");
    const Integer value(object.get());
    const Integer copy = value; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.object(), object.get());
    Integer assigned;
    assigned = value;
    EXPECT_EQ(assigned.object(), object.get());
    EXPECT_TRUE(assigned == value);
}

TEST(ASN1Integer, OwningCopiesDeeply) {
    Integer copy;
    {
        const Bytes bytes = fromHex("02021234");
        const RefInteger handle(bytes.data(), lengthOf(bytes));
        copy = *handle;
        EXPECT_NE(copy.object(), handle->object());
        EXPECT_TRUE(copy == *handle);
    }
    EXPECT_EQ(copy.hex(), "1234");
    EXPECT_EQ(copy.asInt(), 0x1234);
}

// A copy that came out empty would compare, and print, as a value that was never there.
TEST(ASN1Values, WithoutMemoryNoCopyIsEmpty) {
    const Bytes seven = fromHex("020107");
    const RefInteger number(seven.data(), 3);
    const RefObjectIdentifier unknown(std::string("1.3.6.1.4.1.99999.1"));
    const StringPtr text = string(V_ASN1_UTCTIME, "260101000000Z");
    const GeneralizedTime time(text.get(), false);
    const Integer empty;
    const norvtest::During<bool> failing(s_withoutCopies, true);
    EXPECT_THROW(const Integer copy(*number), std::bad_alloc);
    EXPECT_THROW(const ObjectIdentifier copy(*unknown), std::bad_alloc);
    EXPECT_THROW(const GeneralizedTime copy(time), std::bad_alloc);
    EXPECT_EQ(Integer(empty).object(), nullptr);
    EXPECT_EQ(GeneralizedTime(GeneralizedTime(text.get(), true)).object(), text.get());
}

TEST(ASN1Integer, HandleFromNullValueIsNull) {
    EXPECT_TRUE(RefInteger(Integer()).isNull());
}

TEST(ASN1Integer, HandleFromValueIsADeepCopy) {
    RefInteger handle;
    {
        const StringPtr object = integer("80");
        handle = RefInteger(Integer(object.get()));
    }
    EXPECT_EQ(handle->hex(), "80");
    EXPECT_EQ(hexOf(handle->encoded()), "02020080");
}

TEST(ASN1Integer, HandleFromNullPointerHasAnEmptyBody) {
    const RefInteger handle(static_cast<const asn1_string_st*>(nullptr));
    ASSERT_FALSE(handle.isNull());
    EXPECT_EQ(handle->object(), nullptr);
    EXPECT_EQ(printed(handle), "");
}

TEST(ASN1Integer, HandlesOnDifferentNumbersCompareEqualDeliberately) {
    const StringPtr one = integer("1");
    const StringPtr two = integer("2");
    const RefInteger first(one.get());
    const RefInteger second(two.get());
    const RefInteger null;
    const RefInteger otherNull;
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first != second);
    EXPECT_FALSE(*first == *second);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
    EXPECT_FALSE(null == otherNull);
    EXPECT_TRUE(null != otherNull);
}

TEST(ASN1Integer, HandlesShareTheBody) {
    const Bytes bytes = fromHex("020105");
    RefInteger second;
    {
        const RefInteger first(bytes.data(), lengthOf(bytes));
        second = first;
        EXPECT_EQ(&*first, &*second);
        EXPECT_EQ(first->referenceCount(), 2);
    }
    EXPECT_EQ(second->referenceCount(), 1);
    EXPECT_EQ(second->asInt(), 5);
}

TEST(ASN1Integer, DamagedDer) {
    const Bytes good = fromHex("020a0123456789abcdef0123");
    for (const Bytes& bad : norvtest::properPrefixes(good)) {
        const RefInteger handle(bad.data(), lengthOf(bad));
        ASSERT_FALSE(handle.isNull());
        EXPECT_EQ(handle->object(), nullptr) << toHex(bad);
        EXPECT_EQ(printed(handle), "");
    }
    for (const Bytes& bad : norvtest::oversized(good)) {
        EXPECT_EQ(RefInteger(bad.data(), lengthOf(bad))->object(), nullptr) << toHex(bad);
    }
    // Not minimal: X.690, 8.3.2.
    const Bytes padded = fromHex("02020005");
    EXPECT_EQ(RefInteger(padded.data(), 4)->object(), nullptr);
    EXPECT_EQ(RefInteger(nullptr, 5)->object(), nullptr);
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1Integer, FlippedBitsDecodeToTheirOwnBytesOrNothing) {
    const Bytes good = fromHex("02041234567f");
    for (const Bytes& flipped : norvtest::bitFlips(good)) {
        if (flipped[0] == 0x02 && flipped[1] == 0x04 && (flipped[2] & 0x80U) != 0) {
            expectTypeFailure(norvtest::thrownBy([&] { const RefInteger refused(flipped.data(), 6); }));
            continue;
        }
        const RefInteger handle(flipped.data(), lengthOf(flipped));
        if (handle->object() != nullptr) {
            EXPECT_EQ(hexOf(handle->encoded()), toHex(flipped).substr(0, 2 * handle->encoded().length()));
        } else {
            EXPECT_TRUE(flipped[0] != 0x02 || flipped[1] != 0x04) << toHex(flipped);
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1Integer, BytesAfterTheElementAreIgnored) {
    const Bytes bytes = fromHex("0201050500");
    EXPECT_EQ(RefInteger(bytes.data(), lengthOf(bytes))->asInt(), 5);
}

// ------------------------------------------------------------------------------------------- object identifiers

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

// ------------------------------------------------------------------------------------------------------ strings

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

// -------------------------------------------------------------------------------------------------------- times

void expectFields(const Norvane::Time& time, int year, int month, int day, int hours, int minutes, int seconds) {
    EXPECT_EQ(time.year(), year - 1900);
    EXPECT_EQ(time.month(), month - 1);
    EXPECT_EQ(time.dayOfMonth(), day);
    EXPECT_EQ(time.hours(), hours);
    EXPECT_EQ(time.minutes(), minutes);
    EXPECT_EQ(time.seconds(), seconds);
}

TEST(ASN1GeneralizedTime, Fields) {
    const StringPtr object = string(V_ASN1_GENERALIZEDTIME, "20261120111207Z");
    const GeneralizedTime time(object.get(), true);
    EXPECT_EQ(time.object(), object.get());
    expectFields(time.asTime(), 2026, 11, 20, 11, 12, 7);
    EXPECT_EQ(time.asTime().calendarSeconds(), 1795173127); // date -ud '2026-11-20 11:12:07' +%s
}

TEST(ASN1GeneralizedTime, UtcTimeGetsItsCentury) {
    const StringPtr late = string(V_ASN1_UTCTIME, "491231235959Z");
    const StringPtr early = string(V_ASN1_UTCTIME, "500101000000Z");
    const GeneralizedTime twentyFirst(late.get(), false);
    const GeneralizedTime twentieth(early.get(), false);
    EXPECT_NE(twentyFirst.object(), late.get());
    EXPECT_EQ(ASN1_STRING_type(twentyFirst.object()), V_ASN1_GENERALIZEDTIME);
    expectFields(twentyFirst.asTime(), 2049, 12, 31, 23, 59, 59);
    expectFields(twentieth.asTime(), 1950, 1, 1, 0, 0, 0);
}

TEST(ASN1GeneralizedTime, ConvertedTimeIsIndependent) {
    StringPtr object = string(V_ASN1_GENERALIZEDTIME, "20300102030405Z");
    const RefGeneralizedTime handle(object.get(), false);
    object.reset();
    expectFields(handle->asTime(), 2030, 1, 2, 3, 4, 5);
}

TEST(ASN1GeneralizedTime, FractionsAndZonesAreIgnoredDeliberately) {
    for (const char* text : {"20300102030405.75Z", "20300102030405+0530", "20300102030405.5-0800"}) {
        const StringPtr object = string(V_ASN1_GENERALIZEDTIME, text);
        expectFields(GeneralizedTime(object.get(), true).asTime(), 2030, 1, 2, 3, 4, 5);
    }
    const StringPtr general = string(V_ASN1_GENERALIZEDTIME, "20300102030405+0530");
    expectFields(GeneralizedTime(general.get(), false).asTime(), 2030, 1, 2, 3, 4, 5);
    const StringPtr utc = string(V_ASN1_UTCTIME, "300102030405-0800");
    expectFields(GeneralizedTime(utc.get(), false).asTime(), 2030, 1, 2, 3, 4, 5);
}

TEST(ASN1GeneralizedTime, ShortTextsAndNoObjectGiveTheDefaultTime) {
    const StringPtr noSeconds = string(V_ASN1_GENERALIZEDTIME, "202611201112Z");
    const StringPtr wrappedUtc = string(V_ASN1_UTCTIME, "261120111207Z");
    const StringPtr nothing = string(V_ASN1_GENERALIZEDTIME, "");
    const StringPtr utcWithoutSeconds = string(V_ASN1_UTCTIME, "2611201112Z");
    for (const GeneralizedTime& time :
         {GeneralizedTime(noSeconds.get(), true), GeneralizedTime(wrappedUtc.get(), true),
          GeneralizedTime(nothing.get(), true), GeneralizedTime(utcWithoutSeconds.get(), false),
          GeneralizedTime(nullptr, true), GeneralizedTime(nullptr, false)}) {
        expectFields(time.asTime(), 1900, 1, 0, 0, 0, 0);
    }
}

TEST(ASN1GeneralizedTime, FourteenCharactersAreEnough) {
    const StringPtr fourteen = string(V_ASN1_GENERALIZEDTIME, "20261120111207");
    expectFields(GeneralizedTime(fourteen.get(), true).asTime(), 2026, 11, 20, 11, 12, 7);
    const StringPtr thirteen = string(V_ASN1_GENERALIZEDTIME, "2026112011120");
    expectFields(GeneralizedTime(thirteen.get(), true).asTime(), 1900, 1, 0, 0, 0, 0);
}

TEST(ASN1GeneralizedTime, InvalidTimesConvertToNothing) {
    for (const char* text : {"20261320111207Z", "not a time at all", "", "20261120111207"}) {
        const StringPtr object = string(V_ASN1_UTCTIME, text);
        EXPECT_EQ(GeneralizedTime(object.get(), false).object(), nullptr) << text;
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ASN1GeneralizedTime, ParsedOnceExceptIn1900) {
    const StringPtr object = string(V_ASN1_GENERALIZEDTIME, "20261120111207Z");
    const GeneralizedTime time(object.get(), true);
    expectFields(time.asTime(), 2026, 11, 20, 11, 12, 7);
    ASN1_STRING_set(object.get(), "20300102030405Z", 15);
    expectFields(time.asTime(), 2026, 11, 20, 11, 12, 7);

    const StringPtr old = string(V_ASN1_GENERALIZEDTIME, "19000102030405Z");
    const GeneralizedTime again(old.get(), true);
    expectFields(again.asTime(), 1900, 1, 2, 3, 4, 5);
    ASN1_STRING_set(old.get(), "19000605040302Z", 15);
    expectFields(again.asTime(), 1900, 6, 5, 4, 3, 2);
}

TEST(ASN1GeneralizedTime, EachFieldOfATimeIn1900IsParsedAgain) {
    const StringPtr object = string(V_ASN1_GENERALIZEDTIME, "19000102030405Z");
    const GeneralizedTime time(object.get(), true);
    expectFields(time.asTime(), 1900, 1, 2, 3, 4, 5);
    ASN1_STRING_set(object.get(), "19000102030406Z", 15);
    expectFields(time.asTime(), 1900, 1, 2, 3, 4, 6);
    ASN1_STRING_set(object.get(), "19000102030506Z", 15);
    expectFields(time.asTime(), 1900, 1, 2, 3, 5, 6);
    ASN1_STRING_set(object.get(), "19000102040506Z", 15);
    expectFields(time.asTime(), 1900, 1, 2, 4, 5, 6);
    ASN1_STRING_set(object.get(), "19000103040506Z", 15);
    expectFields(time.asTime(), 1900, 1, 3, 4, 5, 6);
    ASN1_STRING_set(object.get(), "19000203040506Z", 15);
    expectFields(time.asTime(), 1900, 2, 3, 4, 5, 6);
    ASN1_STRING_set(object.get(), "19010203040506Z", 15);
    expectFields(time.asTime(), 1901, 2, 3, 4, 5, 6);
}

TEST(ASN1GeneralizedTime, GarbageReadsAsTheDigitsItBeginsWith) {
    const StringPtr object = string(V_ASN1_GENERALIZEDTIME, "20x6!1-2+3 41xZ");
    expectFields(GeneralizedTime(object.get(), true).asTime(), 20, 0, 0, 0, 0, 1);
}

TEST(ASN1GeneralizedTime, Order) {
    const StringPtr early = string(V_ASN1_GENERALIZEDTIME, "20260101000000Z");
    const StringPtr late = string(V_ASN1_UTCTIME, "270101000000Z");
    const GeneralizedTime first(early.get(), true);
    const GeneralizedTime same(early.get(), false);
    const GeneralizedTime second(late.get(), false);
    const GeneralizedTime null(nullptr, true);
    const GeneralizedTime otherNull(nullptr, false);

    EXPECT_TRUE(first == same);
    EXPECT_FALSE(first == second);
    EXPECT_TRUE(first != second);
    EXPECT_TRUE(first < second);
    EXPECT_FALSE(second < first);
    EXPECT_FALSE(first < same);
    EXPECT_TRUE(first <= same);
    EXPECT_TRUE(first <= second);
    EXPECT_FALSE(second <= first);

    EXPECT_TRUE(null == otherNull);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
    EXPECT_TRUE(null < first);
    EXPECT_FALSE(first < null);
    EXPECT_FALSE(null < otherNull);
    EXPECT_TRUE(null <= first);
    EXPECT_TRUE(null <= otherNull);
    EXPECT_FALSE(first <= null);
}

TEST(ASN1GeneralizedTime, HandleOrder) {
    const StringPtr early = string(V_ASN1_GENERALIZEDTIME, "20260101000000Z");
    const StringPtr late = string(V_ASN1_GENERALIZEDTIME, "20270101000000Z");
    const RefGeneralizedTime first(early.get(), true);
    const RefGeneralizedTime same(early.get(), true);
    const RefGeneralizedTime shared = first; // NOLINT(performance-unnecessary-copy-initialization)
    const RefGeneralizedTime second(late.get(), true);
    const RefGeneralizedTime null;
    const RefGeneralizedTime otherNull;

    EXPECT_FALSE(null == otherNull);
    EXPECT_TRUE(null != otherNull);
    EXPECT_FALSE(null == first);
    EXPECT_FALSE(first == null);
    EXPECT_TRUE(first == shared);
    EXPECT_TRUE(first == same);
    EXPECT_FALSE(first == second);

    EXPECT_TRUE(first < second);
    EXPECT_FALSE(second < first);
    EXPECT_FALSE(first < shared);
    EXPECT_FALSE(null < first);
    EXPECT_FALSE(first < null);
    EXPECT_FALSE(null < otherNull);

    EXPECT_TRUE(first <= shared);
    EXPECT_TRUE(first <= second);
    EXPECT_FALSE(second <= first);
    EXPECT_FALSE(null <= otherNull);
    EXPECT_FALSE(null <= first);
}

TEST(ASN1GeneralizedTime, CopiesAreBodiesOfTheirOwn) {
    const StringPtr object = string(V_ASN1_UTCTIME, "261120111207Z");
    RefGeneralizedTime handle(object.get(), false);
    const RefGeneralizedTime shared = handle; // NOLINT(performance-unnecessary-copy-initialization)
    const GeneralizedTime copy = *handle;
    EXPECT_EQ(handle->referenceCount(), 2);
    EXPECT_EQ(copy.referenceCount(), 1);
    EXPECT_NE(copy.object(), handle->object());
    EXPECT_TRUE(copy == *shared);
}

// ----------------------------------------------------------------------------------------------------- printing

TEST(ASN1Printing, OctetStringsAndIntegersInHexadecimal) {
    const StringPtr octets = string(V_ASN1_OCTET_STRING, std::string("\x00\x0F\xAB", 3));
    EXPECT_EQ(printed(OctetString(octets.get())), "000fab");
    EXPECT_EQ(printed(RefOctetString(octets.get())), "000fab");
    EXPECT_EQ(printed(*octets), "000fab");
    EXPECT_EQ(printed(static_cast<const asn1_string_st*>(octets.get())), "000fab");
    const StringPtr number = integer("0FAB");
    EXPECT_EQ(printed(RefInteger(number.get())), "0fab");
}

TEST(ASN1Printing, NothingForNull) {
    EXPECT_EQ(printed(static_cast<const asn1_string_st*>(nullptr)), "");
    EXPECT_EQ(printed(OctetString()), "");
    EXPECT_EQ(printed(RefOctetString()), "");
    EXPECT_EQ(printed(RefOctetString(nullptr)), "");
    EXPECT_EQ(printed(RefInteger()), "");
}

TEST(ASN1Printing, OtherTypesByteByByte) {
    const StringPtr ia5 = string(V_ASN1_IA5STRING, "a\tb");
    EXPECT_EQ(printed(*ia5), "a0x9b");
    const StringPtr edges = string(V_ASN1_UTF8STRING, std::string("\x1F ~\x7F\0", 5));
    EXPECT_EQ(printed(*edges), "0x1f ~0x7f0x0");
    const StringPtr bits = string(V_ASN1_BIT_STRING, "A");
    EXPECT_EQ(printed(*bits), "A");
}

TEST(ASN1Printing, BytesFrom80PrintSignExtendedDeliberately) {
    const StringPtr latin = string(V_ASN1_T61STRING, "caf\xE9");
    EXPECT_EQ(printed(*latin), "caf0xffffffe9");
    const StringPtr edges = string(V_ASN1_T61STRING, "\x80\xFF");
    EXPECT_EQ(printed(*edges), "0xffffff800xffffffff");
}

TEST(ASN1Printing, StreamIsLeftInHexadecimalDeliberately) {
    for (const int type : {V_ASN1_OCTET_STRING, V_ASN1_INTEGER, V_ASN1_IA5STRING}) {
        const StringPtr value = string(type, "\x01");
        std::ostringstream out;
        out << *value << ' ' << 255;
        EXPECT_TRUE(out.str().ends_with(" ff")) << out.str();
    }
}

TEST(ASN1Printing, FormattingOfTheStreamDoesNotChangeTheText) {
    const StringPtr octets = string(V_ASN1_OCTET_STRING, "\x0F\xAB");
    const StringPtr text = string(V_ASN1_IA5STRING, "\xE9");
    std::ostringstream out;
    out << std::uppercase << std::showbase << *octets << *text;
    EXPECT_EQ(out.str(), "0fab0xffffffe9");
}

// RFC 5280 times as OpenSSL's tools print them.
TEST(ASN1Printing, Times) {
    const StringPtr utc = string(V_ASN1_UTCTIME, "261120111207Z");
    const StringPtr general = string(V_ASN1_GENERALIZEDTIME, "20510203040506Z");
    EXPECT_EQ(printed(*utc), "Nov 20 11:12:07 2026 GMT");
    EXPECT_EQ(printed(*general), "Feb  3 04:05:06 2051 GMT");
}

TEST(ASN1Printing, BadTimes) {
    const StringPtr bad = string(V_ASN1_UTCTIME, "nonsense");
    EXPECT_EQ(printed(*bad), "Bad time value");
    EXPECT_TRUE(errorQueueIsEmpty());
}

// ------------------------------------------------------------------------------------------------- what it offers

static_assert(!std::is_copy_constructible_v<_Integer> && !std::is_copy_assignable_v<_Integer>);
static_assert(!std::is_copy_constructible_v<_BitString>);
static_assert(std::is_base_of_v<Norvane::RefImpl, _Integer> && std::is_base_of_v<Norvane::NonCopyable, _Integer>);
static_assert(std::is_base_of_v<Norvane::RefImpl, GeneralizedTime>);
static_assert(!std::is_constructible_v<OctetString, const unsigned char*, unsigned int>);
static_assert(sizeof(RefInteger) == sizeof(Norvane::Ref<_Integer>));

} // namespace
