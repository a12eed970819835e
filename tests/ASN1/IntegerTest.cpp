#include "ASN1/Values.h"

#include <type_traits>
#include <vector>

namespace {

using namespace asn1testing;

void expectTypeFailure(const Norvane::Exception& thrown) {
    norvtest::expectFailure(thrown, "ASN1::Integer::Integer", 4, "ASN1", 25);
    EXPECT_EQ(norvtest::detailOf(thrown), "Parameter value is not an ASN1 Integer");
    EXPECT_FALSE(thrown.hasCause());
}

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

// What a value offers.
static_assert(!std::is_copy_constructible_v<_Integer> && !std::is_copy_assignable_v<_Integer>);
static_assert(!std::is_copy_constructible_v<_BitString>);
static_assert(std::is_base_of_v<Norvane::RefImpl, _Integer> && std::is_base_of_v<Norvane::NonCopyable, _Integer>);
static_assert(std::is_base_of_v<Norvane::RefImpl, GeneralizedTime>);
static_assert(!std::is_constructible_v<OctetString, const unsigned char*, unsigned int>);
static_assert(sizeof(RefInteger) == sizeof(Norvane::Ref<_Integer>));

} // namespace
