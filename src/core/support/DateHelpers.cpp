#include "support/DateHelpers.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace pointlane {

namespace {

constexpr std::array<std::string_view, 7> kDays{
    "poniedziałek", "wtorek", "środa", "czwartek", "piątek", "sobota", "niedziela",
};

constexpr std::array<std::string_view, 12> kMonths{
    "styczeń", "luty",     "marzec",   "kwiecień",    "maj",      "czerwiec",
    "lipiec",  "sierpień", "wrzesień", "październik", "listopad", "grudzień",
};

std::string format(DateClock::time_point date, const char* pattern, bool utc) {
    const std::time_t t = DateClock::to_time_t(date);
    std::tm parts{};
    if (utc) {
        gmtime_r(&t, &parts);
    } else {
        localtime_r(&t, &parts);
    }
    char buffer[64];
    const std::size_t n = std::strftime(buffer, sizeof buffer, pattern, &parts);
    return std::string(buffer, n);
}

bool digits(const std::string& text, std::size_t from, std::size_t count, int& out) {
    out = 0;
    for (std::size_t i = from; i < from + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        out = out * 10 + (text[i] - '0');
    }
    return true;
}

}  // namespace

std::optional<DayName> dayNameFrom(int value) {
    if (value < 1 || value > 7) {
        return std::nullopt;
    }
    return static_cast<DayName>(value);
}

std::optional<MonthName> monthNameFrom(int value) {
    if (value < 1 || value > 12) {
        return std::nullopt;
    }
    return static_cast<MonthName>(value);
}

int toInt(DayName day) {
    return static_cast<int>(day);
}

int toInt(MonthName month) {
    return static_cast<int>(month);
}

std::string toString(DayName day) {
    return std::string(kDays.at(toInt(day) - 1));
}

std::string toString(MonthName month) {
    return std::string(kMonths.at(toInt(month) - 1));
}

std::string formatLocalDateTime(DateClock::time_point date) {
    return format(date, "%Y-%m-%d %H:%M:%S", false);
}

std::string formatLocalDate(DateClock::time_point date) {
    return format(date, "%Y-%m-%d", false);
}

std::string formatIso8601(DateClock::time_point date) {
    const std::string text = format(date, "%Y-%m-%dT%H:%M:%S%z", false);
    // strftime writes the offset as +hhmm; the extended form has a colon.
    const std::size_t minutes = text.size() >= 2 ? text.size() - 2 : 0;
    return text.substr(0, minutes) + ":" + text.substr(minutes);
}

std::string formatUtcDescription(DateClock::time_point date) {
    return format(date, "%Y-%m-%d %H:%M:%S +0000", true);
}

std::optional<DateClock::time_point> parseLocalDateTime(const std::string& text) {
    // yyyy-MM-dd HH:mm:ss
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    int year, month, day, hour, minute, second;
    if (!digits(text, 0, 4, year) || !digits(text, 5, 2, month) || !digits(text, 8, 2, day) ||
        !digits(text, 11, 2, hour) || !digits(text, 14, 2, minute) ||
        !digits(text, 17, 2, second)) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    const std::time_t t = std::mktime(&parts);
    // mktime normalises 31 April into 1 May; such a text is not a date.
    if (t == static_cast<std::time_t>(-1) || parts.tm_mday != day || parts.tm_mon != month - 1) {
        return std::nullopt;
    }
    return DateClock::from_time_t(t);
}

}  // namespace pointlane
