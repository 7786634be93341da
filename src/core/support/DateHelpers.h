#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace pointlane {

// The calendar vocabulary of the user interface and the date texts of the stored records.
// Thread safe: pure functions (the local time zone is read through localtime_r/mktime).

enum class DateContent { date, dateAndTime };

enum class DateFormat { dateAndTime, date, time, timeExt, dayAndMonth };

// Days of the week, Monday first.
// The names are the Polish ones, as the interface shows them.
enum class DayName { poniedziałek = 1, wtorek, środa, czwartek, piątek, sobota, niedziela };

enum class MonthName {
    styczeń = 1,
    luty,
    marzec,
    kwiecień,
    maj,
    czerwiec,
    lipiec,
    sierpień,
    wrzesień,
    październik,
    listopad,
    grudzień,
};

// 1..7; anything else gives nothing.
std::optional<DayName> dayNameFrom(int value);
// 1..12; anything else gives nothing.
std::optional<MonthName> monthNameFrom(int value);
int toInt(DayName day);
int toInt(MonthName month);
// The Polish name in lower case, UTF-8 ("poniedziałek", "styczeń", ...).
std::string toString(DayName day);
std::string toString(MonthName month);

using DateClock = std::chrono::system_clock;

// "yyyy-MM-dd HH:mm:ss" in local time.
std::string formatLocalDateTime(DateClock::time_point date);
// "yyyy-MM-dd" in local time.
std::string formatLocalDate(DateClock::time_point date);
// ISO 8601 in local time with the zone's offset: "yyyy-MM-ddTHH:mm:ss+hh:mm".
std::string formatIso8601(DateClock::time_point date);
// "yyyy-MM-dd HH:mm:ss +0000": the moment in UTC.
std::string formatUtcDescription(DateClock::time_point date);
// Strictly "yyyy-MM-dd HH:mm:ss" (zero-padded, a space between date and time) in local time;
// nothing for any other text or an impossible date.
std::optional<DateClock::time_point> parseLocalDateTime(const std::string& text);

}  // namespace pointlane
