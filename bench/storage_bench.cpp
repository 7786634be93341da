// Stores elections through the database queue, the way the request handlers do, and compares
// the rate with a bare sqlite3 loop doing the same work: one prepared statement, one row per
// statement in autocommit, the same pragmas (the library's defaults plus foreign keys).
//
// Usage: storage_bench [rows] [folder]   (defaults: 10000 rows, a new folder under /tmp)

#include <sqlite3.h>
#include <unistd.h>

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

double viaQueue(const std::string& path, int rows) {
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
    const std::int64_t dealId = deal->id;
    int failures = 0;
    const auto start = Clock::now();
    for (int i = 0; i < rows; ++i) {
        sqlm().async([dealId, i, &failures] {
            auto election = Election::make(dealId, "Gracz " + std::to_string(i % 5), "8");
            if (!election || !election->save()) {
                ++failures;
            }
        });
    }
    sqlm().drain();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sqlm().close();
    if (failures != 0) {
        std::fprintf(stderr, "%d elections were not stored\n", failures);
        std::exit(1);
    }
    return rows / seconds;
}

double bare(const std::string& path, int rows) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK ||
        sqlite3_exec(db, schemaText().c_str(), nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(db, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(db,
                     "INSERT INTO Game (name, date, admin) VALUES ('Benchmark', "
                     "'2024-01-01 00:00:00', 'admin'); INSERT INTO Deal (gameId, name) VALUES "
                     "(1, 'deal')",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "bare setup failed: %s\n", sqlite3_errmsg(db));
        std::exit(1);
    }
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO Election (dealId,playerName,symbol) VALUES (?,?,?)", -1,
                       &stmt, nullptr);
    int failures = 0;
    const auto start = Clock::now();
    for (int i = 0; i < rows; ++i) {
        const std::string player = "Gracz " + std::to_string(i % 5);
        sqlite3_bind_int64(stmt, 1, 1);
        sqlite3_bind_text(stmt, 2, player.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 3, "8", -1, SQLITE_TRANSIENT);
        if (sqlite3_step(stmt) != SQLITE_DONE) {
            ++failures;
        }
        sqlite3_reset(stmt);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    if (failures != 0) {
        std::fprintf(stderr, "%d bare inserts failed\n", failures);
        std::exit(1);
    }
    return rows / seconds;
}

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

    // Bare first, then ours, then bare again: the mean of the two bare runs evens out drift.
    const double bare1 = bare(theirs, rows);
    std::filesystem::remove(theirs);
    const double queued = viaQueue(ours, rows);
    const double bare2 = bare(theirs, rows);
    const double bareRate = (bare1 + bare2) / 2;

    std::printf("elections stored:       %d per run (one row per statement, autocommit)\n", rows);
    std::printf("through the queue:      %.0f rows/s\n", queued);
    std::printf("bare sqlite3 loop:      %.0f rows/s (runs: %.0f, %.0f)\n", bareRate, bare1, bare2);
    std::printf("ratio queue / bare:     %.2f\n", queued / bareRate);
    if (argc <= 2) {
        std::filesystem::remove_all(folder);
    }
    return 0;
}
