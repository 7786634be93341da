#include "storage/HistoryExport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Csv.h"
#include "ServerProcess.h"
#include "StorageFixture.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Estimate.h"
#include "storage/Game.h"
#include "storage/HistoryReader.h"
#include "storage/SQLite.h"
#include "support/DateHelpers.h"

namespace pointlane {
namespace {

using testkit::fileText;
using testkit::parseCsv;

// Names that need quoting in CSV and escaping in JSON, with Polish letters.
const std::string kGame = "Sprint \u0141\u00F3d\u017A, \"Q4\"\nplan";
const std::string kAdmin = "Zbyszek \"Szef\"";
const std::string kDeal = "Zadanie 1, cz\u0119\u015B\u0107 \"A\"\r\ndruga";
const std::string kPlayer = "\u0141ucja, Jr.";

class HistoryExportTest : public testing::StorageFixture {
  protected:
    std::int64_t game(const std::string& name, const std::string& admin) {
        auto g = Game::make(name, admin);
        EXPECT_TRUE(g && g->save());
        return g ? g->id : 0;
    }
    std::int64_t deal(std::int64_t gameId, const std::string& name) {
        auto d = Deal::make(gameId, name);
        EXPECT_TRUE(d && d->save());
        return d ? d->id : 0;
    }
    void elect(std::int64_t dealId, const std::string& player, const std::string& card) {
        auto e = Election::make(dealId, player, card);
        EXPECT_TRUE(e && e->save());
    }
    // Two games: the older one with a text-only deal and a deal that reached consensus, the
    // newer one with an empty deal.
    void playTwoGames() {
        older = game(kGame, kAdmin);
        textDeal = deal(older, "Pierwsze");
        elect(textDeal, kPlayer, "?");
        elect(textDeal, "Bob", "\u2615");
        agreedDeal = deal(older, kDeal);
        elect(agreedDeal, kPlayer, "1/2");
        elect(agreedDeal, "Bob", "0,5");
        elect(agreedDeal, "Cy", "\u00BD");
        // Recorded twice: the second replaces the first.
        for (const char* value : {"8", "1/2"}) {
            auto estimate = Estimate::make(agreedDeal, value);
            EXPECT_TRUE(estimate && estimate->save());
        }
        newer = game("Nowa", "Ala");
        emptyDeal = deal(newer, "Pusta");
    }
    std::string fileBytes() const { return fileText(path()); }

    std::int64_t older = 0, textDeal = 0, agreedDeal = 0, newer = 0, emptyDeal = 0;
};

TEST_F(HistoryExportTest, ReaderGivesGamesAndDealsNewestFirstElectionsInOrderInNaturalText) {
    playTwoGames();
    // The server's connection stays open while the history is read over a second one.
    const HistoryResult all = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(all.ok()) << all.error;
    const auto& games = all.history->games;
    ASSERT_EQ(games.size(), 2u);
    EXPECT_EQ(games[0].game.id, newer);
    ASSERT_EQ(games[0].deals.size(), 1u);
    EXPECT_TRUE(games[0].deals[0].elections.empty());
    EXPECT_EQ(games[0].statistics.deals, 1u);
    EXPECT_EQ(games[0].statistics.consensusDeals, 0u);

    const GameHistory& g = games[1];
    EXPECT_EQ(g.game.name, kGame);
    EXPECT_EQ(g.game.admin, kAdmin);
    ASSERT_EQ(g.deals.size(), 2u);
    EXPECT_EQ(g.deals[0].deal.id, agreedDeal);
    EXPECT_EQ(g.deals[0].deal.name, kDeal);
    EXPECT_EQ(g.deals[0].statistics.cards, (std::vector<std::string>{"1/2", "0,5", "\u00BD"}));
    EXPECT_TRUE(g.deals[0].statistics.consensus);
    EXPECT_EQ(g.deals[0].elections[0].playerName, kPlayer);
    EXPECT_EQ(g.deals[1].statistics.numericCount, 0u);
    EXPECT_EQ(g.statistics.deals, 2u);
    EXPECT_EQ(g.statistics.consensusDeals, 1u);

    // One game: only its own deals and elections.
    const HistoryResult one = HistoryReader::read(path(), older);
    ASSERT_TRUE(one.ok()) << one.error;
    ASSERT_EQ(one.history->games.size(), 1u);
    EXPECT_EQ(one.history->games[0].deals.size(), 2u);
    EXPECT_EQ(one.history->games[0].deals[1].elections.size(), 2u);
    const HistoryResult unknown = HistoryReader::read(path(), 999);
    ASSERT_TRUE(unknown.ok());
    EXPECT_TRUE(unknown.history->games.empty());

    // Rows the lists would skip are skipped here too, and their elections with them.
    const auto blank = sqlm().insert(
        "Deal", {{"gameId", DataValue::integer(older)}, {"name", DataValue::text("   ")}});
    ASSERT_TRUE(blank);
    ASSERT_TRUE(sqlm().insert("Election", {{"dealId", DataValue::integer(*blank)},
                                           {"playerName", DataValue::text("Ghost")},
                                           {"symbol", DataValue::text("8")}}));
    ASSERT_TRUE(
        sqlm().execQuery("INSERT INTO Game (name, date, admin) VALUES "
                         "('Bad date', '2024-01-01T10:00:00', 'X')"));
    const HistoryResult skipped = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(skipped.ok());
    EXPECT_EQ(skipped.history->games.size(), 2u);
    EXPECT_EQ(skipped.history->games[1].deals.size(), 2u);
}

TEST_F(HistoryExportTest, CsvAndJsonParseBackToTheStoredHistory) {
    playTwoGames();
    const auto csv = HistoryExport::fromDatabase(path(), HistoryExport::Format::csv, std::nullopt);
    ASSERT_TRUE(csv.ok()) << csv.error;
    const auto rows = parseCsv(*csv.text);
    ASSERT_TRUE(rows) << *csv.text;
    ASSERT_EQ(rows->size(), 1u + 1 + 3 + 2);
    EXPECT_EQ((*rows)[0],
              (std::vector<std::string>{"game", "date", "administrator", "deal", "player", "card",
                                        "cards", "numeric cards", "average", "median", "minimum",
                                        "maximum", "consensus", "estimate"}));
    for (const auto& row : *rows) {
        EXPECT_EQ(row.size(), 14u);
    }
    // The newer game's empty deal: one row without player and card.
    EXPECT_EQ((*rows)[1][0], "Nowa");
    EXPECT_EQ((*rows)[1][3], "Pusta");
    EXPECT_EQ((*rows)[1][4], "");
    EXPECT_EQ((*rows)[1][6], "0");
    EXPECT_EQ((*rows)[1][8], "");
    const std::vector<std::string>& agreed = (*rows)[2];
    EXPECT_EQ(agreed[0], kGame);
    EXPECT_EQ(agreed[2], kAdmin);
    EXPECT_EQ(agreed[3], kDeal);
    EXPECT_EQ(agreed[4], kPlayer);
    EXPECT_EQ(agreed[5], "1/2");
    EXPECT_EQ((std::vector<std::string>(agreed.begin() + 6, agreed.end())),
              (std::vector<std::string>{"3", "3", "0.5", "0.5", "0.5", "0.5", "true", "1/2"}));
    EXPECT_EQ((*rows)[4][5], "\u00BD");
    EXPECT_EQ((*rows)[5][5], "?");
    EXPECT_EQ((*rows)[6][5], "\u2615");
    EXPECT_EQ((*rows)[6][12], "false");
    EXPECT_EQ((*rows)[6][13], "");
    // ISO 8601 with the offset, the same moment the record holds.
    const auto stored = Game::games();
    ASSERT_TRUE(stored);
    const std::string date = agreed[1];
    ASSERT_EQ(date.size(), 25u) << date;
    EXPECT_EQ(date[10], 'T');
    EXPECT_EQ(date[22], ':');
    EXPECT_EQ(date, formatIso8601(stored->back()->date));

    const auto json = HistoryExport::fromDatabase(path(), HistoryExport::Format::json, older);
    ASSERT_TRUE(json.ok()) << json.error;
    const auto parsed = nlohmann::json::parse(*json.text, nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << *json.text;
    ASSERT_EQ(parsed["games"].size(), 1u);
    const auto& g = parsed["games"][0];
    EXPECT_EQ(g["id"], older);
    EXPECT_EQ(g["name"], kGame);
    EXPECT_EQ(g["administrator"], kAdmin);
    EXPECT_EQ(g["date"], date);
    EXPECT_EQ(g["statistics"]["deals"], 2);
    EXPECT_EQ(g["statistics"]["consensusDeals"], 1);
    const auto& d = g["deals"][0];
    EXPECT_EQ(d["name"], kDeal);
    EXPECT_EQ(d["estimate"], "1/2");
    EXPECT_TRUE(g["deals"][1]["estimate"].is_null());
    EXPECT_EQ(d["elections"][0]["player"], kPlayer);
    EXPECT_EQ(d["elections"][2]["card"], "\u00BD");
    EXPECT_EQ(d["statistics"]["cards"], nlohmann::json({"1/2", "0,5", "\u00BD"}));
    EXPECT_EQ(d["statistics"]["average"], 0.5);
    EXPECT_EQ(d["statistics"]["consensus"], true);
    const auto& text = g["deals"][1]["statistics"];
    EXPECT_TRUE(text["average"].is_null() && text["median"].is_null() &&
                text["minimum"].is_null() && text["maximum"].is_null());
    EXPECT_EQ(text["count"], 2);
}

// Whatever the players typed, a spreadsheet opening the CSV runs none of it, and averages
// come rounded.
TEST_F(HistoryExportTest, CsvCellsThatLookLikeFormulasStayTextAndAveragesAreRounded) {
    const std::int64_t g = game("=cmd|' /C calc'!A0", "+1 boss");
    const std::int64_t d = deal(g, "-2, \"minus\"");
    elect(d, "@SUM(A1)", "1");
    elect(d, "Bob", "2");
    elect(d, "Cy", "2");
    auto estimate = Estimate::make(d, "=1+1");
    ASSERT_TRUE(estimate && estimate->save());
    const auto csv = HistoryExport::fromDatabase(path(), HistoryExport::Format::csv, std::nullopt);
    ASSERT_TRUE(csv.ok()) << csv.error;
    const auto rows = parseCsv(*csv.text);
    ASSERT_TRUE(rows) << *csv.text;
    ASSERT_EQ(rows->size(), 4u);
    const auto& first = (*rows)[1];
    EXPECT_EQ(first[0], "'=cmd|' /C calc'!A0");
    EXPECT_EQ(first[2], "'+1 boss");
    EXPECT_EQ(first[3], "'-2, \"minus\"");
    EXPECT_EQ(first[4], "'@SUM(A1)");
    EXPECT_EQ(first[8], "1.67");
    EXPECT_EQ(first[13], "'=1+1");
    EXPECT_EQ((*rows)[2][4], "Bob");
    // The JSON carries the texts as they are.
    const auto json = HistoryExport::fromDatabase(path(), HistoryExport::Format::json, g);
    ASSERT_TRUE(json.ok()) << json.error;
    const auto parsed = nlohmann::json::parse(*json.text);
    EXPECT_EQ(parsed["games"][0]["name"], "=cmd|' /C calc'!A0");
    EXPECT_EQ(parsed["games"][0]["deals"][0]["estimate"], "=1+1");
}

TEST_F(HistoryExportTest, MissingOrDamagedFilesAreOneLineErrorsAndNeverWritten) {
    playTwoGames();
    sqlm().drain();
    sqlm().close();
    auto refused = [](const std::string& file) {
        const auto result = HistoryExport::fromDatabase(file, HistoryExport::Format::csv, {});
        EXPECT_FALSE(result.ok()) << file;
        EXPECT_NE(result.error.find(file), std::string::npos) << result.error;
        EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
        return result.error;
    };
    const std::string missing = dir_.file("missing.sqlite");
    EXPECT_NE(refused(missing).find("no database"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(missing));
    refused(dir_.path().string());
    const std::string garbage = dir_.file("garbage.sqlite");
    std::ofstream(garbage) << "not a database, only a few words";
    EXPECT_NE(refused(garbage).find("not a database"), std::string::npos);

    // A real database with its schema page overwritten, and one without the tables.
    const std::string damaged = dir_.file("damaged.sqlite");
    std::filesystem::copy_file(path(), damaged);
    {
        std::fstream file(damaged, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(100);
        const std::string junk(3000, '\xA5');
        file.write(junk.data(), static_cast<std::streamsize>(junk.size()));
    }
    const std::string damagedBytes = fileText(damaged);
    EXPECT_NE(refused(damaged).find("damaged"), std::string::npos);
    EXPECT_EQ(fileText(damaged), damagedBytes);
    const std::string empty = dir_.file("empty.sqlite");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(empty.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE Other (x)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    EXPECT_NE(refused(empty).find("no such table: Game"), std::string::npos);

    // A good file is read and left byte for byte as it was, with no journal beside it.
    const std::string before = fileBytes();
    ASSERT_TRUE(HistoryExport::fromDatabase(path(), HistoryExport::Format::json, {}).ok());
    EXPECT_EQ(fileBytes(), before);
    EXPECT_FALSE(std::filesystem::exists(path() + "-journal"));
}

TEST_F(HistoryExportTest, ReadsAWriteAheadLogWhileAWriterHoldsItAndAfterTheWriterIsGone) {
    ASSERT_TRUE(sqlm().execQuery("PRAGMA journal_mode=WAL"));
    playTwoGames();
    ASSERT_TRUE(std::filesystem::exists(path() + "-wal"));
    // A write in progress is not seen, and doesn't hold the reader up.
    ASSERT_TRUE(sqlm().execQuery("BEGIN IMMEDIATE"));
    game("Unfinished", "Ala");
    const HistoryResult during = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(during.ok()) << during.error;
    EXPECT_EQ(during.history->games.size(), 2u);
    ASSERT_TRUE(sqlm().execQuery("COMMIT"));
    const HistoryResult after = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(after.ok()) << after.error;
    EXPECT_EQ(after.history->games.size(), 3u);
    EXPECT_EQ(after.history->games[0].game.name, "Unfinished");

    // The writer closed (its log folded into the file): still readable, still unchanged.
    sqlm().drain();
    sqlm().close();
    const std::string before = fileBytes();
    const HistoryResult closed = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(closed.ok()) << closed.error;
    EXPECT_EQ(closed.history->games.size(), 3u);
    EXPECT_EQ(fileBytes(), before);
}

}  // namespace
}  // namespace pointlane
