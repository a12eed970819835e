#include "ASN1/Values.h"

namespace {

using namespace asn1testing;

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

} // namespace
