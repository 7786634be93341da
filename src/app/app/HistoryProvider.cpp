#include "app/HistoryProvider.h"

#include <atomic>
#include <memory>
#include <vector>

#include "storage/HistoryExport.h"
#include "support/Event.h"
#include "support/NotificationCenter.h"

namespace pointlane {

namespace {

std::function<std::optional<std::string>(std::optional<std::int64_t>)> exporter(
    std::string databasePath, HistoryExport::Format format) {
    return [path = std::move(databasePath), format](std::optional<std::int64_t> gameId) {
        return HistoryExport::fromDatabase(path, format, gameId).text;
    };
}

// The stored history's version: one more for every game, deal or election announced, which
// the database does once the row is committed. Registered for as long as a copy of the source
// holds it.
struct HistoryVersion {
    std::atomic<std::uint64_t> value{1};
    std::vector<NotificationCenter::Token> tokens;

    HistoryVersion() {
        for (const Event event : {Event::gameTableDidChange, Event::dealTableDidChange,
                                  Event::electionTableDidChange}) {
            tokens.push_back(NotificationCenter::defaultCenter().addObserver(
                toString(event), [this] { value.fetch_add(1, std::memory_order_relaxed); }));
        }
    }
    ~HistoryVersion() {
        for (const auto& token : tokens) {
            NotificationCenter::defaultCenter().removeObserver(token);
        }
    }
    HistoryVersion(const HistoryVersion&) = delete;
    HistoryVersion& operator=(const HistoryVersion&) = delete;
};

}  // namespace

HistorySource historySourceFor(std::string databasePath) {
    HistorySource source;
    source.json = exporter(databasePath, HistoryExport::Format::json);
    source.csv = exporter(std::move(databasePath), HistoryExport::Format::csv);
    source.version = [counter = std::make_shared<HistoryVersion>()] {
        return counter->value.load(std::memory_order_relaxed);
    };
    return source;
}

}  // namespace pointlane
