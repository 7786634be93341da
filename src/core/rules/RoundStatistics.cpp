#include "rules/RoundStatistics.h"

#include <algorithm>
#include <charconv>
#include <cmath>

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
    RoundStatistics statistics;
    std::vector<double> values;
    values.reserve(cards.size());
    for (const std::string& card : cards) {
        if (const auto value = numericValue(card)) {
            values.push_back(*value);
        }
    }
    statistics.count = cards.size();
    statistics.cards = std::move(cards);
    statistics.numericCount = values.size();
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
    statistics.consensus = n >= 2 && values.front() == values.back();
    return statistics;
}

void GameStatistics::add(const RoundStatistics& round) {
    ++deals;
    consensusDeals += round.consensus ? 1 : 0;
}

}  // namespace pointlane
