#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "StorageFixture.h"
#include "storage/PlayerInfo.h"
#include "storage/SQLite.h"

namespace pointlane {
namespace {

class SQLiteConcurrencyTest : public testing::StorageFixture {};

// Writes on the queue overlap reads on other threads, one of which keeps failing. Every
// operation must judge its own success: a failing read must not fail a write, and a write must
// not make a read look failed or return rows it did not read.
TEST_F(SQLiteConcurrencyTest, QueuedWritesAndOverlappingReadsEachSeeTheirOwnResult) {
    constexpr int kRows = 5000;
    // Durability is not under test here; the disk would only slow the overlap down.
    ASSERT_TRUE(sqlm().execQuery("PRAGMA synchronous = OFF"));

    std::atomic<int> saved{0};
    std::atomic<int> failedSaves{0};
    std::atomic<bool> writerDone{false};
    for (int i = 0; i < kRows; ++i) {
        sqlm().async([&, i] {
            auto player = PlayerInfo::make("Gracz ł" + std::to_string(i), "10.0.0.1");
            if (player && player->save() && player->id == i + 1) {
                ++saved;
            } else {
                ++failedSaves;
            }
        });
    }
    sqlm().async([&] { writerDone = true; });

    std::atomic<int> goodReads{0};
    std::atomic<int> wrongReads{0};
    std::atomic<int> badReadsSeenFailing{0};
    std::atomic<int> badReadsSeenSucceeding{0};
    ::testing::internal::CaptureStdout();
    std::thread reader([&] {
        std::size_t last = 0;
        while (!writerDone) {
            auto rows = sqlm().select("SELECT id, name FROM PlayerInfo ORDER BY id");
            std::int64_t expected = 1;
            for (const auto& row : rows ? rows->array : std::vector<RowData>{}) {
                wrongReads +=
                    row["id"]->data.integerValue() != expected ||
                    row["name"]->data.textValue() != "Gracz ł" + std::to_string(expected - 1);
                ++expected;
            }
            wrongReads += !rows || rows->size() < last;
            last = rows ? rows->size() : last;
            ++goodReads;
        }
    });
    std::thread failingReader([&] {
        // Bounded so that the reports stay a readable size.
        for (int i = 0; i < 3000 && !writerDone; ++i) {
            if (sqlm().select("SELECT missing FROM Nowhere")) {
                ++badReadsSeenSucceeding;
            } else {
                ++badReadsSeenFailing;
            }
        }
    });
    sqlm().drain();
    reader.join();
    failingReader.join();
    const std::string output = ::testing::internal::GetCapturedStdout();

    EXPECT_EQ(saved.load(), kRows);
    EXPECT_EQ(failedSaves.load(), 0);
    EXPECT_EQ(wrongReads.load(), 0);
    EXPECT_GT(goodReads.load(), 0);
    EXPECT_EQ(badReadsSeenSucceeding.load(), 0);
    // Exactly one report per failing read, each naming the read and its own message.
    const auto lines = linesOf(output);
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(badReadsSeenFailing.load()));
    for (const std::string& line : lines) {
        ASSERT_TRUE(
            matches(line, R"(SQLite: select\(query:\) \(\d+\): no such table: Nowhere \(1\))"))
            << line;
    }
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), kRows);
}

}  // namespace
}  // namespace pointlane
