#include <norvcmsg/Time.h>

#include <norvcmsg/Exception.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <limits>

namespace Norvane {

namespace {

constexpr std::int64_t secondsPerDay = 86400;

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

constexpr std::int64_t yearsPerEra = 400; // after which the calendar repeats
constexpr std::int64_t daysPerEra = 146097;

/// Days from 1970-01-01 to the first of a month (0 to 11). The standard calendar ends at the year 32767; eras carry on.
constexpr std::int64_t daysToMonth(std::int64_t year, std::int64_t month) {
    const auto era = floorDivide(year, yearsPerEra);
    const std::chrono::year_month_day first{std::chrono::year{static_cast<int>(year - era * yearsPerEra)},
                                            std::chrono::month{static_cast<unsigned int>(month + 1)},
                                            std::chrono::day{1}};
    return era * daysPerEra + std::chrono::sys_days{first}.time_since_epoch().count();
}

static_assert(daysToMonth(1970, 0) == 0 && daysToMonth(2000, 2) == 11017);

} // namespace

Time::Time() = default;

Time Time::fromCalendarSeconds(std::int64_t seconds) {
    const auto days = floorDivide(seconds, secondsPerDay);
    const auto remainder = static_cast<int>(seconds % secondsPerDay);
    const auto secondOfDay = remainder < 0 ? remainder + static_cast<int>(secondsPerDay) : remainder;
    const auto era = floorDivide(days, daysPerEra);
    const std::chrono::sys_days dayOfEra{std::chrono::days{days - era * daysPerEra}};
    const std::chrono::year_month_day date{dayOfEra};
    const auto year = static_cast<int>(date.year()) + era * yearsPerEra - 1900;
    if (year < std::numeric_limits<int>::min() || year > std::numeric_limits<int>::max()) {
        throw Exception("Time::fromCalendarSeconds", 4, "Time", __LINE__).stringParameter(std::to_string(seconds));
    }
    Time time;
    time.m_year = static_cast<int>(year);
    time.m_month = static_cast<int>(static_cast<unsigned int>(date.month())) - 1;
    time.m_dayOfMonth = static_cast<int>(static_cast<unsigned int>(date.day()));
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
