#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pointlane {

// What the cards of one deal come to: the cards as elected, how many, and over the cards that
// are numbers the average, median, minimum and maximum, and whether the team agreed.
// A plain value; computing one has no side effects and is safe on any thread.
struct RoundStatistics {
    std::vector<std::string> cards;  // in the order given (the order of election)
    std::size_t count = 0;           // every card, numbers or not
    std::size_t numericCount = 0;    // the cards that are numbers
    std::optional<double> average;   // these four: nothing without a numeric card
    std::optional<double> median;    // the middle one, or the mean of the two middle ones
    std::optional<double> minimum;
    std::optional<double> maximum;
    bool consensus = false;  // at least two numeric cards, all of them equal

    // The statistics of a deal whose elections carry these cards.
    static RoundStatistics of(std::vector<std::string> cards);

    // The value of a card that is a number: plain decimals ("13", "0.5", "0,5"), "1/2" and
    // "½" (0.5), white space around them ignored. Nothing for "?", the coffee cup, words and
    // anything else that isn't a finite, non-negative number.
    static std::optional<double> numericValue(std::string_view card);
};

// What the deals of one game come to.
struct GameStatistics {
    std::size_t deals = 0;
    std::size_t consensusDeals = 0;  // deals whose cards reached consensus

    // Counts one more deal.
    void add(const RoundStatistics& round);
};

}  // namespace pointlane
