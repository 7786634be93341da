#include "app/HistoryProvider.h"

#include "storage/HistoryExport.h"

namespace pointlane {

namespace {

std::function<std::optional<std::string>(std::optional<std::int64_t>)> exporter(
    std::string databasePath, HistoryExport::Format format) {
    return [path = std::move(databasePath), format](std::optional<std::int64_t> gameId) {
        return HistoryExport::fromDatabase(path, format, gameId).text;
    };
}

}  // namespace

HistorySource historySourceFor(std::string databasePath) {
    HistorySource source;
    source.json = exporter(databasePath, HistoryExport::Format::json);
    source.csv = exporter(std::move(databasePath), HistoryExport::Format::csv);
    return source;
}

}  // namespace pointlane
