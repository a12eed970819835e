#include <norvcmsg/Exception.h>
#include <norvcmsg/Time.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <ostream>
#include <string>

namespace {

using Norvane::Time;

Time timeOf(int year, int month, int day, int hours, int minutes, int seconds) {
    Time time;
    time.year(year - 1900);
    time.month(month - 1);
    time.dayOfMonth(day);
    time.hours(hours);
    time.minutes(minutes);
    time.seconds(seconds);
    return time;
}

TEST(Time, AllFieldsAreZeroAtFirst) {
    const Time time;
    EXPECT_EQ(time.seconds(), 0);
    EXPECT_EQ(time.minutes(), 0);
    EXPECT_EQ(time.hours(), 0);
    EXPECT_EQ(time.dayOfMonth(), 0);
    EXPECT_EQ(time.month(), 0);
    EXPECT_EQ(time.year(), 0);
    EXPECT_EQ(time.asString(), "1899-12-31T00:00:00Z") << "day 0 is the last one of the month before";
    EXPECT_EQ(time.calendarSeconds(), -2209075200);
}

TEST(Time, FieldsStayAsTheyAreSet) {
    Time time = timeOf(2026, 13, 40, 25, 61, 99);
    static_cast<void>(time.calendarSeconds());
    EXPECT_EQ(time.year(), 126);
    EXPECT_EQ(time.month(), 12);
    EXPECT_EQ(time.dayOfMonth(), 40);
    EXPECT_EQ(time.hours(), 25);
    EXPECT_EQ(time.minutes(), 61);
    EXPECT_EQ(time.seconds(), 99);
}

struct Row {
    Time time;
    std::int64_t seconds; // as `date -u -d` tells them
    const char* text;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.text;
}

class TimeConversion : public testing::TestWithParam<Row> {};

TEST_P(TimeConversion, GoesBothWays) {
    const auto& row = GetParam();
    EXPECT_EQ(row.time.calendarSeconds(), row.seconds);
    EXPECT_EQ(row.time.asString(), row.text);
    const auto back = Time::fromCalendarSeconds(row.seconds);
    EXPECT_EQ(back.year(), row.time.year());
    EXPECT_EQ(back.month(), row.time.month());
    EXPECT_EQ(back.dayOfMonth(), row.time.dayOfMonth());
    EXPECT_EQ(back.hours(), row.time.hours());
    EXPECT_EQ(back.minutes(), row.time.minutes());
    EXPECT_EQ(back.seconds(), row.time.seconds());
}

INSTANTIATE_TEST_SUITE_P(Dates, TimeConversion,
                         testing::Values(Row{timeOf(1970, 1, 1, 0, 0, 0), 0, "1970-01-01T00:00:00Z"},
                                         Row{timeOf(1969, 12, 31, 23, 59, 59), -1, "1969-12-31T23:59:59Z"},
                                         Row{timeOf(2000, 2, 29, 23, 59, 59), 951868799, "2000-02-29T23:59:59Z"},
                                         Row{timeOf(1900, 3, 1, 0, 0, 0), -2203891200, "1900-03-01T00:00:00Z"},
                                         Row{timeOf(2038, 1, 19, 3, 14, 8), 2147483648, "2038-01-19T03:14:08Z"},
                                         Row{timeOf(9999, 12, 31, 23, 59, 59), 253402300799, "9999-12-31T23:59:59Z"},
                                         Row{timeOf(1600, 2, 29, 12, 0, 0), -11670955200, "1600-02-29T12:00:00Z"},
                                         Row{timeOf(2100, 3, 1, 0, 0, 0), 4107542400, "2100-03-01T00:00:00Z"},
                                         Row{timeOf(1, 1, 1, 0, 0, 0), -62135596800, "0001-01-01T00:00:00Z"},
                                         Row{timeOf(2026, 11, 20, 11, 12, 7), 1795173127, "2026-11-20T11:12:07Z"}));

TEST(Time, AgreesWithTimegmDayByDay) {
    for (std::int64_t day = -200'000; day < 200'000; day += 1) {
        const std::time_t seconds = day * 86'400 + 3'723;
        std::tm fields{};
        ASSERT_NE(gmtime_r(&seconds, &fields), nullptr);
        const auto time = Time::fromCalendarSeconds(seconds);
        ASSERT_EQ(time.year(), fields.tm_year) << day;
        ASSERT_EQ(time.month(), fields.tm_mon) << day;
        ASSERT_EQ(time.dayOfMonth(), fields.tm_mday) << day;
        ASSERT_EQ(time.calendarSeconds(), seconds);
    }
}

TEST(Time, FieldsOutOfRangeCarryOver) {
    EXPECT_EQ(timeOf(2026, 13, 1, 0, 0, 0).asString(), "2027-01-01T00:00:00Z");
    EXPECT_EQ(timeOf(2026, 0, 1, 0, 0, 0).asString(), "2025-12-01T00:00:00Z");
    EXPECT_EQ(timeOf(2026, -11, 1, 0, 0, 0).asString(), "2025-01-01T00:00:00Z");
    EXPECT_EQ(timeOf(2026, 3, 0, 0, 0, 0).asString(), "2026-02-28T00:00:00Z");
    EXPECT_EQ(timeOf(2026, 2, 30, 0, 0, 0).asString(), "2026-03-02T00:00:00Z");
    EXPECT_EQ(timeOf(2026, 12, 31, 23, 59, 60).asString(), "2027-01-01T00:00:00Z");
    EXPECT_EQ(timeOf(2026, 1, 1, 0, 0, -1).asString(), "2025-12-31T23:59:59Z");
}

TEST(Time, ExtremeFieldsDoNotOverflow) {
    Time late;
    late.year(INT_MAX);
    late.month(INT_MAX);
    late.dayOfMonth(INT_MAX);
    late.hours(INT_MAX);
    late.minutes(INT_MAX);
    late.seconds(INT_MAX);
    Time early;
    early.year(INT_MIN);
    early.month(INT_MIN);
    early.dayOfMonth(INT_MIN);
    early.hours(INT_MIN);
    early.minutes(INT_MIN);
    early.seconds(INT_MIN);
    EXPECT_TRUE(early < late);
    EXPECT_GT(late.calendarSeconds(), 67'000'000'000'000'000);
    EXPECT_LT(early.calendarSeconds(), -67'000'000'000'000'000);
    EXPECT_THROW(static_cast<void>(late.asString()), Norvane::Exception);
}

TEST(Time, SecondsWhoseYearDoesNotFitThrow) {
    for (const auto seconds : {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
        try {
            static_cast<void>(Time::fromCalendarSeconds(seconds));
            FAIL() << "nothing thrown";
        } catch (const Norvane::Exception& failure) {
            EXPECT_EQ(failure.where(), "Time::fromCalendarSeconds");
            EXPECT_EQ(failure.code(), 4);
        }
    }
}

TEST(Time, ComparesByCalendarSeconds) {
    const auto noon = timeOf(2026, 11, 20, 12, 0, 0);
    const auto later = timeOf(2026, 11, 20, 12, 0, 1);
    EXPECT_TRUE(noon == timeOf(2026, 11, 20, 11, 60, 0));
    EXPECT_FALSE(noon == later);
    EXPECT_TRUE(noon != later);
    EXPECT_TRUE(noon < later);
    EXPECT_FALSE(later < noon);
    EXPECT_FALSE(noon < timeOf(2026, 11, 20, 12, 0, 0));
    EXPECT_TRUE(noon <= timeOf(2026, 11, 20, 12, 0, 0));
    EXPECT_TRUE(noon <= later);
    EXPECT_FALSE(later <= noon);
    EXPECT_TRUE(timeOf(2025, 12, 31, 0, 0, 0) < timeOf(2026, 1, 1, 0, 0, 0));
    EXPECT_TRUE(Time() == Time());
}

TEST(Time, NowIsThisMoment) {
    const auto before = std::time(nullptr);
    const auto now = Time::now().calendarSeconds();
    EXPECT_LE(before, now);
    EXPECT_LE(now, std::time(nullptr));
}

} // namespace
