// Exports a generated history (by default 1,000 games x 20 deals x 5 elections, stored through
// the records into a database the application's way, from its schema script) to CSV and to JSON, in
// process and through the real binary's `pointlane export`, and compares the times with a bare
// sqlite3 baseline that reads the same rows (one joined SELECT over every election, touching every
// text column).
//
// Usage: export_bench [games] [runs]   (defaults: 1000 games, 3 runs; the best run is shown)
// Any failure (no schema script, a refused record, a failed export) ends it with status 1.

#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "ServerProcess.h"
#include "app/SchemaLocation.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/HistoryExport.h"
#include "storage/SQLite.h"

using namespace pointlane;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kDeals = 20;
constexpr int kElections = 5;

std::filesystem::path home;  // removed at the end, also after a failure

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "export_bench: %s\n", what.c_str());
    std::error_code ec;
    std::filesystem::remove_all(home, ec);
    std::exit(1);
}

// The database the application creates: its schema script, found where the program finds it.
void generate(const std::string& path, int games) {
    const auto schema = SchemaLocation::find();
    if (!schema) {
        fail("no Schema.sql next to the program nor in an installed tree");
    }
    sqlm().setSchemaPath(schema);
    if (!sqlm().create(path)) {
        fail("can't create " + path + " from " + *schema);
    }
    static const char* const kPlayers[] = {"\u0141ucja", "Bob", "Cy, Jr.", "Zbyszek \"Szef\"",
                                           "\u017Baneta"};
    static const char* const kCards[] = {"1", "2", "3", "5", "8", "13", "?", "\u00BD", "0,5"};
    sqlm().execQuery("BEGIN");
    for (int g = 0; g < games; ++g) {
        auto game = Game::make("Sprint " + std::to_string(g) + " \u0141\u00F3d\u017A", "Admin");
        if (!game || !game->save()) {
            fail("can't store game " + std::to_string(g));
        }
        for (int d = 0; d < kDeals; ++d) {
            auto deal =
                Deal::make(game->id, "Zadanie " + std::to_string(d) + ": \u017C\u00F3\u0142w");
            if (!deal || !deal->save()) {
                fail("can't store a deal of game " + std::to_string(g));
            }
            for (int e = 0; e < kElections; ++e) {
                auto election =
                    Election::make(deal->id, kPlayers[e], kCards[(g + d * 3 + e * (d % 3)) % 9]);
                if (!election || !election->save()) {
                    fail("can't store an election of game " + std::to_string(g));
                }
            }
        }
    }
    if (!sqlm().execQuery("COMMIT")) {
        fail("can't commit the generated history");
    }
    sqlm().close();
}

// The bare baseline: every election with its deal and game, every text column read.
std::size_t bareSelect(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(
            db,
            "SELECT g.id, g.name, g.date, g.admin, d.id, d.name, e.id, e.playerName, "
            "e.symbol FROM Election e JOIN Deal d ON d.id = e.dealId "
            "JOIN Game g ON g.id = d.gameId ORDER BY g.id DESC, d.id DESC, e.id",
            -1, &stmt, nullptr) != SQLITE_OK) {
        fail(std::string("bare SELECT: ") + sqlite3_errmsg(db));
    }
    std::size_t bytes = 0;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        for (int c = 0; c < 9; ++c) {
            bytes += static_cast<std::size_t>(sqlite3_column_bytes(stmt, c));
        }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return bytes;
}

// CPU seconds used so far by this process and its ended children: on a busy machine the
// wall time says more about the neighbours than about the export.
double cpuSeconds() {
    double total = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        total += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

struct Timing {
    double wallMs = 1e18;
    double cpuMs = 1e18;
};

// The best of runs; size is what the last run produced.
Timing best(int runs, const std::function<std::size_t()>& work, std::size_t& size) {
    Timing fastest;
    for (int i = 0; i < runs; ++i) {
        const double cpu = cpuSeconds();
        const auto start = Clock::now();
        size = work();
        fastest.wallMs =
            std::min(fastest.wallMs,
                     std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        fastest.cpuMs = std::min(fastest.cpuMs, (cpuSeconds() - cpu) * 1000);
    }
    return fastest;
}

}  // namespace

int main(int argc, char** argv) {
    const int games = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
    const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    home = std::filesystem::temp_directory_path() / ("export_bench." + std::to_string(getpid()));
    std::filesystem::create_directories(home / ".Pointlane");
    const std::string path = (home / ".Pointlane" / "Pointlane.sqlite").string();

    auto start = Clock::now();
    generate(path, games);
    std::printf("generated %d games x %d deals x %d elections in %.0f ms (%.1f MB)\n", games,
                kDeals, kElections,
                std::chrono::duration<double, std::milli>(Clock::now() - start).count(),
                static_cast<double>(std::filesystem::file_size(path)) / 1e6);

    std::size_t size = 0;
    std::printf("%-34s %10s %10s %12s\n", "", "wall", "cpu", "output");
    auto line = [&](const char* what, Timing t, const char* unit = "bytes") {
        std::printf("%-34s %7.1f ms %7.1f ms %12zu %s\n", what, t.wallMs, t.cpuMs, size, unit);
    };
    line("bare sqlite3 SELECT (baseline)", best(
                                               runs, [&] { return bareSelect(path); }, size));
    line("read (records + statistics)",
         best(
             runs,
             [&] {
                 const auto read = HistoryReader::read(path, std::nullopt);
                 if (!read.ok()) {
                     fail("the history could not be read");
                 }
                 return read.history->games.size();
             },
             size),
         "games");
    for (const auto format : {HistoryExport::Format::csv, HistoryExport::Format::json}) {
        const bool csv = format == HistoryExport::Format::csv;
        line(csv ? "export CSV in process" : "export JSON in process",
             best(
                 runs,
                 [&] {
                     const auto result = HistoryExport::fromDatabase(path, format, std::nullopt);
                     if (!result.ok()) {
                         fail(csv ? "the CSV export failed" : "the JSON export failed");
                     }
                     return result.text->size();
                 },
                 size));
        const std::string out = (home / (csv ? "out.csv" : "out.json")).string();
        line(csv ? "pointlane export (CSV, binary)" : "pointlane export (JSON, binary)",
             best(
                 runs,
                 [&] {
                     const auto status = testkit::ServerProcess::runToExit(
                         home.string(),
                         {"export", "--format", csv ? "csv" : "json", "--output", out});
                     if (status != std::optional<int>(0)) {
                         fail("pointlane export failed: " +
                              testkit::fileText(home.string() + "/run.err"));
                     }
                     return std::filesystem::file_size(out);
                 },
                 size));
    }
    std::filesystem::remove_all(home);
    return 0;
}
