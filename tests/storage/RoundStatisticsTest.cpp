#include "storage/RoundStatistics.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pointlane {
namespace {

using Cards = std::vector<std::string>;

TEST(RoundStatisticsTest, NumbersAreDecimalsWithDotOrCommaAndHalvesEverythingElseIsText) {
    const std::vector<std::pair<std::string, double>> numbers{
        {"13", 13},   {" 8 ", 8},      {"0.5", 0.5},  {"0,5", 0.5},
        {"1/2", 0.5}, {"\u00BD", 0.5}, {".5", 0.5},   {"2,", 2},
        {"0", 0},     {"100", 100},    {"3/4", 0.75}, {"\t\u00A0\u00BD\n", 0.5}};
    for (const auto& [card, value] : numbers) {
        EXPECT_EQ(RoundStatistics::numericValue(card), value) << card;
    }
    for (const std::string card : {"",
                                   " ",
                                   "?",
                                   "\u2615",
                                   "coffee",
                                   "XL",
                                   "-1",
                                   "+3",
                                   "1e3",
                                   "0x10",
                                   "inf",
                                   "nan",
                                   "1,2,3",
                                   "1.2.3",
                                   ",",
                                   ".",
                                   "1/0",
                                   "1/",
                                   "/2",
                                   "1 2",
                                   "\u0141\u00F3d\u017A",
                                   "\u00BD\u00BD",
                                   "1\u00BD",
                                   "\uFF15"}) {
        EXPECT_EQ(RoundStatistics::numericValue(card), std::nullopt) << card;
    }
}

TEST(RoundStatisticsTest, RoundsWithoutNumbersOrWithOneCardHaveNoConsensus) {
    const RoundStatistics none = RoundStatistics::of({});
    EXPECT_EQ(none.count, 0u);
    EXPECT_EQ(none.numericCount, 0u);
    EXPECT_FALSE(none.average || none.median || none.minimum || none.maximum);
    EXPECT_FALSE(none.consensus);

    // Polish text cards and the coffee cup count as cards, never as numbers.
    const Cards words{"du\u017Co", "?", "\u2615", "ma\u0142o"};
    const RoundStatistics text = RoundStatistics::of(words);
    EXPECT_EQ(text.cards, words);
    EXPECT_EQ(text.count, 4u);
    EXPECT_EQ(text.numericCount, 0u);
    EXPECT_FALSE(text.average || text.median || text.minimum || text.maximum);
    EXPECT_FALSE(text.consensus);

    const RoundStatistics one = RoundStatistics::of({"?", "5"});
    EXPECT_EQ(one.count, 2u);
    EXPECT_EQ(one.numericCount, 1u);
    EXPECT_EQ(one.average, 5);
    EXPECT_EQ(one.median, 5);
    EXPECT_EQ(one.minimum, 5);
    EXPECT_EQ(one.maximum, 5);
    EXPECT_FALSE(one.consensus);
}

TEST(RoundStatisticsTest, AverageMedianRangeAndConsensusOverTheNumericCardsOnly) {
    // Even count: the median is the mean of the two middle values, whatever the order given.
    const Cards spread{"8", "3", "?", "5", "5"};
    const RoundStatistics s = RoundStatistics::of(spread);
    EXPECT_EQ(s.cards, spread);
    EXPECT_EQ(s.count, 5u);
    EXPECT_EQ(s.numericCount, 4u);
    EXPECT_DOUBLE_EQ(*s.average, 5.25);
    EXPECT_EQ(s.median, 5);
    EXPECT_EQ(s.minimum, 3);
    EXPECT_EQ(s.maximum, 8);
    EXPECT_FALSE(s.consensus);

    const RoundStatistics odd = RoundStatistics::of({"13", "1", "2"});
    EXPECT_EQ(odd.median, 2);
    EXPECT_DOUBLE_EQ(*odd.average, 16.0 / 3);
    const RoundStatistics pair = RoundStatistics::of({"2", "3"});
    EXPECT_EQ(pair.median, 2.5);

    // A tie of numbers, with a text card beside it, is consensus; halves written three ways
    // are one value.
    EXPECT_TRUE(RoundStatistics::of({"5", "?", "5"}).consensus);
    const RoundStatistics halves = RoundStatistics::of({"1/2", "0,5", "\u00BD", "0.5"});
    EXPECT_TRUE(halves.consensus);
    EXPECT_EQ(halves.average, 0.5);
    EXPECT_EQ(halves.median, 0.5);
    EXPECT_FALSE(RoundStatistics::of({"5", "5", "8"}).consensus);
    EXPECT_TRUE(RoundStatistics::of({"5", "05", "5,0"}).consensus);

    GameStatistics game;
    for (const Cards& cards :
         {Cards{"5", "5"}, Cards{"5"}, Cards{}, Cards{"?", "?"}, Cards{"1", "1", "1"}}) {
        game.add(RoundStatistics::of(cards));
    }
    EXPECT_EQ(game.deals, 5u);
    EXPECT_EQ(game.consensusDeals, 2u);
}

}  // namespace
}  // namespace pointlane
