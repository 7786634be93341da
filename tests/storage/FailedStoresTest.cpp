// Stores that fail because the file can't be written (a full disk) are kept and stored once it
// can, with the ids the records were given and the links between them; a quit that can't wait
// any longer writes them out. The disk is made full on demand by a file system wrapped around
// the default one (the end-to-end tests fill a real one).
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "FaultyFileSystem.h"
#include "StorageFixture.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "support/Event.h"
#include "support/NotificationCenter.h"

namespace pointlane {
namespace {

using testing::FaultyFileSystem;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// A record as answered: table, id, and the id it links to (0 for a game).
using Row = std::tuple<std::string, std::int64_t, std::int64_t>;

// The record writes the game makes, the way it makes them: each on the database queue, a deal
// linked to the game opened last, an election to the deal put last.
class Table {
  public:
    void openGame(const std::string& name) {
        sqlm().async([this, name] {
            if (auto game = Game::make(name, "Boss"); game && game->save()) {
                game_ = game->id;
                answer({"Game", game->id, 0});
            }
        });
    }
    void putDeal(const std::string& title) {
        sqlm().async([this, title] {
            if (auto deal = Deal::make(game_.load(), title); deal && deal->save()) {
                deal_ = deal->id;
                answer({"Deal", deal->id, deal->gameId});
            }
        });
    }
    void elect(const std::string& player) {
        sqlm().async([this, player] {
            if (auto election = Election::make(deal_.load(), player, "5");
                election && election->save()) {
                post(Event::electionTableDidChange);
                answer({"Election", election->id, election->dealId});
            }
        });
    }
    std::vector<Row> answered() {
        std::lock_guard lock(mutex_);
        return answered_;
    }

  private:
    void answer(Row row) {
        std::lock_guard lock(mutex_);
        answered_.push_back(std::move(row));
    }
    std::atomic<std::int64_t> game_{0};
    std::atomic<std::int64_t> deal_{0};
    std::mutex mutex_;
    std::vector<Row> answered_;
};

// Every stored row, over a connection of its own, in id order per table.
std::vector<Row> storedRows(const std::string& path) {
    std::vector<Row> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, "unix") == SQLITE_OK) {
        for (const auto& [table, query] : std::vector<std::pair<std::string, std::string>>{
                 {"Game", "SELECT id, 0 FROM Game ORDER BY id"},
                 {"Deal", "SELECT id, gameId FROM Deal ORDER BY id"},
                 {"Election", "SELECT id, dealId FROM Election ORDER BY id"}}) {
            sqlite3_stmt* statement = nullptr;
            sqlite3_prepare_v2(db, query.c_str(), -1, &statement, nullptr);
            while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
                rows.emplace_back(table, sqlite3_column_int64(statement, 0),
                                  sqlite3_column_int64(statement, 1));
            }
            sqlite3_finalize(statement);
        }
    }
    sqlite3_close(db);
    return rows;
}

// The answered rows ordered like storedRows.
std::vector<Row> byTable(std::vector<Row> rows) {
    const auto rank = [](const std::string& table) {
        return table == "Game" ? 0 : table == "Deal" ? 1 : 2;
    };
    std::stable_sort(rows.begin(), rows.end(), [&](const Row& a, const Row& b) {
        return std::make_pair(rank(std::get<0>(a)), std::get<1>(a)) <
               std::make_pair(rank(std::get<0>(b)), std::get<1>(b));
    });
    return rows;
}

class FailedStoresTest : public testing::StorageFixture {
  protected:
    void SetUp() override {
        FaultyFileSystem::install();
        StorageFixture::SetUp();
        sqlm().setWriteStatusListener([this](bool failing, const std::string& reason) {
            std::lock_guard lock(statusMutex_);
            statuses_.emplace_back(failing, reason);
        });
    }
    void TearDown() override {
        FaultyFileSystem::setFailing(false);
        StorageFixture::TearDown();
        sqlm().setWriteStatusListener(nullptr);
        FaultyFileSystem::uninstall();
    }
    std::vector<std::pair<bool, std::string>> statuses() {
        std::lock_guard lock(statusMutex_);
        return statuses_;
    }

  private:
    std::mutex statusMutex_;
    std::vector<std::pair<bool, std::string>> statuses_;
};

TEST_F(FailedStoresTest, RecordsAnsweredWhileTheDiskIsFullAreStoredOnceItHasRoomAgain) {
    Table table;
    table.openGame("Before");
    table.putDeal("Stored at once");
    table.elect("Ann");
    sqlm().drain();
    ASSERT_EQ(storedRows(path()).size(), 3u);
    std::atomic<int> announced{0};
    auto token = NotificationCenter::defaultCenter().addObserver(
        toString(Event::electionTableDidChange), [&] { ++announced; });

    CaptureStdout();
    FaultyFileSystem::setFailing(true);
    // One batch: a deal, elections linked to it, a new game and its deal; then, while the
    // queue is retrying, an election that must still find the deal put last.
    std::promise<void> gate;
    sqlm().async([opened = gate.get_future().share()] { opened.wait(); });
    table.putDeal("While full");
    table.elect("Bea");
    table.elect("Cy");
    table.openGame("During");
    table.putDeal("Second game");
    gate.set_value();
    ASSERT_TRUE(testkit::waitUntil([&] { return !statuses().empty(); }));
    table.elect("Dee");
    // The queue's bound holds while it retries: a flood of writes waits for room.
    std::atomic<std::size_t> submitted{0};
    std::thread flood([&] {
        for (std::size_t i = 0; i < WorkQueue::kDefaultCapacity + 10; ++i) {
            table.elect("flood " + std::to_string(i));
            ++submitted;
        }
    });
    ASSERT_TRUE(
        testkit::waitUntil([&] { return submitted.load() >= WorkQueue::kDefaultCapacity - 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(submitted.load(), WorkQueue::kDefaultCapacity + 10);
    EXPECT_EQ(storedRows(path()).size(), 3u);  // nothing of it is in the file yet
    EXPECT_EQ(announced.load(), 0);
    const std::size_t answeredWhileFull = table.answered().size() - 3;

    FaultyFileSystem::setFailing(false);
    flood.join();
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);

    const auto answered = byTable(table.answered());
    const auto stored = storedRows(path());
    std::printf(
        "records stored vs answered under a full disk: %zu of %zu (%zu answered while every "
        "write failed, the rest queued meanwhile; %d writes refused)\n",
        stored.size(), answered.size(), answeredWhileFull, FaultyFileSystem::refusals());
    EXPECT_EQ(stored, answered);
    ASSERT_EQ(answered.size(), 3u + 5u + 1u + WorkQueue::kDefaultCapacity + 10u);
    // The links are the ids of the rows stored during the failure.
    const auto during = std::get<1>(answered[1]);     // the game "During"
    const auto whileFull = std::get<1>(answered[3]);  // the deal "While full"
    const auto second = std::get<1>(answered[4]);     // "Second game"
    EXPECT_EQ(std::get<2>(answered[4]), during);
    int onWhileFull = 0;
    int onSecond = 0;
    for (const Row& row : answered) {
        if (std::get<0>(row) == "Election") {
            onWhileFull += std::get<2>(row) == whileFull;
            onSecond += std::get<2>(row) == second;
        }
    }
    EXPECT_EQ(onWhileFull, 2);  // Bea and Cy
    EXPECT_EQ(onSecond, 1 + static_cast<int>(WorkQueue::kDefaultCapacity) + 10);
    EXPECT_EQ(announced.load(), 3 + static_cast<int>(WorkQueue::kDefaultCapacity) + 10);

    // One line when it started, one when it recovered; the listener heard the same.
    EXPECT_EQ(countOf(printed, "Pointlane can't save to " + path() +
                                   ": database or disk is full; keeping 5 records and retrying."),
              1u)
        << printed;
    EXPECT_EQ(countOf(printed, "Pointlane saves to " + path() + " again;"), 1u) << printed;
    EXPECT_EQ(linesOf(printed).size(), 2u) << printed;
    const auto heard = statuses();
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0], std::make_pair(true, std::string("database or disk is full")));
    EXPECT_EQ(heard[1], std::make_pair(false, std::string()));
}

TEST_F(FailedStoresTest, AQuitGivesUpAfterItsTimeAndWritesEachUnstoredRecordAsAJsonLine) {
    Table table;
    table.openGame("Before");
    sqlm().drain();
    FaultyFileSystem::setFailing(true);
    table.putDeal("Never stored");
    table.elect("Ann");
    ASSERT_TRUE(testkit::waitUntil([&] { return !statuses().empty(); }));
    table.elect("Bea");  // waits behind the retried batch

    CaptureStdout();
    CaptureStderr();
    const auto started = std::chrono::steady_clock::now();
    sqlm().closeAfterPendingWork(std::chrono::milliseconds(300));
    const auto took = std::chrono::steady_clock::now() - started;
    const std::string printed = GetCapturedStdout();
    const std::string dumped = GetCapturedStderr();

    EXPECT_FALSE(sqlm().isOpen());
    EXPECT_GE(took, std::chrono::milliseconds(300));
    EXPECT_LT(took, std::chrono::seconds(5));
    const auto answered = table.answered();
    ASSERT_EQ(answered.size(), 4u) << printed << dumped;
    const auto lines = linesOf(dumped);
    ASSERT_EQ(lines.size(), 3u) << dumped;
    std::vector<Row> written;
    for (const std::string& line : lines) {
        const auto json = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(json.is_object()) << line;
        EXPECT_EQ(json.value("operation", ""), "insert") << line;
        const auto& values = json.at("values");
        const std::string kind = json.value("table", "");
        written.emplace_back(kind, values.at("id").get<std::int64_t>(),
                             kind == "Deal" ? values.at("gameId").get<std::int64_t>()
                                            : values.at("dealId").get<std::int64_t>());
    }
    EXPECT_EQ(written, std::vector<Row>(answered.begin() + 1, answered.end()));
    EXPECT_EQ(sqlm().unsavedCount(), 3u);
    EXPECT_EQ(countOf(printed, "Pointlane couldn't save 3 records to " + path() +
                                   "; each is on standard error as one JSON line."),
              1u)
        << printed;
    FaultyFileSystem::setFailing(false);
    EXPECT_EQ(storedRows(path()).size(), 1u);
}

// A lock another connection holds longer than the busy time-out fails the batch before it
// writes anything: its records get the ids their rows will have, and the links hold.
TEST_F(FailedStoresTest, ALockHeldTooLongKeepsTheBatchWithTheIdsItsRowsWillHave) {
    Table table;
    table.openGame("Before");
    table.putDeal("Stored");
    sqlm().drain();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open_v2(path().c_str(), &other, SQLITE_OPEN_READWRITE, "unix"), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    CaptureStdout();
    table.putDeal("While locked");
    table.elect("Ann");
    table.elect("Bea");
    const bool failed =
        testkit::waitUntil([&] { return !statuses().empty(); }, std::chrono::seconds(30));
    const std::size_t answered = table.answered().size();
    const std::size_t stored = storedRows(path()).size();
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    ASSERT_TRUE(failed);
    EXPECT_GE(answered, 3u);  // the deal, at least, was answered before anything was stored
    EXPECT_EQ(stored, 2u);
    EXPECT_EQ(storedRows(path()), byTable(table.answered()));
    EXPECT_EQ(table.answered().size(), 5u);
    EXPECT_EQ(std::get<2>(table.answered()[4]), std::get<1>(table.answered()[2]));
    EXPECT_NE(printed.find(": database is locked; keeping "), std::string::npos) << printed;
    EXPECT_NE(printed.find("Pointlane saves to " + path() + " again;"), std::string::npos)
        << printed;
}

}  // namespace
}  // namespace pointlane
