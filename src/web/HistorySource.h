#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace pointlane {

// Where the web layer reads the stored history from. The application fills it in (the web layer
// never reaches storage itself); an empty function means the page has no history to serve.
// The functions may be called on any thread (the bodies are built on a worker of the web
// layer) and must be thread safe; version is cheap and called on the Qt thread.
struct HistorySource {
    // Every game (no id) or one game, as the JSON export; nothing when it can't be read.
    std::function<std::optional<std::string>(std::optional<std::int64_t> gameId)> json;
    // The same as the CSV export.
    std::function<std::optional<std::string>(std::optional<std::int64_t> gameId)> csv;
    // Grows whenever the stored history changes (a game, deal or election stored); unset: the
    // web layer can't tell, and builds each body anew.
    std::function<std::uint64_t()> version;
};

}  // namespace pointlane
