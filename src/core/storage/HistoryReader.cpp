#include "storage/HistoryReader.h"

#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <unordered_map>
#include <utility>

#include "storage/Estimate.h"
#include "storage/SQLite.h"
#include "storage/SQLiteStatement.h"
#include "storage/Values.h"

namespace pointlane {

namespace {

// How long a read waits for a writer that holds the file (a journal being rolled back).
constexpr int kBusyTimeoutMs = 5000;

std::string failure(const std::string& path, const std::string& why) {
    return "Can't read the history from " + path + ": " + why;
}

// Runs query with ":id" bound to gameId (when the statement has it) and hands every row to
// each; the library's message on failure.
std::optional<std::string> eachRow(sqlite3* db, const std::string& query,
                                   std::optional<std::int64_t> gameId,
                                   const std::function<void(const RowData&)>& each) {
    int code = SQLITE_OK;
    SQLiteStatement statement = SQLiteStatement::prepare(nullptr, db, query, code);
    if (code != SQLITE_OK) {
        return std::string(sqlite3_errmsg(db));
    }
    if (gameId) {
        statement.bind(SQLField{"id", DataValue::integer(*gameId)});
    }
    while (statement.step() == SQLITE_ROW) {
        each(statement.row());
    }
    // The finalize call returns the error of the last step, if any.
    if (statement.finalize() != SQLITE_OK) {
        return std::string(sqlite3_errmsg(db));
    }
    return std::nullopt;
}

}  // namespace

std::unique_ptr<HistoryReader> HistoryReader::open(const std::string& path, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error != nullptr) {
            *error = failure(path, why);
        }
        return nullptr;
    };
    std::error_code ec;
    const auto status = std::filesystem::status(path, ec);
    if (!std::filesystem::exists(status)) {
        return fail("there is no database");
    }
    if (std::filesystem::is_directory(status)) {
        return fail("it is a folder, not a database");
    }
    if (!sqlm().isValidDatabase(path)) {
        return fail("the file is not a database");
    }
    sqlite3* db = nullptr;
    // Read-only: the file is never written nor created. A write-ahead log left by a server is
    // read through; the library may add its shared-memory index beside the file for that.
    const int opened =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    SQLiteHandle connection(db);
    if (opened != SQLITE_OK) {
        return fail(db != nullptr ? sqlite3_errmsg(db) : "out of memory");
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    return std::unique_ptr<HistoryReader>(new HistoryReader(std::move(connection), path));
}

HistoryResult HistoryReader::read(const std::string& path, std::optional<std::int64_t> gameId) {
    std::string error;
    auto reader = open(path, &error);
    if (!reader) {
        return {std::nullopt, error};
    }
    return reader->read(gameId);
}

HistoryReader::~HistoryReader() = default;

HistoryResult HistoryReader::read(std::optional<std::int64_t> gameId) {
    // One read transaction: the queries see the same moment of the file.
    if (sqlite3_exec(db_.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) {
        return {std::nullopt, failure(path_, sqlite3_errmsg(db_.get()))};
    }
    struct EndRead {
        sqlite3* db;
        ~EndRead() { sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr); }
    } endRead{db_.get()};

    History history;
    std::unordered_map<std::int64_t, std::size_t> gameIndex;
    std::unordered_map<std::int64_t, std::pair<std::size_t, std::size_t>> dealIndex;
    auto damaged = [&](const std::string& message) {
        return HistoryResult{
            std::nullopt,
            failure(path_, "the database is damaged or not Pointlane's (" + message + ")")};
    };

    const std::string games =
        gameId ? "SELECT * FROM Game WHERE id=:id" : "SELECT * FROM Game ORDER BY id DESC";
    if (auto error = eachRow(db_.get(), games, gameId, [&](const RowData& row) {
            if (auto game = Game::fromRow(row)) {
                gameIndex.emplace(game->id, history.games.size());
                history.games.push_back(GameHistory{std::move(*game), {}, {}});
            }
        })) {
        return damaged(*error);
    }

    const std::string deals = gameId ? "SELECT * FROM Deal WHERE gameId=:id ORDER BY id DESC"
                                     : "SELECT * FROM Deal ORDER BY id DESC";
    if (auto error = eachRow(db_.get(), deals, gameId, [&](const RowData& row) {
            auto deal = Deal::fromRow(row);
            if (!deal) {
                return;
            }
            const auto game = gameIndex.find(deal->gameId);
            if (game == gameIndex.end()) {
                return;
            }
            auto& list = history.games[game->second].deals;
            dealIndex.emplace(deal->id, std::make_pair(game->second, list.size()));
            list.push_back(DealHistory{std::move(*deal), {}, {}, {}});
        })) {
        return damaged(*error);
    }

    const std::string elections =
        gameId ? "SELECT * FROM Election WHERE dealId IN (SELECT id FROM Deal WHERE gameId=:id) "
                 "ORDER BY id"
               : "SELECT * FROM Election ORDER BY id";
    if (auto error = eachRow(db_.get(), elections, gameId, [&](const RowData& row) {
            auto election = Election::fromRow(row);
            if (!election) {
                return;
            }
            const auto deal = dealIndex.find(election->dealId);
            if (deal != dealIndex.end()) {
                history.games[deal->second.first].deals[deal->second.second].elections.push_back(
                    std::move(*election));
            }
        })) {
        return damaged(*error);
    }

    // A file of the first layout (not upgraded yet: this reader never writes) has no estimates.
    bool hasEstimates = false;
    if (auto error = eachRow(db_.get(),
                             "SELECT name FROM sqlite_master WHERE type='table' AND "
                             "name='Estimate'",
                             std::nullopt, [&](const RowData&) { hasEstimates = true; })) {
        return damaged(*error);
    }
    const std::string estimates =
        gameId ? "SELECT * FROM Estimate WHERE dealId IN (SELECT id FROM Deal WHERE gameId=:id)"
               : "SELECT * FROM Estimate";
    if (hasEstimates) {
        if (auto error = eachRow(db_.get(), estimates, gameId, [&](const RowData& row) {
                auto estimate = Estimate::fromRow(row);
                if (!estimate) {
                    return;
                }
                const auto deal = dealIndex.find(estimate->dealId);
                if (deal != dealIndex.end()) {
                    history.games[deal->second.first].deals[deal->second.second].estimate =
                        std::move(estimate->value);
                }
            })) {
            return damaged(*error);
        }
    }

    for (GameHistory& game : history.games) {
        for (DealHistory& deal : game.deals) {
            std::vector<std::string> cards;
            cards.reserve(deal.elections.size());
            for (const Election& election : deal.elections) {
                cards.push_back(election.symbol);
            }
            deal.statistics = RoundStatistics::of(std::move(cards));
            game.statistics.add(deal.statistics);
        }
    }
    return {std::move(history), {}};
}

}  // namespace pointlane
