// Stores that fail because the file can't be written (a full disk) are kept and stored once it
// can, with the ids the records were given and the links between them; a quit that can't wait
// any longer writes them out. The disk is made full on demand by a file system wrapped around
// the default one (the end-to-end tests fill a real one).
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// A record as answered or stored: its table's rank (games, deals, elections), its table, its
// id and the id it links to (0 for a game). Sorted, rows come in table then id order.
using Row = std::tuple<int, std::string, std::int64_t, std::int64_t>;

// The record writes the game makes, the way it makes them: each on the database queue, a deal
// linked to the game opened last, an election to the deal put last.
class Table {
  public:
    void openGame(const std::string& name) {
        sqlm().async([this, name] {
            if (auto game = Game::make(name, "Boss"); game && game->save()) {
                game_ = game->id;
                answer({0, "Game", game->id, 0});
            }
        });
    }
    void putDeal(const std::string& title) {
        sqlm().async([this, title] {
            if (auto deal = Deal::make(game_.load(), title); deal && deal->save()) {
                deal_ = deal->id;
                answer({1, "Deal", deal->id, deal->gameId});
            }
        });
    }
    void elect(const std::string& player) {
        sqlm().async([this, player] {
            if (auto e = Election::make(deal_.load(), player, "5"); e && e->save()) {
                post(Event::electionTableDidChange);
                answer({2, "Election", e->id, e->dealId});
            }
        });
    }
    // In the order answered, or sorted.
    std::vector<Row> answered(bool sorted = false) {
        std::lock_guard lock(mutex_);
        auto rows = answered_;
        if (sorted) {
            std::sort(rows.begin(), rows.end());
        }
        return rows;
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
    // Every stored row, over a connection of its own that the full disk doesn't touch.
    std::vector<Row> storedRows() const {
        std::vector<Row> rows;
        for (std::string line :
             rawTexts(path(),
                      "SELECT 0, 'Game', id, 0 FROM Game UNION ALL SELECT 1, 'Deal', id, "
                      "gameId FROM Deal UNION ALL SELECT 2, 'Election', id, dealId FROM "
                      "Election")) {
            std::replace(line.begin(), line.end(), '|', ' ');
            Row row;
            std::istringstream(line) >> std::get<0>(row) >> std::get<1>(row) >> std::get<2>(row) >>
                std::get<3>(row);
            rows.push_back(row);
        }
        std::sort(rows.begin(), rows.end());
        return rows;
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
    ASSERT_EQ(storedRows().size(), 3u);
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
    constexpr std::size_t kFlood = WorkQueue::kDefaultCapacity + 10;
    std::atomic<std::size_t> submitted{0};
    std::thread flood([&] {
        for (std::size_t i = 0; i < kFlood; ++i) {
            table.elect("flood " + std::to_string(i));
            ++submitted;
        }
    });
    ASSERT_TRUE(
        testkit::waitUntil([&] { return submitted.load() + 1 >= WorkQueue::kDefaultCapacity; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(submitted.load(), kFlood);
    EXPECT_EQ(storedRows().size(), 3u);  // nothing of it is in the file yet
    EXPECT_EQ(announced.load(), 0);

    FaultyFileSystem::setFailing(false);
    flood.join();
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);

    const auto answered = table.answered(true);
    EXPECT_EQ(storedRows(), answered);
    ASSERT_EQ(answered.size(), 3u + 5u + 1u + kFlood);
    // The links are the ids of the rows stored during the failure: the deal "Second game"
    // links to the game "During", Bea and Cy to "While full", the rest to "Second game".
    EXPECT_EQ(std::get<3>(answered[4]), std::get<2>(answered[1]));
    std::vector<std::int64_t> links;
    for (const Row& row : answered) {
        if (std::get<1>(row) == "Election") {
            links.push_back(std::get<3>(row));
        }
    }
    EXPECT_EQ(std::count(links.begin(), links.end(), std::get<2>(answered[3])), 2);
    EXPECT_EQ(std::count(links.begin(), links.end(), std::get<2>(answered[4])),
              static_cast<std::ptrdiff_t>(1 + kFlood));
    EXPECT_EQ(announced.load(), 3 + static_cast<int>(kFlood));

    // One line when it started, one when it recovered; the listener heard the same.
    EXPECT_EQ(countOf(printed, "Pointlane can't save to " + path() +
                                   ": database or disk is full; keeping 5 records and retrying."),
              1u)
        << printed;
    EXPECT_EQ(countOf(printed, "Pointlane saves to " + path() + " again;"), 1u) << printed;
    EXPECT_EQ(linesOf(printed).size(), 2u) << printed;
    EXPECT_EQ(statuses(), (std::vector<std::pair<bool, std::string>>{
                              {true, "database or disk is full"}, {false, ""}}));
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
    std::vector<Row> written;
    for (const std::string& line : linesOf(dumped)) {
        const auto json = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(json.is_object()) << line;
        EXPECT_EQ(json.value("operation", ""), "insert") << line;
        const auto& values = json.at("values");
        const std::string kind = json.value("table", "");
        written.emplace_back(kind == "Deal" ? 1 : 2, kind, values.at("id").get<std::int64_t>(),
                             values.at(kind == "Deal" ? "gameId" : "dealId").get<std::int64_t>());
    }
    EXPECT_EQ(written, std::vector<Row>(answered.begin() + 1, answered.end()));
    EXPECT_EQ(sqlm().unsavedCount(), 3u);
    EXPECT_EQ(countOf(printed, "Pointlane couldn't save 3 records to " + path() +
                                   "; each is on standard error as one JSON line."),
              1u)
        << printed;
    EXPECT_EQ(storedRows().size(), 1u);
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
    const std::size_t stored = storedRows().size();
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    ASSERT_TRUE(failed);
    EXPECT_GE(answered, 3u);  // the deal, at least, was answered before anything was stored
    EXPECT_EQ(stored, 2u);
    const auto rows = table.answered(true);
    EXPECT_EQ(storedRows(), rows);
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(std::get<3>(rows[4]), std::get<2>(rows[2]));  // Bea's deal is "While locked"
    EXPECT_NE(printed.find(": database is locked; keeping "), std::string::npos) << printed;
    EXPECT_NE(printed.find("Pointlane saves to " + path() + " again;"), std::string::npos)
        << printed;
}

}  // namespace
}  // namespace pointlane
