#include "app/HistoryProvider.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "Csv.h"
#include "TestKit.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/SQLite.h"
#include "support/Event.h"

namespace pointlane {
namespace {

TEST(HistoryProviderTest, ServesTheExportsOfTheFileAndNothingWhenThereIsNone) {
    testkit::TempDir dir;
    const std::string path = dir.file("Pointlane.sqlite");
    sqlm().close();
    sqlm().setSchemaPath(POINTLANE_SOURCE_DIR "/resources/Schema.sql");
    ASSERT_TRUE(sqlm().create(path));
    auto game = Game::make("\u0141\u00F3d\u017A", "Ala");
    ASSERT_TRUE(game && game->save());
    auto other = Game::make("Other", "Bob");
    ASSERT_TRUE(other && other->save());
    auto deal = Deal::make(game->id, "Zadanie");
    ASSERT_TRUE(deal && deal->save());
    auto election = Election::make(deal->id, "Bob", "8");
    ASSERT_TRUE(election && election->save());

    const HistorySource source = historySourceFor(path);
    ASSERT_TRUE(source.json && source.csv);
    // The web layer calls from its own threads while the server's connection stays open.
    std::vector<std::optional<std::string>> answers(4);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        threads.emplace_back(
            [&, i] { answers[i] = i % 2 == 0 ? source.json(game->id) : source.csv(std::nullopt); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (std::size_t i = 0; i < answers.size(); ++i) {
        ASSERT_TRUE(answers[i]) << i;
        if (i % 2 == 0) {
            const auto json = nlohmann::json::parse(*answers[i], nullptr, false);
            ASSERT_EQ(json["games"].size(), 1u) << *answers[i];
            EXPECT_EQ(json["games"][0]["name"], "\u0141\u00F3d\u017A");
            EXPECT_EQ(json["games"][0]["deals"][0]["statistics"]["average"], 8);
        } else {
            const auto rows = testkit::parseCsv(*answers[i]);
            ASSERT_TRUE(rows) << *answers[i];
            EXPECT_EQ(rows->size(), 3u);  // header, the other game, the election
        }
    }
    sqlm().close();
    sqlm().resetSchemaPath();

    const HistorySource missing = historySourceFor(dir.file("missing.sqlite"));
    EXPECT_EQ(missing.json(std::nullopt), std::nullopt);
    EXPECT_EQ(missing.csv(1), std::nullopt);
}

TEST(HistoryProviderTest, TheVersionGrowsWithEveryStoredGameDealAndElectionOnly) {
    std::uint64_t last = 0;
    {
        const HistorySource source = historySourceFor("unused.sqlite");
        ASSERT_TRUE(source.version);
        last = source.version();
        const struct {
            Event event;
            bool counts;
        } cases[] = {{Event::gameTableDidChange, true},
                     {Event::dealTableDidChange, true},
                     {Event::electionTableDidChange, true},
                     {Event::playerTableDidChange, false}};
        for (const auto& each : cases) {
            post(each.event);
            EXPECT_EQ(source.version(), last + (each.counts ? 1 : 0)) << toString(each.event);
            last = source.version();
        }
        // A copy shares the count (the web layer keeps copies).
        const HistorySource copy = source;
        post(Event::dealTableDidChange);
        EXPECT_EQ(copy.version(), last + 1);
    }
    // Gone with its last copy: announcements reach nothing of it any more.
    post(Event::dealTableDidChange);
}

}  // namespace
}  // namespace pointlane
