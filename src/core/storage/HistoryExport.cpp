#include "storage/HistoryExport.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "support/DateHelpers.h"

namespace pointlane {

namespace {

// Appends a JSON array's members, comma-separated, each written by appendOne.
template <class Items, class AppendOne>
void appendEach(std::string& out, const Items& items, AppendOne&& appendOne) {
    bool first = true;
    for (const auto& item : items) {
        if (!first) {
            out += ',';
        }
        first = false;
        appendOne(item);
    }
}

// Appends one CSV field, quoted only when it has to be. A field a spreadsheet would take for a
// formula (it begins with =, +, - or @, or a tab or carriage return that hides one) is written
// after an apostrophe, so that it stays text.
void appendField(std::string& out, std::string_view field) {
    const bool formula = !field.empty() &&
                         std::string_view("=+-@\t\r").find(field.front()) != std::string_view::npos;
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        if (formula) {
            out += '\'';
        }
        out.append(field);
        return;
    }
    out += '"';
    if (formula) {
        out += '\'';
    }
    for (const char c : field) {
        if (c == '"') {
            out += '"';
        }
        out += c;
    }
    out += '"';
}

// The shortest text that reads back as the same number, with a dot ("8", "10.5").
std::string number(const std::optional<double>& value) {
    if (!value) {
        return {};
    }
    char buffer[32];
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, *value);
    return error == std::errc() ? std::string(buffer, end) : std::string();
}

// A number rounded to two decimals for the CSV ("3.33", "8", "10.5").
std::optional<double> rounded(const std::optional<double>& value) {
    if (!value) {
        return value;
    }
    return std::round(*value * 100.0) / 100.0;
}

// The columns a deal's rows share: its name first, its statistics and estimate last (from the
// comma before them to the line end).
struct DealColumns {
    std::string name;
    std::string statistics;
};

DealColumns dealColumns(const DealHistory* deal) {
    DealColumns columns;
    if (deal == nullptr) {
        columns.statistics = ",,,,,,,,\r\n";
        return columns;
    }
    appendField(columns.name, deal->deal.name);
    const RoundStatistics& s = deal->statistics;
    columns.statistics = "," + std::to_string(s.count) + "," + std::to_string(s.numericCount);
    for (const auto& value : {rounded(s.average), s.median, s.minimum, s.maximum}) {
        columns.statistics += ',';
        columns.statistics += number(value);
    }
    columns.statistics += s.consensus ? ",true," : ",false,";
    if (deal->estimate) {
        appendField(columns.statistics, *deal->estimate);
    }
    columns.statistics += "\r\n";
    return columns;
}

void appendRow(std::string& out, const std::string& game, const DealColumns& deal,
               const Election* election) {
    out += game;
    out += deal.name;
    out += ',';
    if (election != nullptr) {
        appendField(out, election->playerName);
        out += ',';
        appendField(out, election->symbol);
    } else {
        out += ',';
    }
    out += deal.statistics;
}

// A JSON string; the library does the escaping. The texts were checked as UTF-8 when read,
// and replacing keeps dump() from ever throwing.
void appendString(std::string& out, const std::string& text) {
    out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void appendNumber(std::string& out, const std::optional<double>& value) {
    out += value ? number(value) : "null";
}

// Written as a stream rather than built as a document: the whole history at once would cost a
// node per value.
void appendDeal(std::string& out, const DealHistory& deal) {
    out += "{\"id\":";
    out += std::to_string(deal.deal.id);
    out += ",\"name\":";
    appendString(out, deal.deal.name);
    out += ",\"estimate\":";
    if (deal.estimate) {
        appendString(out, *deal.estimate);
    } else {
        out += "null";
    }
    out += ",\"elections\":[";
    for (std::size_t i = 0; i < deal.elections.size(); ++i) {
        const Election& election = deal.elections[i];
        out += i == 0 ? "{\"id\":" : ",{\"id\":";
        out += std::to_string(election.id);
        out += ",\"player\":";
        appendString(out, election.playerName);
        out += ",\"card\":";
        appendString(out, election.symbol);
        out += '}';
    }
    const RoundStatistics& s = deal.statistics;
    out += "],\"statistics\":{\"cards\":[";
    appendEach(out, s.cards, [&](const std::string& card) { appendString(out, card); });
    out += "],\"count\":";
    out += std::to_string(s.count);
    out += ",\"numericCount\":";
    out += std::to_string(s.numericCount);
    out += ",\"average\":";
    appendNumber(out, s.average);
    out += ",\"median\":";
    appendNumber(out, s.median);
    out += ",\"minimum\":";
    appendNumber(out, s.minimum);
    out += ",\"maximum\":";
    appendNumber(out, s.maximum);
    out += s.consensus ? ",\"consensus\":true}}" : ",\"consensus\":false}}";
}

}  // namespace

std::string HistoryExport::csv(const History& history) {
    std::string out =
        "game,date,administrator,deal,player,card,cards,numeric cards,average,median,minimum,"
        "maximum,consensus,estimate\r\n";
    for (const GameHistory& game : history.games) {
        // The game's columns: name, date, administrator, each followed by its comma.
        std::string columns;
        appendField(columns, game.game.name);
        columns += ',';
        appendField(columns, formatIso8601(game.game.date));
        columns += ',';
        appendField(columns, game.game.admin);
        columns += ',';
        if (game.deals.empty()) {
            appendRow(out, columns, dealColumns(nullptr), nullptr);
        }
        for (const DealHistory& deal : game.deals) {
            const DealColumns shared = dealColumns(&deal);
            if (deal.elections.empty()) {
                appendRow(out, columns, shared, nullptr);
            }
            for (const Election& election : deal.elections) {
                appendRow(out, columns, shared, &election);
            }
        }
    }
    return out;
}

std::string HistoryExport::json(const History& history) {
    std::string out = "{\"games\":[";
    for (std::size_t g = 0; g < history.games.size(); ++g) {
        const GameHistory& game = history.games[g];
        out += g == 0 ? "{\"id\":" : ",{\"id\":";
        out += std::to_string(game.game.id);
        out += ",\"name\":";
        appendString(out, game.game.name);
        out += ",\"date\":";
        appendString(out, formatIso8601(game.game.date));
        out += ",\"administrator\":";
        appendString(out, game.game.admin);
        out += ",\"statistics\":{\"deals\":";
        out += std::to_string(game.statistics.deals);
        out += ",\"consensusDeals\":";
        out += std::to_string(game.statistics.consensusDeals);
        out += "},\"deals\":[";
        appendEach(out, game.deals, [&](const DealHistory& deal) { appendDeal(out, deal); });
        out += "]}";
    }
    out += "]}";
    return out;
}

HistoryExport::Result HistoryExport::fromDatabase(const std::string& path, Format format,
                                                  std::optional<std::int64_t> gameId) {
    HistoryResult read = HistoryReader::read(path, gameId);
    if (!read.ok()) {
        return {std::nullopt, std::move(read.error)};
    }
    return {format == Format::csv ? csv(*read.history) : json(*read.history), {}};
}

}  // namespace pointlane
