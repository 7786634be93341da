// A server that can't store what it would answer never starts: a home that can't be made, a
// data folder or a database file that can't be written, a database of a newer layout or a
// damaged one each end the start with status 1 and one line naming the path, before anything
// is advertised, and leave the database as it was.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ServerProcess.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::fileText;
using testkit::ServerProcess;
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

}  // namespace
}  // namespace pointlane
