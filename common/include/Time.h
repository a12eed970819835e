#ifndef NORVCMSG_TIME_H
#define NORVCMSG_TIME_H

/// \file
/// A point in time as broken-down calendar fields, in UTC.
///
/// \code
/// Norvane::Time time;
/// time.year(126);  // 2026
/// time.month(10);  // November
/// time.dayOfMonth(20);
/// time.calendarSeconds(); // 1795132800
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>

#include <cstdint>
#include <string>

namespace Norvane {

/// Six fields that are kept as they are set; they need not be in range. One that is not carries over when the time is
/// converted or compared: month 12 of a year is month 0 of the next, day 0 the last day of the month before.
class NORVCMSG_EXPORT Time {
public:
    /// All fields 0.
    Time();
    /// The time `seconds` seconds after 1970-01-01 00:00:00 UTC.
    /// \throws Exception "Time::fromCalendarSeconds", code 4: the year does not fit the field
    static Time fromCalendarSeconds(std::int64_t seconds);
    /// This moment.
    static Time now();

    /// 0 to 59, 60 in a leap second.
    [[nodiscard]] int seconds() const noexcept { return m_seconds; }
    void seconds(int value) noexcept { m_seconds = value; }
    /// 0 to 59.
    [[nodiscard]] int minutes() const noexcept { return m_minutes; }
    void minutes(int value) noexcept { m_minutes = value; }
    /// 0 to 23.
    [[nodiscard]] int hours() const noexcept { return m_hours; }
    void hours(int value) noexcept { m_hours = value; }
    /// 1 to 31.
    [[nodiscard]] int dayOfMonth() const noexcept { return m_dayOfMonth; }
    void dayOfMonth(int value) noexcept { m_dayOfMonth = value; }
    /// 0 (January) to 11.
    [[nodiscard]] int month() const noexcept { return m_month; }
    void month(int value) noexcept { m_month = value; }
    /// Years since 1900.
    [[nodiscard]] int year() const noexcept { return m_year; }
    void year(int value) noexcept { m_year = value; }

    /// The seconds since 1970-01-01 00:00:00 UTC, leap seconds not counted, in the Gregorian calendar throughout.
    [[nodiscard]] std::int64_t calendarSeconds() const noexcept;
    /// As ISO 8601 writes it: "2026-11-20T11:12:07Z", fields out of range carried over.
    /// \throws Exception as `fromCalendarSeconds()` does, when they carry the year out of its field
    [[nodiscard]] std::string asString() const;

    /// Comparisons are by calendar seconds.
    bool operator==(const Time& other) const noexcept { return calendarSeconds() == other.calendarSeconds(); }
    bool operator<(const Time& other) const noexcept { return calendarSeconds() < other.calendarSeconds(); }
    bool operator<=(const Time& other) const noexcept { return calendarSeconds() <= other.calendarSeconds(); }

private:
    int m_seconds = 0;
    int m_minutes = 0;
    int m_hours = 0;
    int m_dayOfMonth = 0;
    int m_month = 0;
    int m_year = 0;
};

} // namespace Norvane

#endif
