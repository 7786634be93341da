#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace pointlane {

// Where the web layer reads the stored history from. The application fills it in (the web layer
// never reaches storage itself); an empty function means the page has no history to serve.
// Both functions may be called on the web layer's thread and must be thread safe.
struct HistorySource {
    // Every game (no id) or one game, as the JSON export; nothing when it can't be read.
    std::function<std::optional<std::string>(std::optional<std::int64_t> gameId)> json;
    // The same as the CSV export.
    std::function<std::optional<std::string>(std::optional<std::int64_t> gameId)> csv;
};

}  // namespace pointlane
