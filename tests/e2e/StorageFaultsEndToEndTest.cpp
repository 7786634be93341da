// The server and a disk that refuses writes. A server that can't store what it would answer
// never starts: a home that can't be made, a data folder or a database file that can't be
// written, a database of a newer layout or a damaged one each end the start with status 1 and
// one line naming the path, before anything is advertised, and leave the database as it was.
// A disk that fills up during a game loses nothing the server answered.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "ClientServer.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "StoredRows.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::fileText;
using testkit::ServerProcess;
using testkit::storedRows;
using testkit::TempDir;

bool runSql(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    const bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

// A read-only view of path on itself, gone with the object; for root, whom permission bits
// don't stop. Empty when mounting isn't allowed here.
struct ReadOnlyMount {
    std::string at;
    std::string refusal;
    explicit ReadOnlyMount(const std::string& path) {
        if (::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            refusal = std::strerror(errno);
            return;
        }
        at = path;
        if (::mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) !=
            0) {
            refusal = std::strerror(errno);
        }
    }
    ~ReadOnlyMount() {
        if (!at.empty()) {
            ::umount2(at.c_str(), MNT_DETACH);
        }
    }
    bool ok() const { return !at.empty() && refusal.empty(); }
};

const std::string kFirstLayout =
    "CREATE TABLE Game (id INTEGER PRIMARY KEY, name TEXT NOT NULL, date TEXT NOT NULL, "
    "admin TEXT NOT NULL);"
    "CREATE TABLE Deal (id INTEGER PRIMARY KEY, gameId INTEGER NOT NULL REFERENCES Game (id), "
    "name TEXT NOT NULL);"
    "CREATE TABLE Election (id INTEGER PRIMARY KEY, dealId INTEGER NOT NULL REFERENCES Deal "
    "(id), playerName TEXT NOT NULL, symbol TEXT NOT NULL);"
    "CREATE TABLE PlayerInfo (id INTEGER PRIMARY KEY, name TEXT NOT NULL, address TEXT NOT "
    "NULL);";

TEST(StartRefusalTest, WhatCantBeWrittenOrReadEndsTheStartWithOneLineNamingThePath) {
    const bool root = ::geteuid() == 0;
    struct Case {
        std::string name;
        // Prepares the case under base; gives the home to start with and the expected line's
        // beginning; sets skip when this machine can't make the case.
        std::function<void(const std::filesystem::path& base, std::string& home, std::string& line,
                           std::string& skip, std::unique_ptr<ReadOnlyMount>& mount)>
            prepare;
    };
    const std::vector<Case> cases{
        {"home under a file",
         [](const auto& base, std::string& home, std::string& line, std::string&, auto&) {
             std::ofstream(base / "file") << "x";
             home = (base / "file" / "home").string();
             line =
                 "Pointlane can't make its data folder " + home + "/.Pointlane: Not a directory.";
         }},
        {"read-only data folder",
         [root](const auto& base, std::string& home, std::string& line, std::string& skip,
                auto& mount) {
             home = (base / "home").string();
             const auto folder = base / "home" / ".Pointlane";
             std::filesystem::create_directories(folder);
             if (root) {
                 mount = std::make_unique<ReadOnlyMount>(folder.string());
                 if (!mount->ok()) {
                     skip = "root ignores permissions and can't mount here: " + mount->refusal;
                 }
                 line = "Pointlane can't write to its data folder " + folder.string() +
                        ": Read-only file system.";
             } else {
                 ::chmod(folder.c_str(), 0555);
                 line = "Pointlane can't write to its data folder " + folder.string() +
                        ": Permission denied.";
             }
         }},
        {"read-only database file",
         [root](const auto& base, std::string& home, std::string& line, std::string& skip,
                auto& mount) {
             home = (base / "home").string();
             const auto folder = base / "home" / ".Pointlane";
             std::filesystem::create_directories(folder);
             const std::string db = (folder / "Pointlane.sqlite").string();
             runSql(db, kFirstLayout);
             if (root) {
                 mount = std::make_unique<ReadOnlyMount>(db);
                 if (!mount->ok()) {
                     skip = "root ignores permissions and can't mount here: " + mount->refusal;
                 }
                 line = "Pointlane can't write to its database " + db + ": Read-only file system.";
             } else {
                 ::chmod(db.c_str(), 0444);
                 line = "Pointlane can't write to its database " + db + ": Permission denied.";
             }
         }},
        {"newer database",
         [](const auto& base, std::string& home, std::string& line, std::string&, auto&) {
             home = (base / "home").string();
             std::filesystem::create_directories(base / "home" / ".Pointlane");
             const std::string db = (base / "home" / ".Pointlane" / "Pointlane.sqlite").string();
             runSql(db, kFirstLayout + "PRAGMA user_version = 2;");
             line = "Pointlane can't use the database " + db +
                    ": it was written by a newer Pointlane (layout 2, this one knows up to 1).";
         }},
        {"damaged database",
         [](const auto& base, std::string& home, std::string& line, std::string&, auto&) {
             home = (base / "home").string();
             std::filesystem::create_directories(base / "home" / ".Pointlane");
             const std::string db = (base / "home" / ".Pointlane" / "Pointlane.sqlite").string();
             runSql(db, kFirstLayout +
                            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
                            "WHERE i < 400) INSERT INTO PlayerInfo SELECT i, "
                            "printf('%.200c', 'x'), 'a' FROM n;");
             std::fstream file(db, std::ios::binary | std::ios::in | std::ios::out);
             file.seekp(5 * 4096);
             file << std::string(300, '\xA5');
             line = "Pointlane can't use the database " + db + ": it is damaged (";
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir base;
        std::string home, line, skip;
        std::unique_ptr<ReadOnlyMount> mount;
        c.prepare(base.path(), home, line, skip, mount);
        if (!skip.empty()) {
            std::printf("skipped \"%s\": %s\n", c.name.c_str(), skip.c_str());
            continue;
        }
        const std::string db = home + "/.Pointlane/Pointlane.sqlite";
        const std::string before = fileText(db);
        std::string output;
        const auto status =
            ServerProcess::runToExit(home, {"--headless", "--port", "0"}, &output,
                                     std::chrono::seconds(10), base.path().string());
        EXPECT_EQ(status, std::optional<int>(1)) << output;
        EXPECT_EQ(output.rfind(line, 0), 0u) << output;
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
        const std::string diagnostics = fileText(base.file("run.err"));
        EXPECT_EQ(diagnostics.find("Listening on port"), std::string::npos) << diagnostics;
        EXPECT_EQ(fileText(db), before);
    }
}

// Where the tests may mount: the data folder on a small file system, filled to the brim in the
// middle of a game (after a deal and its election were stored) and emptied again.
class FullDiskTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(folder_);
        if (::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=1m") != 0) {
            GTEST_SKIP() << "can't mount a small file system here: " << std::strerror(errno);
        }
        mounted_ = true;
        server = ServerProcess::start(home_.path().string());
        ASSERT_TRUE(server);
        adminServer = ClientServer::start();
        playerServer = ClientServer::start();
        admin = PokerClient::connect(server->port(), "127.0.0.1", 5.0);
        player = PokerClient::connect(server->port(), "127.0.0.1", 5.0);
        ASSERT_TRUE(adminServer && playerServer && admin && player);
        ASSERT_EQ(admin->loginAdmin("Boss", "Full", adminServer->port())->code, 0);
        ASSERT_EQ(player->loginPlayer("Ann", playerServer->port())->code, 0);
        ASSERT_EQ(admin->initNewDeal("Before")->code, 0);
        ASSERT_EQ(admin->cardElected("Ann", "3")->code, 0);
        ASSERT_TRUE(testkit::waitUntil([&] { return count("Election") == 1; }));
        std::ofstream filler(folder_ / "filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size())) {
        }
    }
    void TearDown() override {
        server.reset();
        if (mounted_) {
            ::umount2(folder_.c_str(), MNT_DETACH);
        }
    }
    void makeRoom() { std::filesystem::remove(folder_ / "filler"); }
    std::size_t count(const std::string& table) const {
        auto rows = storedRows(db, "SELECT id FROM " + table);
        return rows ? rows->size() : 0u;
    }
    bool saysItCantSave() const {
        return server->output().find("Pointlane can't save to " + db) != std::string::npos;
    }

    TempDir home_;
    std::filesystem::path folder_ = home_.path() / ".Pointlane";
    bool mounted_ = false;
    const std::string db = (folder_ / "Pointlane.sqlite").string();
    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<ClientServer> adminServer, playerServer;
    std::unique_ptr<PokerClient> admin, player;
};

TEST_F(FullDiskTest, AGameAnsweredWhileTheDiskIsFullIsStoredWithItsLinksOnceThereIsRoom) {
    int answered = 2;  // the deal and election before
    for (const char* title : {"During 1", "During 2"}) {
        ASSERT_EQ(admin->initNewDeal(title)->code, 0);
        ASSERT_EQ(admin->cardElected("Ann", "5")->code, 0);
        ASSERT_EQ(admin->cardElected("Boss", "8")->code, 0);
        answered += 3;
    }
    ASSERT_TRUE(testkit::waitUntil([&] { return saysItCantSave(); })) << server->output();
    const std::size_t storedWhileFull = count("Deal") + count("Election");
    makeRoom();
    ASSERT_TRUE(testkit::waitUntil([&] {
        return server->output().find("Pointlane saves to " + db) != std::string::npos;
    })) << server->output();
    ASSERT_EQ(admin->cardElected("Ann", "13")->code, 0);  // after: still on "During 2"
    ++answered;
    ASSERT_EQ(admin->logout()->code, 0);
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(20)), std::optional<int>(0));

    const auto rows = storedRows(db,
                                 "SELECT d.name AS deal, e.playerName AS player, e.symbol AS card "
                                 "FROM Election e JOIN Deal d ON d.id = e.dealId ORDER BY e.id");
    ASSERT_TRUE(rows);
    std::vector<std::string> stored;
    for (const auto& row : *rows) {
        stored.push_back(row.at("deal") + "/" + row.at("player") + "/" + row.at("card"));
    }
    EXPECT_EQ(stored,
              (std::vector<std::string>{"Before/Ann/3", "During 1/Ann/5", "During 1/Boss/8",
                                        "During 2/Ann/5", "During 2/Boss/8", "During 2/Ann/13"}));
    EXPECT_EQ(count("Game"), 1u);
    std::printf(
        "records stored vs answered by the server under a full disk: %zu of %d "
        "(%zu were in the file while it was full)\n",
        count("Deal") + count("Election"), answered, storedWhileFull);
    EXPECT_EQ(count("Deal") + count("Election"), static_cast<std::size_t>(answered));
    const std::string output = server->output();
    EXPECT_EQ(output.find("SQLite:"), std::string::npos) << output;
}

// A quit while the disk is still full tries for a bounded time, then writes what it couldn't
// store on standard error, one JSON line per record, and says how many.
TEST_F(FullDiskTest, AQuitWhileTheDiskIsFullWritesTheUnsavedRecordsOutAndSaysHowMany) {
    ASSERT_EQ(admin->initNewDeal("Never stored")->code, 0);
    ASSERT_EQ(admin->cardElected("Ann", "5")->code, 0);
    ASSERT_EQ(admin->cardElected("Boss", "8")->code, 0);
    ASSERT_TRUE(testkit::waitUntil([&] { return saysItCantSave(); })) << server->output();
    const auto started = std::chrono::steady_clock::now();
    server->signal(SIGTERM);
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(30)), std::optional<int>(0));
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_GE(took, std::chrono::seconds(9));
    EXPECT_LT(took, std::chrono::seconds(20));
    std::vector<std::string> records;
    std::istringstream err(server->diagnostics());
    for (std::string line; std::getline(err, line);) {
        if (!line.empty() && line.front() == '{') {
            records.push_back(line);
        }
    }
    ASSERT_EQ(records.size(), 3u) << server->diagnostics();
    const auto deal = nlohmann::json::parse(records[0]);
    EXPECT_EQ(deal["table"], "Deal");
    EXPECT_EQ(deal["values"]["name"], "Never stored");
    for (const std::size_t i : {1u, 2u}) {
        const auto election = nlohmann::json::parse(records[i]);
        EXPECT_EQ(election["table"], "Election");
        EXPECT_EQ(election["values"]["dealId"], deal["values"]["id"]);
    }
    EXPECT_NE(server->output().find("Pointlane couldn't save 3 records to " + db),
              std::string::npos)
        << server->output();
    makeRoom();
    EXPECT_EQ(count("Deal"), 1u);
}

}  // namespace
}  // namespace pointlane
