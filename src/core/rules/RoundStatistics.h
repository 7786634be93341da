#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pointlane {

struct Deck;

// What the cards of one round come to: the cards as elected, how many, how often each card
// was played, over the cards that are numbers the average, median, minimum and maximum, and
// whether the team agreed. The one place these rules live: the stored history, its export,
// the monitor and the web table all use it.
// A plain value; computing one has no side effects and is safe on any thread.
struct RoundStatistics {
    std::vector<std::string> cards;  // in the order given (the order of election)
    std::size_t count = 0;           // every card, numbers or not
    std::size_t numericCount = 0;    // the cards that are numbers
    std::optional<double> average;   // these four: nothing without a numeric card
    std::optional<double> median;    // the middle one, or the mean of the two middle ones
    std::optional<double> minimum;
    std::optional<double> maximum;
    // Each card (trimmed) with how often it was played, the most frequent first; ties in the
    // deck's order when a deck is given, else in the order first played.
    std::vector<std::pair<std::string, std::size_t>> distribution;
    // At least two cards, and all of them the same: numbers by value (so "1/2", "½" and "0,5"
    // agree), other cards by their trimmed text ("M" and "M" agree; "5", "5", "?" do not).
    // A single card is never a consensus.
    bool consensus = false;

    // The statistics of a round with these cards.
    static RoundStatistics of(std::vector<std::string> cards);
    // The same, with ties in the distribution in the deck's order.
    static RoundStatistics of(std::vector<std::string> cards, const Deck& deck);

    // The value of a card that is a number: plain decimals ("13", "0.5", "0,5"), "1/2" and
    // "½" (0.5), white space around them ignored. Nothing for "?", the coffee cup, words and
    // anything else that isn't a finite, non-negative number.
    static std::optional<double> numericValue(std::string_view card);

    // The final estimate to propose: the agreed card (as the deck writes it, when the deck has
    // a card of that value), else the deck's card nearest the median, else the most frequent
    // card. Nothing without cards.
    std::optional<std::string> proposedEstimate(const Deck& deck) const;
};

// What the rounds of one game come to.
struct GameStatistics {
    std::size_t deals = 0;
    std::size_t consensusDeals = 0;  // deals whose cards reached consensus

    // Counts one more deal.
    void add(const RoundStatistics& round);
};

}  // namespace pointlane
