#include <norvcmsg/Time.h>

#include <norvcmsg/Exception.h>

#include <cstdio>
#include <ctime>
#include <limits>

namespace Norvane {

namespace {

constexpr std::int64_t secondsPerDay = 86400;

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

/// Days from 1970-01-01 to the first of a month (0 to 11). Years begin in March here, so that the leap day is the last
/// of its year, and come in eras of 400, after which the calendar repeats.
constexpr std::int64_t daysToMonth(std::int64_t year, std::int64_t month) {
    const auto shifted = month < 2 ? year - 1 : year;
    const auto era = floorDivide(shifted, 400);
    const auto yearOfEra = shifted - era * 400;
    const auto dayOfYear = (153 * ((month + 10) % 12) + 2) / 5;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

static_assert(daysToMonth(1970, 0) == 0 && daysToMonth(2000, 2) == 11017);

} // namespace

Time::Time() = default;

Time Time::fromCalendarSeconds(std::int64_t seconds) {
    const auto days = floorDivide(seconds, secondsPerDay);
    const auto remainder = static_cast<int>(seconds % secondsPerDay);
    const auto secondOfDay = remainder < 0 ? remainder + static_cast<int>(secondsPerDay) : remainder;
    const auto era = floorDivide(days + 719468, 146097);
    const auto dayOfEra = days + 719468 - era * 146097;
    const auto yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const auto dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const auto shiftedMonth = (5 * dayOfYear + 2) / 153;
    const auto month = (shiftedMonth + 2) % 12;
    const auto year = yearOfEra + era * 400 + (month < 2 ? 1 : 0) - 1900;
    if (year < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max()) {
        throw Exception("Time::fromCalendarSeconds", 4, "Time", __LINE__).stringParameter(std::to_string(seconds));
    }
    Time time;
    time.m_year = static_cast<int>(year);
    time.m_month = static_cast<int>(month);
    time.m_dayOfMonth = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    time.m_hours = secondOfDay / 3600;
    time.m_minutes = secondOfDay / 60 % 60;
    time.m_seconds = secondOfDay % 60;
    return time;
}

Time Time::now() {
    return fromCalendarSeconds(std::time(nullptr));
}

std::int64_t Time::calendarSeconds() const noexcept {
    const auto carried = floorDivide(m_month, 12);
    const auto days = daysToMonth(std::int64_t{1900} + m_year + carried, m_month - carried * 12) + m_dayOfMonth - 1;
    return days * secondsPerDay + std::int64_t{3600} * m_hours + std::int64_t{60} * m_minutes + m_seconds;
}

std::string Time::asString() const {
    const auto time = fromCalendarSeconds(calendarSeconds());
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02d-%02dT%02d:%02d:%02dZ", 1900LL + time.m_year, time.m_month + 1,
                  time.m_dayOfMonth, time.m_hours, time.m_minutes, time.m_seconds);
    return text;
}

} // namespace Norvane
