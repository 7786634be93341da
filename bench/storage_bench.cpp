// 1. A burst of elections stored through the database queue, the way the request handlers do
//    (the blocks waiting together commit as one transaction), against a bare sqlite3 loop doing
//    the same work one transaction per record: one prepared statement, autocommit, the same
//    pragmas as the store (WAL, synchronous=FULL, foreign keys), on the same disk, the bare
//    loop's halves before and after the burst.
// 2. The real server flooded with card elections by the administrator, then the administrator's
//    logout: how long until the process has ended.
//
// Usage: storage_bench [rows] [folder]   (defaults: 10000 rows, a new folder under /tmp)
// Exits with status 1 when a side fails.
// POINTLANE_SERVER=path runs the flood against another server binary.

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "app/SchemaLocation.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/SQLite.h"

using namespace pointlane;
using Clock = std::chrono::steady_clock;

namespace {

// The application's schema script, found where the program finds it; both sides use it.
std::string schemaPath() {
    const auto path = SchemaLocation::find();
    if (!path) {
        std::fprintf(stderr, "no Schema.sql next to the program nor in an installed tree\n");
        std::exit(1);
    }
    return *path;
}

std::string schemaText() {
    std::ifstream in(schemaPath());
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The database object's side: Game and Deal first, then elections through the queue.
class QueueSide {
  public:
    explicit QueueSide(const std::string& path) {
        sqlm().setSchemaPath(schemaPath());
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
            sqlite3_exec(db_,
                         "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; "
                         "PRAGMA foreign_keys = ON",
                         nullptr, nullptr, nullptr) != SQLITE_OK ||
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

struct FloodResult {
    bool ok = false;
    double floodSeconds = 0;
    double logoutToExitSeconds = 0;
    std::int64_t stored = -1;
};

std::int64_t countRows(const std::string& path, const char* query) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    std::int64_t count = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, query, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// The administrator opens a game and a deal, elects `records` cards as fast as the answers come
// back, then logs out; the clock runs from the logout request to the process's end.
FloodResult floodThenLogout(int records, const std::string& home, const std::string& binary) {
    FloodResult result;
    auto process = testkit::ServerProcess::start(home, {}, binary);
    if (!process) {
        return result;
    }
    auto receiver = ClientServer::start();
    auto admin = PokerClient::connect(process->port());
    auto login = admin ? admin->loginAdmin("Admin", "Flood", receiver->port()) : std::nullopt;
    auto deal = login && login->code == 0 ? admin->initNewDeal("Flood") : std::nullopt;
    if (!deal || deal->code != 0) {
        std::fprintf(stderr, "the flood could not start\n");
        return result;
    }
    const auto start = Clock::now();
    for (int i = 0; i < records; ++i) {
        auto answer = admin->cardElected("Gracz " + std::to_string(i % 5), "8");
        if (!answer || answer->code != 0) {
            std::fprintf(stderr, "election %d refused\n", i);
            return result;
        }
    }
    const auto loggingOut = Clock::now();
    result.floodSeconds = std::chrono::duration<double>(loggingOut - start).count();
    if (!admin->logout()) {
        return result;
    }
    const auto status = process->waitForExit(std::chrono::seconds(600));
    result.logoutToExitSeconds = std::chrono::duration<double>(Clock::now() - loggingOut).count();
    result.stored =
        countRows(home + "/.Pointlane/Pointlane.sqlite", "SELECT count(*) FROM Election");
    result.ok = status && *status == 0;
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    const int rows = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
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

    double queueSeconds = 0;
    double bareSeconds = 0;
    {
        QueueSide queue(ours);
        BareSide bareLoop(theirs);
        // Half the bare loop before the burst and half after, so that the disk's varying sync
        // speed (other programs share it) weighs on both alike.
        bareSeconds += bareLoop.store(0, rows / 2);
        queueSeconds += queue.store(0, rows);
        bareSeconds += bareLoop.store(rows / 2, rows - rows / 2);
        if (queue.failures() != 0 || bareLoop.failures() != 0) {
            std::fprintf(stderr, "failed rows: queue %d, bare %d\n", queue.failures(),
                         bareLoop.failures());
            return 1;
        }
    }
    const double queued = rows / queueSeconds;
    const double bareRate = rows / bareSeconds;
    std::printf("elections stored:   %d per side (WAL, synchronous=FULL), in %s\n", rows,
                folder.c_str());
    std::printf("queue, one burst:   %.0f rows/s (the waiting blocks commit together)\n", queued);
    std::printf("bare, per record:   %.0f rows/s (one transaction per record)\n", bareRate);
    std::printf("ratio queue / bare: %.2f (target >= 20)\n", queued / bareRate);
    std::fflush(stdout);

    const char* other = std::getenv("POINTLANE_SERVER");
    const std::string binary = other != nullptr ? other : POINTLANE_BINARY;
    const std::string home = folder + "/home";
    std::filesystem::create_directories(home);
    const FloodResult flood = floodThenLogout(rows, home, binary);
    if (!flood.ok) {
        std::fprintf(stderr, "the flood run failed\n");
        return 1;
    }
    std::printf("server %s\n", binary.c_str());
    std::printf("flood:              %d elections answered in %.2f s, %lld stored\n", rows,
                flood.floodSeconds, static_cast<long long>(flood.stored));
    std::printf("logout to exit:     %.2f s (target <= 2, of which 1 s is the game's end delay)\n",
                flood.logoutToExitSeconds);
    if (argc <= 2) {
        std::filesystem::remove_all(folder);
    }
    return 0;
}
