#include "storage/HistoryExport.h"

#include <gtest/gtest.h>

#include <filesystem>
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
using Strings = std::vector<std::string>;

// Names that need quoting in CSV and escaping in JSON, with Polish letters.
const std::string kGame = "Sprint \u0141\u00F3d\u017A, \"Q4\"\nplan";
const std::string kAdmin = "Zbyszek \"Szef\"";
const std::string kDeal = "Zadanie 1, cz\u0119\u015B\u0107 \"A\"\r\ndruga";
const std::string kPlayer = "\u0141ucja, Jr.";

class HistoryExportTest : public testing::StorageFixture {
  protected:
    static std::int64_t game(const std::string& name, const std::string& admin) {
        auto g = Game::make(name, admin);
        EXPECT_TRUE(g && g->save());
        return g ? g->id : 0;
    }
    // A deal with its elections, one per "player=card".
    static std::int64_t deal(std::int64_t gameId, const std::string& name, const Strings& votes) {
        auto d = Deal::make(gameId, name);
        EXPECT_TRUE(d && d->save());
        for (const std::string& vote : votes) {
            const auto at = vote.rfind('=');
            auto e = Election::make(d->id, vote.substr(0, at), vote.substr(at + 1));
            EXPECT_TRUE(e && e->save());
        }
        return d->id;
    }
    // Two games: the older one with a text-only deal and a deal that reached consensus, the
    // newer one with an empty deal.
    void playTwoGames() {
        older = game(kGame, kAdmin);
        deal(older, "Pierwsze", {kPlayer + "=?", "Bob=\u2615"});
        agreedDeal = deal(older, kDeal, {kPlayer + "=1/2", "Bob=0,5", "Cy=\u00BD"});
        // Recorded twice: the second replaces the first.
        for (const char* value : {"8", "1/2"}) {
            auto estimate = Estimate::make(agreedDeal, value);
            EXPECT_TRUE(estimate && estimate->save());
        }
        newer = game("Nowa", "Ala");
        deal(newer, "Pusta", {});
    }
    HistoryExport::Result exported(HistoryExport::Format format, std::optional<std::int64_t> id) {
        auto result = HistoryExport::fromDatabase(path(), format, id);
        EXPECT_TRUE(result.ok()) << result.error;
        return result;
    }

    std::int64_t older = 0, agreedDeal = 0, newer = 0;
};

// The order, the texts and the statistics the reader gives are checked through the export.
TEST_F(HistoryExportTest, ReaderSkipsInvalidRowsAndOtherGames) {
    playTwoGames();
    // The server's connection stays open while the history is read over a second one.
    const HistoryResult one = HistoryReader::read(path(), older);
    ASSERT_TRUE(one.ok() && one.history->games.size() == 1u) << one.error;
    EXPECT_EQ(one.history->games[0].deals.size(), 2u);
    EXPECT_EQ(one.history->games[0].deals[1].elections.size(), 2u);
    EXPECT_TRUE(HistoryReader::read(path(), 999).history->games.empty());

    // Rows the lists would skip are skipped here too, and their elections with them.
    const auto blank = sqlm().insert(
        "Deal", {{"gameId", DataValue::integer(older)}, {"name", DataValue::text("   ")}});
    ASSERT_TRUE(blank);
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO Election (dealId, playerName, symbol) VALUES (" +
                                 std::to_string(*blank) +
                                 ", 'Ghost', '8'); INSERT INTO Game (name, date, admin) VALUES "
                                 "('Bad date', '2024-01-01T10:00:00', 'X')"));
    const HistoryResult all = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(all.ok() && all.history->games.size() == 2u) << all.error;
    EXPECT_EQ(all.history->games[0].game.id, newer);
    EXPECT_EQ(all.history->games[1].deals.size(), 2u);
    EXPECT_EQ(all.history->games[1].statistics.deals, 2u);
}

TEST_F(HistoryExportTest, CsvAndJsonParseBackToTheStoredHistory) {
    playTwoGames();
    const auto csv = exported(HistoryExport::Format::csv, std::nullopt);
    const auto rows = parseCsv(*csv.text);
    ASSERT_TRUE(rows) << *csv.text;
    ASSERT_EQ(rows->size(), 1u + 1 + 3 + 2);
    EXPECT_EQ((*rows)[0], (Strings{"game", "date", "administrator", "deal", "player", "card",
                                   "cards", "numeric cards", "average", "median", "minimum",
                                   "maximum", "consensus", "estimate"}));
    // The newer game's empty deal: one row without player and card.
    EXPECT_EQ((*rows)[1], (Strings{"Nowa", (*rows)[1][1], "Ala", "Pusta", "", "", "0", "0", "", "",
                                   "", "", "false", ""}));
    const Strings& agreed = (*rows)[2];
    EXPECT_EQ((Strings(agreed.begin() + 2, agreed.end())),
              (Strings{kAdmin, kDeal, kPlayer, "1/2", "3", "3", "0.5", "0.5", "0.5", "0.5", "true",
                       "1/2"}));
    EXPECT_EQ(agreed[0], kGame);
    EXPECT_EQ((*rows)[4][5], "\u00BD");
    EXPECT_EQ((*rows)[5][5], "?");
    EXPECT_EQ((Strings((*rows)[6].begin() + 4, (*rows)[6].end())),
              (Strings{"Bob", "\u2615", "2", "0", "", "", "", "", "false", ""}));
    // ISO 8601 with the offset, the same moment the record holds.
    const std::string date = agreed[1];
    ASSERT_EQ(date.size(), 25u) << date;
    EXPECT_EQ(date, formatIso8601(Game::games()->back()->date));

    const auto json = exported(HistoryExport::Format::json, older);
    const auto parsed = nlohmann::json::parse(*json.text, nullptr, false);
    ASSERT_EQ(parsed["games"].size(), 1u) << *json.text;
    const auto& g = parsed["games"][0];
    EXPECT_EQ(g["id"], older);
    EXPECT_EQ(g["name"], kGame);
    EXPECT_EQ(g["administrator"], kAdmin);
    EXPECT_EQ(g["date"], date);
    EXPECT_EQ(g["statistics"], (nlohmann::json{{"deals", 2}, {"consensusDeals", 1}}));
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

// Whatever the players typed, a spreadsheet opening the CSV runs none of it, a line break
// alone still gets its field quoted, and averages come rounded.
TEST_F(HistoryExportTest, CsvCellsThatLookLikeFormulasStayTextAndAveragesAreRounded) {
    const std::int64_t g = game("=cmd|' /C calc'!A0", "+1 boss");
    const std::int64_t d = deal(g, "-2, \"minus\"", {"@SUM(A1)=1", "Bob\nBig=2", "Cy=2"});
    auto estimate = Estimate::make(d, "=1+1");
    ASSERT_TRUE(estimate && estimate->save());
    const auto csv = exported(HistoryExport::Format::csv, std::nullopt);
    const auto rows = parseCsv(*csv.text);
    ASSERT_TRUE(rows) << *csv.text;
    ASSERT_EQ(rows->size(), 4u);
    const auto& first = (*rows)[1];
    EXPECT_EQ((Strings{first[0], first[2], first[3], first[4], first[8], first[13]}),
              (Strings{"'=cmd|' /C calc'!A0", "'+1 boss", "'-2, \"minus\"", "'@SUM(A1)", "1.67",
                       "'=1+1"}));
    EXPECT_EQ((*rows)[2][4], "Bob\nBig");
    // The JSON carries the texts as they are.
    const auto parsed = nlohmann::json::parse(*exported(HistoryExport::Format::json, g).text);
    EXPECT_EQ(parsed["games"][0]["name"], "=cmd|' /C calc'!A0");
    EXPECT_EQ(parsed["games"][0]["deals"][0]["estimate"], "=1+1");
}

TEST_F(HistoryExportTest, ReadsAWriteAheadLogWhileAWriterHoldsItAndAfterTheWriterIsGone) {
    ASSERT_TRUE(sqlm().execQuery("PRAGMA journal_mode=WAL"));
    playTwoGames();
    ASSERT_TRUE(std::filesystem::exists(path() + "-wal"));
    // A write in progress is not seen, and doesn't hold the reader up.
    ASSERT_TRUE(sqlm().execQuery("BEGIN IMMEDIATE"));
    game("Unfinished", "Ala");
    EXPECT_EQ(HistoryReader::read(path(), std::nullopt).history->games.size(), 2u);
    ASSERT_TRUE(sqlm().execQuery("COMMIT"));
    const HistoryResult after = HistoryReader::read(path(), std::nullopt);
    ASSERT_TRUE(after.ok()) << after.error;
    EXPECT_EQ(after.history->games.at(0).game.name, "Unfinished");

    // The writer closed (its log folded into the file): still readable, still unchanged.
    sqlm().drain();
    sqlm().close();
    const std::string before = fileText(path());
    EXPECT_EQ(HistoryReader::read(path(), std::nullopt).history->games.size(), 3u);
    EXPECT_EQ(fileText(path()), before);
}

}  // namespace
}  // namespace pointlane
