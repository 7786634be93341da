// Stores elections through the database queue, the way the request handlers do, and compares
// the rate with a bare sqlite3 loop doing the same work: one prepared statement, one row per
// statement in autocommit, the same pragmas (the library's defaults plus foreign keys).
//
// Usage: storage_bench [rows] [folder]   (defaults: 10000 rows, a new folder under /tmp)

#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/SQLite.h"

using namespace pointlane;
using Clock = std::chrono::steady_clock;

namespace {

std::string schemaText() {
    const auto exe = std::filesystem::read_symlink("/proc/self/exe");
    std::ifstream in(exe.parent_path() / "Schema.sql");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The database object's side: Game and Deal first, then elections through the queue.
class QueueSide {
  public:
    explicit QueueSide(const std::string& path) {
        sqlm().setSchemaPath(
            (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "Schema.sql").string());
        if (!sqlm().create(path)) {
            std::fprintf(stderr, "can't create %s\n", path.c_str());
            std::exit(1);
        }
        auto game = Game::make("Benchmark", "admin");
        auto deal = game && game->save() ? Deal::make(game->id, "deal") : nullptr;
        if (!deal || !deal->save()) {
            std::fprintf(stderr, "can't store the game and the deal\n");
            std::exit(1);
        }
        dealId_ = deal->id;
    }
    ~QueueSide() { sqlm().close(); }

    double store(int from, int count) {
        const auto start = Clock::now();
        for (int i = from; i < from + count; ++i) {
            sqlm().async([this, i] {
                auto election = Election::make(dealId_, "Gracz " + std::to_string(i % 5), "8");
                if (!election || !election->save()) {
                    ++failures_;
                }
            });
        }
        sqlm().drain();
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    int failures() const { return failures_; }

  private:
    std::int64_t dealId_ = 0;
    int failures_ = 0;  // only touched on the queue, read after drain()
};

// The bare side: one prepared statement, reset after each row.
class BareSide {
  public:
    explicit BareSide(const std::string& path) {
        if (sqlite3_open_v2(path.c_str(), &db_,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                            nullptr) != SQLITE_OK ||
            sqlite3_exec(db_, schemaText().c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
            sqlite3_exec(db_, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr) != SQLITE_OK ||
            sqlite3_exec(db_,
                         "INSERT INTO Game (name, date, admin) VALUES ('Benchmark', "
                         "'2024-01-01 00:00:00', 'admin'); INSERT INTO Deal (gameId, name) "
                         "VALUES (1, 'deal')",
                         nullptr, nullptr, nullptr) != SQLITE_OK) {
            std::fprintf(stderr, "bare setup failed: %s\n", sqlite3_errmsg(db_));
            std::exit(1);
        }
        sqlite3_prepare_v2(db_, "INSERT INTO Election (dealId,playerName,symbol) VALUES (?,?,?)",
                           -1, &stmt_, nullptr);
    }
    ~BareSide() {
        sqlite3_finalize(stmt_);
        sqlite3_close(db_);
    }

    double store(int from, int count) {
        const auto start = Clock::now();
        for (int i = from; i < from + count; ++i) {
            const std::string player = "Gracz " + std::to_string(i % 5);
            sqlite3_bind_int64(stmt_, 1, 1);
            sqlite3_bind_text(stmt_, 2, player.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(stmt_, 3, "8", -1, SQLITE_TRANSIENT);
            if (sqlite3_step(stmt_) != SQLITE_DONE) {
                ++failures_;
            }
            sqlite3_reset(stmt_);
        }
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
    int failures() const { return failures_; }

  private:
    sqlite3* db_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
    int failures_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const int rows = argc > 1 ? std::atoi(argv[1]) : 10000;
    std::string folder;
    if (argc > 2) {
        folder = argv[2];
    } else {
        char pattern[] = "/tmp/pointlane-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return 1;
        }
        folder = pattern;
    }
    const std::string ours = folder + "/queue.sqlite";
    const std::string theirs = folder + "/bare.sqlite";
    std::filesystem::remove(ours);
    std::filesystem::remove(theirs);

    // The two sides take turns in blocks, so that the disk's varying fsync speed (other
    // programs share it) weighs on both alike.
    constexpr int kBlock = 250;
    double queueSeconds = 0;
    double bareSeconds = 0;
    {
        QueueSide queue(ours);
        BareSide bareLoop(theirs);
        for (int done = 0; done < rows; done += kBlock) {
            const int count = std::min(kBlock, rows - done);
            if ((done / kBlock) % 2 == 0) {
                queueSeconds += queue.store(done, count);
                bareSeconds += bareLoop.store(done, count);
            } else {
                bareSeconds += bareLoop.store(done, count);
                queueSeconds += queue.store(done, count);
            }
        }
        if (queue.failures() != 0 || bareLoop.failures() != 0) {
            std::fprintf(stderr, "failed rows: queue %d, bare %d\n", queue.failures(),
                         bareLoop.failures());
            return 1;
        }
    }
    const double queued = rows / queueSeconds;
    const double bareRate = rows / bareSeconds;
    std::printf("elections stored:   %d per side (one row per statement, autocommit), in %s\n",
                rows, folder.c_str());
    std::printf("through the queue:  %.0f rows/s\n", queued);
    std::printf("bare sqlite3 loop:  %.0f rows/s\n", bareRate);
    std::printf("ratio queue / bare: %.2f\n", queued / bareRate);
    if (argc <= 2) {
        std::filesystem::remove_all(folder);
    }
    return 0;
}
