#include "rules/Deck.h"

#include <algorithm>
#include <cmath>

#include "rules/RoundStatistics.h"
#include "rules/TextRules.h"

namespace pointlane {

const std::vector<Deck>& Deck::presets() {
    static const std::vector<Deck> decks{
        {"standard",
         "Standard",
         {"0", "1/2", "1", "2", "3", "5", "8", "13", "20", "40", "100", "?", "coffee"}},
        {"fibonacci",
         "Fibonacci",
         {"0", "1", "2", "3", "5", "8", "13", "21", "34", "55", "89", "?", "coffee"}},
        {"tshirt", "T-shirt sizes", {"XS", "S", "M", "L", "XL", "XXL", "?", "coffee"}},
        {"powers", "Powers of two", {"0", "1", "2", "4", "8", "16", "32", "64", "?", "coffee"}},
    };
    return decks;
}

std::optional<Deck> Deck::preset(std::string_view id) {
    for (const Deck& deck : presets()) {
        if (deck.id == id) {
            return deck;
        }
    }
    return std::nullopt;
}

Deck Deck::standard() {
    return presets().front();
}

std::variant<Deck, std::string> Deck::custom(const std::vector<std::string>& cards) {
    if (cards.size() < 2) {
        return std::string("A deck needs at least two cards.");
    }
    if (cards.size() > kMaxDeckCards) {
        return "A deck can have at most " + std::to_string(kMaxDeckCards) + " cards.";
    }
    Deck deck{"custom", "Custom", {}};
    deck.cards.reserve(cards.size());
    for (const std::string& given : cards) {
        std::string card = normalized(trimmed(given));
        if (card.empty()) {
            return std::string("A card can't be empty.");
        }
        if (hasInvisibleCharacters(card)) {
            return std::string("A card can't contain invisible or control characters.");
        }
        if (characterCount(card) > kMaxCardLength) {
            return "The card \"" + card + "\" is too long: at most " +
                   std::to_string(kMaxCardLength) + " characters.";
        }
        if (deck.contains(card)) {
            return "The card \"" + card + "\" is in the deck twice.";
        }
        deck.cards.push_back(std::move(card));
    }
    return deck;
}

bool Deck::contains(std::string_view card) const {
    return std::find(cards.begin(), cards.end(), card) != cards.end();
}

bool Deck::hasNumbers() const {
    return std::count_if(cards.begin(), cards.end(), [](const std::string& card) {
               return RoundStatistics::numericValue(card).has_value();
           }) >= 2;
}

std::optional<std::string> Deck::nearest(double value) const {
    std::optional<std::string> best;
    double bestDistance = 0;
    double bestValue = 0;
    for (const std::string& card : cards) {
        const auto cardValue = RoundStatistics::numericValue(card);
        if (!cardValue) {
            continue;
        }
        const double distance = std::fabs(*cardValue - value);
        if (!best || distance < bestDistance ||
            (distance == bestDistance && *cardValue > bestValue)) {
            best = card;
            bestDistance = distance;
            bestValue = *cardValue;
        }
    }
    return best;
}

}  // namespace pointlane
