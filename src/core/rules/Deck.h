#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace pointlane {

constexpr std::size_t kMaxDeckCards = 24;
constexpr std::size_t kMaxCardLength = 8;  // characters

// The cards a table plays with: one of the preset decks or a custom one. The coffee cup is the
// card "coffee". A plain value; safe on any thread.
struct Deck {
    std::string id;    // "standard", "fibonacci", "tshirt", "powers" or "custom"
    std::string name;  // for people: "Standard", "Fibonacci", ...
    std::vector<std::string> cards;

    // The preset decks, "standard" first.
    static const std::vector<Deck>& presets();
    static std::optional<Deck> preset(std::string_view id);
    static Deck standard();

    // A custom deck of these cards (each trimmed and composed), or the sentence saying what is
    // wrong: fewer than two or more than kMaxDeckCards cards, an empty card, a card longer
    // than kMaxCardLength characters, invisible or control characters, a card given twice.
    static std::variant<Deck, std::string> custom(const std::vector<std::string>& cards);

    bool contains(std::string_view card) const;
    // At least two cards are numbers: an average and a median make sense.
    bool hasNumbers() const;
    // The card whose numeric value is nearest to value (ties: the larger); nothing when no
    // card is a number.
    std::optional<std::string> nearest(double value) const;

    bool operator==(const Deck&) const = default;
};

}  // namespace pointlane
