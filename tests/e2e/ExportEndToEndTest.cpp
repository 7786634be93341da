#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ClientServer.h"
#include "Csv.h"
#include "PokerClient.h"
#include "ServerProcess.h"
#include "StoredRows.h"
#include "TestKit.h"

namespace pointlane {
namespace {

using testkit::fileText;
using testkit::parseCsv;
using testkit::ServerProcess;
using testkit::storedRows;
using testkit::TempDir;

// Names with Polish letters and everything CSV has to quote.
const std::string kGame = "Sprint \u0141\u00F3d\u017A, \"Q4\"\nplan";
const std::string kAdmin = "Zbyszek \"Szef\"";
const std::string kPlayer = "\u0141ucja, Jr.";
const std::string kDeal = "Zadanie 1, cz\u0119\u015B\u0107 \"A\"\ndruga";
const std::string kTurtle = "\u017B\u00F3\u0142w\nna dnie";  // a line break alone is quoted too

class ExportEndToEndTest : public ::testing::Test {
  protected:
    struct Run {
        std::optional<int> status;
        std::string out;
        std::string err;
    };
    // `pointlane export ...` with this test's HOME; its standard error lands in run.err there.
    Run exportRun(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "export");
        Run run;
        run.status = ServerProcess::runToExit(home.path().string(), arguments, &run.out);
        run.err = fileText(home.file("run.err"));
        return run;
    }
    std::string databasePath() const { return home.file(".Pointlane/Pointlane.sqlite"); }

    TempDir home;
};

TEST_F(ExportEndToEndTest, PlayedGameExportsAsCsvAndJsonWhileTheServerRunsAndAfterItEnds) {
    auto server = ServerProcess::start(home.path().string());
    ASSERT_TRUE(server);
    auto adminServer = ClientServer::start();
    auto playerServer = ClientServer::start();
    auto admin = PokerClient::connect(server->port());
    auto player = PokerClient::connect(server->port());
    ASSERT_TRUE(adminServer && playerServer && admin && player);
    ASSERT_EQ(admin->loginAdmin(kAdmin, kGame, adminServer->port())->code, 0);
    ASSERT_EQ(player->loginPlayer(kPlayer, playerServer->port())->code, 0);
    ASSERT_EQ(admin->initNewDeal(kDeal)->code, 0);
    ASSERT_EQ(admin->cardElected(kPlayer, "5")->code, 0);
    ASSERT_EQ(admin->cardElected(kAdmin, "5")->code, 0);
    ASSERT_EQ(player->initNewDeal(kTurtle)->code, 0);
    ASSERT_EQ(admin->cardElected(kPlayer, "\u00BD")->code, 0);
    ASSERT_EQ(admin->cardElected(kAdmin, "?")->code, 0);
    ASSERT_EQ(admin->cardElected("Bob", "2")->code, 0);
    ASSERT_TRUE(testkit::waitUntil([&] {
        auto rows = storedRows(databasePath(), "SELECT id FROM Election");
        return rows && rows->size() == 5;
    })) << server->output();
    // A final estimate for the newer deal, as the table records it (the server made the file
    // with the estimates' table).
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(databasePath().c_str(), &db), SQLITE_OK);
    const int recorded = sqlite3_exec(db,
                                      "INSERT INTO Estimate SELECT max(id), '=2', "
                                      "'2025-01-02 10:00:00' FROM Deal",
                                      nullptr, nullptr, nullptr);
    sqlite3_close(db);
    ASSERT_EQ(recorded, SQLITE_OK);

    const Run csv = exportRun({});
    ASSERT_EQ(csv.status, std::optional<int>(0)) << csv.err;
    EXPECT_EQ(csv.err, "");
    const auto rows = parseCsv(csv.out);
    ASSERT_TRUE(rows) << csv.out;
    ASSERT_EQ(rows->size(), 6u) << csv.out;
    // The newer deal first, its cards in the order they were elected.
    const std::vector<std::vector<std::string>> expected{
        {kGame, kAdmin, kTurtle, kPlayer, "\u00BD", "3", "2", "1.25", "1.25", "0.5", "2", "false",
         "'=2"},
        {kGame, kAdmin, kTurtle, kAdmin, "?", "3", "2", "1.25", "1.25", "0.5", "2", "false", "'=2"},
        {kGame, kAdmin, kTurtle, "Bob", "2", "3", "2", "1.25", "1.25", "0.5", "2", "false", "'=2"},
        {kGame, kAdmin, kDeal, kPlayer, "5", "2", "2", "5", "5", "5", "5", "true", ""},
        {kGame, kAdmin, kDeal, kAdmin, "5", "2", "2", "5", "5", "5", "5", "true", ""}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        auto row = (*rows)[i + 1];
        ASSERT_EQ(row.size(), 14u);
        EXPECT_EQ(row[1].size(), 25u) << row[1];  // ISO 8601 with the offset
        row.erase(row.begin() + 1);
        EXPECT_EQ(row, expected[i]) << "row " << i + 1;
    }

    const std::string file = home.file("history.json");
    const Run json = exportRun({"--format", "json", "--output", file});
    ASSERT_EQ(json.status, std::optional<int>(0)) << json.err;
    EXPECT_EQ(json.out, "");
    const auto parsed = nlohmann::json::parse(fileText(file), nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << fileText(file);
    ASSERT_EQ(parsed["games"].size(), 1u);
    const auto& game = parsed["games"][0];
    EXPECT_EQ(game["name"], kGame);
    EXPECT_EQ(game["administrator"], kAdmin);
    EXPECT_EQ(game["date"], (*rows)[1][1]);
    EXPECT_EQ(game["statistics"], nlohmann::json({{"deals", 2}, {"consensusDeals", 1}}));
    ASSERT_EQ(game["deals"].size(), 2u);
    EXPECT_EQ(game["deals"][0]["name"], kTurtle);
    EXPECT_EQ(game["deals"][0]["estimate"], "=2");
    EXPECT_TRUE(game["deals"][1]["estimate"].is_null());
    EXPECT_EQ(game["deals"][0]["statistics"]["cards"], nlohmann::json({"\u00BD", "?", "2"}));
    EXPECT_EQ(game["deals"][0]["statistics"]["median"], 1.25);
    EXPECT_EQ(game["deals"][1]["name"], kDeal);
    EXPECT_EQ(game["deals"][1]["elections"][0]["player"], kPlayer);
    EXPECT_EQ(game["deals"][1]["statistics"]["consensus"], true);

    const std::string id = std::to_string(game["id"].get<std::int64_t>());
    const Run one = exportRun({"--game", id, "--format", "json"});
    ASSERT_EQ(one.status, std::optional<int>(0)) << one.err;
    EXPECT_EQ(nlohmann::json::parse(one.out, nullptr, false), parsed);
    const Run unknown = exportRun({"--game", "999"});
    EXPECT_EQ(unknown.status, std::optional<int>(1));
    EXPECT_EQ(unknown.out, "");
    EXPECT_NE(unknown.err.find("999"), std::string::npos) << unknown.err;

    // Reading never cost the running server a write: a card elected now is stored too, and
    // no write failed while the test and the exports read the file.
    ASSERT_EQ(admin->cardElected("Cy", "3")->code, 0);
    ASSERT_EQ(admin->logout()->code, 0);
    ASSERT_EQ(server->waitForExit(std::chrono::seconds(10)), std::optional<int>(0));
    EXPECT_EQ(server->output().find("SQLite:"), std::string::npos) << server->output();
    const Run afterwards = exportRun({});
    ASSERT_EQ(afterwards.status, std::optional<int>(0)) << afterwards.err;
    const auto last = parseCsv(afterwards.out);
    ASSERT_TRUE(last);
    ASSERT_EQ(last->size(), rows->size() + 1);
    EXPECT_EQ((*last)[4][4], "Cy");
    EXPECT_EQ((*last)[4][5], "3");
}

TEST_F(ExportEndToEndTest, MissingOrDamagedDatabaseIsRefusedWithOneLineAndStatusOne) {
    const Run missing = exportRun({"--format", "json"});
    EXPECT_EQ(missing.status, std::optional<int>(1));
    EXPECT_EQ(missing.out, "");
    ASSERT_FALSE(missing.err.empty());
    EXPECT_EQ(missing.err.find('\n'), missing.err.size() - 1) << missing.err;
    EXPECT_NE(missing.err.find(databasePath()), std::string::npos) << missing.err;
    EXPECT_FALSE(std::filesystem::exists(home.file(".Pointlane")));

    std::filesystem::create_directories(home.file(".Pointlane"));
    std::ofstream(databasePath()) << "SQLite format 3" << '\0' << std::string(200, '\x7f');
    const std::string bytes = fileText(databasePath());
    const Run damaged = exportRun({});
    EXPECT_EQ(damaged.status, std::optional<int>(1));
    EXPECT_EQ(damaged.out, "");
    EXPECT_EQ(damaged.err.find('\n'), damaged.err.size() - 1) << damaged.err;
    EXPECT_EQ(fileText(databasePath()), bytes);

    const Run usage = exportRun({"--format", "xml"});
    EXPECT_EQ(usage.status, std::optional<int>(2));
    EXPECT_EQ(usage.out, "");
}

}  // namespace
}  // namespace pointlane
