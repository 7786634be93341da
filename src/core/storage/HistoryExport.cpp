#include "storage/HistoryExport.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "support/DateHelpers.h"

namespace pointlane {

namespace {

// Appends one CSV field, quoted only when it has to be.
void appendField(std::string& out, std::string_view field) {
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        out.append(field);
        return;
    }
    out += '"';
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

void appendRow(std::string& out, const GameHistory& game, const std::string& date,
               const DealHistory* deal, const Election* election) {
    appendField(out, game.game.name);
    out += ',';
    appendField(out, date);
    out += ',';
    appendField(out, game.game.admin);
    out += ',';
    if (deal != nullptr) {
        appendField(out, deal->deal.name);
    }
    out += ',';
    if (election != nullptr) {
        appendField(out, election->playerName);
        out += ',';
        appendField(out, election->symbol);
    } else {
        out += ',';
    }
    if (deal != nullptr) {
        const RoundStatistics& s = deal->statistics;
        out += ',';
        out += std::to_string(s.count);
        out += ',';
        out += std::to_string(s.numericCount);
        for (const auto& value : {s.average, s.median, s.minimum, s.maximum}) {
            out += ',';
            out += number(value);
        }
        out += s.consensus ? ",true" : ",false";
    } else {
        out += ",,,,,,,";
    }
    out += "\r\n";
}

nlohmann::ordered_json optionalNumber(const std::optional<double>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

std::string HistoryExport::csv(const History& history) {
    std::string out =
        "game,date,administrator,deal,player,card,cards,numeric cards,average,median,minimum,"
        "maximum,consensus\r\n";
    for (const GameHistory& game : history.games) {
        const std::string date = formatIso8601(game.game.date);
        if (game.deals.empty()) {
            appendRow(out, game, date, nullptr, nullptr);
        }
        for (const DealHistory& deal : game.deals) {
            if (deal.elections.empty()) {
                appendRow(out, game, date, &deal, nullptr);
            }
            for (const Election& election : deal.elections) {
                appendRow(out, game, date, &deal, &election);
            }
        }
    }
    return out;
}

std::string HistoryExport::json(const History& history) {
    nlohmann::ordered_json games = nlohmann::ordered_json::array();
    for (const GameHistory& game : history.games) {
        nlohmann::ordered_json deals = nlohmann::ordered_json::array();
        for (const DealHistory& deal : game.deals) {
            nlohmann::ordered_json elections = nlohmann::ordered_json::array();
            for (const Election& election : deal.elections) {
                elections.push_back({{"id", election.id},
                                     {"player", election.playerName},
                                     {"card", election.symbol}});
            }
            const RoundStatistics& s = deal.statistics;
            deals.push_back({{"id", deal.deal.id},
                             {"name", deal.deal.name},
                             {"elections", std::move(elections)},
                             {"statistics",
                              {{"cards", s.cards},
                               {"count", s.count},
                               {"numericCount", s.numericCount},
                               {"average", optionalNumber(s.average)},
                               {"median", optionalNumber(s.median)},
                               {"minimum", optionalNumber(s.minimum)},
                               {"maximum", optionalNumber(s.maximum)},
                               {"consensus", s.consensus}}}});
        }
        games.push_back({{"id", game.game.id},
                         {"name", game.game.name},
                         {"date", formatIso8601(game.game.date)},
                         {"administrator", game.game.admin},
                         {"statistics",
                          {{"deals", game.statistics.deals},
                           {"consensusDeals", game.statistics.consensusDeals}}},
                         {"deals", std::move(deals)}});
    }
    // The texts were checked as UTF-8 when read; replacing keeps dump() from ever throwing.
    return nlohmann::ordered_json{{"games", std::move(games)}}.dump(
        -1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
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
