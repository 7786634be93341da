#include "support/DateHelpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace pointlane {
namespace {

TEST(DateHelpersTest, DayAndMonthNamesAreNumberedFromOneInPolish) {
    EXPECT_FALSE(dayNameFrom(0).has_value());
    EXPECT_FALSE(dayNameFrom(8).has_value());
    EXPECT_FALSE(monthNameFrom(0).has_value());
    EXPECT_FALSE(monthNameFrom(13).has_value());
    ASSERT_TRUE(dayNameFrom(1).has_value());
    EXPECT_EQ(toString(*dayNameFrom(1)), "poniedziałek");
    EXPECT_EQ(toString(*dayNameFrom(3)), "środa");
    EXPECT_EQ(toString(*dayNameFrom(5)), "piątek");
    EXPECT_EQ(toString(*dayNameFrom(7)), "niedziela");
    EXPECT_EQ(toString(*monthNameFrom(5)), "maj");
    EXPECT_EQ(toString(*monthNameFrom(1)), "styczeń");
    EXPECT_EQ(toString(*monthNameFrom(10)), "październik");
    EXPECT_EQ(toString(*monthNameFrom(12)), "grudzień");
    for (int i = 1; i <= 12; ++i) {
        EXPECT_EQ(toInt(*monthNameFrom(i)), i);
    }
    EXPECT_EQ(toInt(DayName::niedziela), 7);
    EXPECT_EQ(dayNameFrom(3), DayName::środa);
    EXPECT_EQ(monthNameFrom(10), MonthName::październik);
}

TEST(DateHelpersTest, LocalDateTextsRoundTripAndOnlyTheExactPatternParses) {
    // A fixed zone with summer time makes the local-time rules visible.
    const char* old = std::getenv("TZ");
    const std::string saved = old ? old : "";
    setenv("TZ", "Europe/Warsaw", 1);
    tzset();

    const auto moment = DateClock::from_time_t(1700000000);  // 2023-11-14 22:13:20 UTC
    EXPECT_EQ(formatLocalDateTime(moment), "2023-11-14 23:13:20");
    EXPECT_EQ(formatLocalDate(moment), "2023-11-14");
    EXPECT_EQ(formatUtcDescription(moment), "2023-11-14 22:13:20 +0000");
    EXPECT_EQ(parseLocalDateTime("2023-11-14 23:13:20"), moment);
    EXPECT_EQ(parseLocalDateTime("2023-07-01 12:00:00"), DateClock::from_time_t(1688205600));

    for (const char* bad : {"2023-11-14T23:13:20", "2023-11-14 23:13", "2023-11-14  23:13:20",
                            "2023-13-01 00:00:00", "2023-02-30 00:00:00", "2023-11-14 24:00:00",
                            "23-11-14 23:13:20", "2023-11-14 23:13:2x", ""}) {
        EXPECT_FALSE(parseLocalDateTime(bad).has_value()) << bad;
    }

    if (old) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

}  // namespace
}  // namespace pointlane
