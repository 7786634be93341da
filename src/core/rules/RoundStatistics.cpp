#include "rules/RoundStatistics.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "rules/Deck.h"
#include "rules/TextRules.h"

namespace pointlane {

namespace {

// Digits with at most one decimal mark ("." or ","), at least one digit; nothing else.
std::optional<double> decimalValue(std::string_view text) {
    std::string normal;
    normal.reserve(text.size() + 1);
    bool mark = false;
    bool digit = false;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digit = true;
            normal += c;
        } else if ((c == '.' || c == ',') && !mark) {
            mark = true;
            if (normal.empty()) {
                normal += '0';
            }
            normal += '.';
        } else {
            return std::nullopt;
        }
    }
    if (!digit) {
        return std::nullopt;
    }
    double value = 0;
    const char* end = normal.data() + normal.size();
    const auto [next, error] = std::from_chars(normal.data(), end, value, std::chars_format::fixed);
    if (error != std::errc() || next != end || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<double> RoundStatistics::numericValue(std::string_view card) {
    const std::string text = trimmed(card);
    if (text == "\u00BD") {  // ½
        return 0.5;
    }
    if (const auto slash = text.find('/'); slash != std::string::npos) {
        const auto numerator = decimalValue(std::string_view(text).substr(0, slash));
        const auto denominator = decimalValue(std::string_view(text).substr(slash + 1));
        if (!numerator || !denominator || *denominator == 0) {
            return std::nullopt;
        }
        return *numerator / *denominator;
    }
    return decimalValue(text);
}

RoundStatistics RoundStatistics::of(std::vector<std::string> cards) {
    return of(std::move(cards), Deck{});
}

RoundStatistics RoundStatistics::of(std::vector<std::string> cards, const Deck& deck) {
    RoundStatistics statistics;
    std::vector<double> values;
    values.reserve(cards.size());
    // What makes two cards the same: a number's value, any other card's trimmed text.
    std::optional<double> firstValue;
    std::string firstText;
    bool agreed = cards.size() >= 2;
    for (std::size_t i = 0; i < cards.size(); ++i) {
        std::string text = trimmed(cards[i]);
        const auto value = numericValue(text);
        if (value) {
            values.push_back(*value);
        }
        if (i == 0) {
            firstValue = value;
            firstText = text;
        } else if (value.has_value() != firstValue.has_value() ||
                   (value ? *value != *firstValue : text != firstText)) {
            agreed = false;
        }
        auto counted = std::find_if(statistics.distribution.begin(), statistics.distribution.end(),
                                    [&](const auto& entry) { return entry.first == text; });
        if (counted == statistics.distribution.end()) {
            statistics.distribution.emplace_back(std::move(text), 1);
        } else {
            ++counted->second;
        }
    }
    // Most frequent first; ties: cards of the deck in its order, then the others as first seen
    // (the distribution is in first-seen order and the sort is stable).
    const auto deckIndex = [&](const std::string& card) {
        const auto found = std::find(deck.cards.begin(), deck.cards.end(), card);
        return static_cast<std::size_t>(found - deck.cards.begin());
    };
    std::stable_sort(statistics.distribution.begin(), statistics.distribution.end(),
                     [&](const auto& a, const auto& b) {
                         if (a.second != b.second) {
                             return a.second > b.second;
                         }
                         return deckIndex(a.first) < deckIndex(b.first);
                     });
    statistics.count = cards.size();
    statistics.cards = std::move(cards);
    statistics.numericCount = values.size();
    statistics.consensus = agreed;
    if (values.empty()) {
        return statistics;
    }
    std::sort(values.begin(), values.end());
    double sum = 0;
    for (const double value : values) {
        sum += value;
    }
    const std::size_t n = values.size();
    statistics.average = sum / static_cast<double>(n);
    statistics.median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    statistics.minimum = values.front();
    statistics.maximum = values.back();
    return statistics;
}

std::optional<std::string> RoundStatistics::proposedEstimate(const Deck& deck) const {
    if (distribution.empty()) {
        return std::nullopt;
    }
    const std::string& mostFrequent = distribution.front().first;
    if (consensus) {
        // The agreed value as the deck writes it ("½" played on a deck with "1/2").
        if (const auto value = numericValue(mostFrequent)) {
            for (const std::string& card : deck.cards) {
                if (numericValue(card) == value) {
                    return card;
                }
            }
        }
        return mostFrequent;
    }
    if (median && deck.hasNumbers()) {
        if (auto card = deck.nearest(*median)) {
            return card;
        }
    }
    return mostFrequent;
}

void GameStatistics::add(const RoundStatistics& round) {
    ++deals;
    consensusDeals += round.consensus ? 1 : 0;
}

}  // namespace pointlane
