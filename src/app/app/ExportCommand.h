#pragma once
#include <cstdint>
#include <optional>
#include <string>
namespace pointlane {
// What `pointlane export` was asked for.
struct ExportOptions {
    enum class Format { csv, json };
    Format format = Format::csv;
    std::optional<std::int64_t> gameId;     // one game, or every game
    std::optional<std::string> outputPath;  // a file, or standard output
};
// Writes the stored history as asked; returns the process exit status.
int exportHistory(const ExportOptions& options);
}  // namespace pointlane
