#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "storage/HistoryReader.h"

namespace pointlane {

// The stored history written out for taking away, in natural text (UTF-8):
// - CSV (RFC 4180: comma separated, CRLF line ends, fields quoted when they hold a comma, a
//   quote or a line break, quotes doubled) with a header row and one row per election: game,
//   date, administrator, deal, player, card, then the deal's statistics (the average rounded
//   to two decimals) and its final estimate. A deal without elections, and a game without
//   deals, still get one row with the missing columns empty. A text cell that a spreadsheet
//   would run as a formula (=, +, - or @ first) is written after an apostrophe.
// - JSON: {"games": [...]}, each game with its statistics and its deals, each deal with its
//   estimate (null when none), elections and statistics; dates in ISO 8601 with the local
//   offset.
// Games and deals come newest first, elections in the order they were made.
// Stateless and thread safe; every read opens its own read-only connection.
class HistoryExport final {
  public:
    enum class Format { csv, json };

    // The text of one export, or the one line that says why there is none.
    struct Result {
        std::optional<std::string> text;
        std::string error;  // empty when text is set

        bool ok() const { return text.has_value(); }
    };

    static std::string csv(const History& history);
    static std::string json(const History& history);

    // Reads the database at path read-only and writes every game (no id) or the one game.
    static Result fromDatabase(const std::string& path, Format format,
                               std::optional<std::int64_t> gameId);
};

}  // namespace pointlane
