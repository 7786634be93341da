#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "rules/Deck.h"
#include "rules/RoundStatistics.h"
#include "rules/TextRules.h"

namespace pointlane {
namespace {

using Cards = std::vector<std::string>;
using Counts = std::vector<std::pair<std::string, std::size_t>>;

std::string repeated(const std::string& text, std::size_t times) {
    std::string out;
    while (times-- > 0) {
        out += text;
    }
    return out;
}

TEST(RoundStatisticsTest, NumbersAreDecimalsWithDotOrCommaAndHalvesEverythingElseIsText) {
    const std::vector<std::pair<std::string, double>> numbers{
        {"13", 13},   {" 8 ", 8},      {"0.5", 0.5},  {"0,5", 0.5},
        {"1/2", 0.5}, {"\u00BD", 0.5}, {".5", 0.5},   {"2,", 2},
        {"0", 0},     {"100", 100},    {"3/4", 0.75}, {"\t\u00A0\u00BD\n", 0.5}};
    for (const auto& [card, value] : numbers) {
        EXPECT_EQ(RoundStatistics::numericValue(card), value) << card;
    }
    // clang-format off
    const std::vector<std::string> texts{
        "", " ", "?", "\u2615", "coffee", "XL", "-1", "+3", "1e3", "0x10", "inf", "nan", "1,2,3",
        "1.2.3", ",", ".", "1/0", "1/", "/2", "1 2", "\u0141\u00F3d\u017A", "\u00BD\u00BD",
        "1\u00BD", "\uFF15"};
    // clang-format on
    for (const std::string& card : texts) {
        EXPECT_EQ(RoundStatistics::numericValue(card), std::nullopt) << card;
    }
}

TEST(RoundStatisticsTest, AverageMedianRangeAndConsensusOfEachRound) {
    struct Case {
        Cards cards;
        std::size_t numeric;
        std::optional<double> average, median, minimum, maximum;
        bool consensus;
    };
    const std::optional<double> none;
    const std::vector<Case> cases{
        {{}, 0, none, none, none, none, false},
        // A single card is never a consensus, a number or not.
        {{"5"}, 1, 5, 5, 5, 5, false},
        {{"M"}, 0, none, none, none, none, false},
        // Halves written four ways are one value.
        {{"1/2", "0,5", "\u00BD", "0.5"}, 4, 0.5, 0.5, 0.5, 0.5, true},
        {{"5", "05", "5,0"}, 3, 5, 5, 5, 5, true},
        // Every card counts for the consensus: a "?" beside two fives is no agreement.
        {{"5", "?", "5"}, 2, 5, 5, 5, 5, false},
        {{"?", "5"}, 1, 5, 5, 5, 5, false},
        {{"5", "5", "8"}, 3, 6, 5, 5, 8, false},
        // Cards that are not numbers agree by their trimmed text, and have no average.
        {{"M", " M "}, 0, none, none, none, none, true},
        {{"M", "L"}, 0, none, none, none, none, false},
        {{"du\u017Co", "?", "\u2615", "ma\u0142o"}, 0, none, none, none, none, false},
        // Even count: the median is the mean of the two middle values, whatever the order.
        {{"8", "3", "?", "5", "5"}, 4, 5.25, 5, 3, 8, false},
        {{"2", "3"}, 2, 2.5, 2.5, 2, 3, false},
        {{"13", "1", "2"}, 3, 16.0 / 3, 2, 1, 13, false},
    };
    for (const Case& c : cases) {
        const RoundStatistics s = RoundStatistics::of(c.cards);
        SCOPED_TRACE(testing::PrintToString(c.cards));
        EXPECT_EQ(s.cards, c.cards);
        EXPECT_EQ(s.count, c.cards.size());
        EXPECT_EQ(s.numericCount, c.numeric);
        EXPECT_EQ(s.average.has_value(), c.average.has_value());
        if (s.average && c.average) {
            EXPECT_DOUBLE_EQ(*s.average, *c.average);
        }
        EXPECT_EQ(s.median, c.median);
        EXPECT_EQ(s.minimum, c.minimum);
        EXPECT_EQ(s.maximum, c.maximum);
        EXPECT_EQ(s.consensus, c.consensus);
    }

    GameStatistics game;
    for (const Cards& cards : {Cards{"5", "5"}, Cards{"5"}, Cards{}, Cards{"?", "?"},
                               Cards{"1", "1", "?"}, Cards{"1/2", "\u00BD"}}) {
        game.add(RoundStatistics::of(cards));
    }
    EXPECT_EQ(game.deals, 6u);
    EXPECT_EQ(game.consensusDeals, 3u);
}

TEST(RoundStatisticsTest, DistributionAndProposedEstimate) {
    const Deck standard = Deck::standard();
    const Deck tshirt = *Deck::preset("tshirt");
    const Deck fibonacci = *Deck::preset("fibonacci");
    // Ties: the deck's order when a deck is given, else the order first played; cards outside
    // the deck after the deck's own.
    EXPECT_EQ(RoundStatistics::of({"5", "3", " 5", "?", "3", "8"}, standard).distribution,
              (Counts{{"3", 2}, {"5", 2}, {"8", 1}, {"?", 1}}));
    EXPECT_EQ(RoundStatistics::of({"5", "3", " 5", "?", "3", "8"}).distribution,
              (Counts{{"5", 2}, {"3", 2}, {"?", 1}, {"8", 1}}));
    EXPECT_EQ(RoundStatistics::of({"huge", "M", "XS", "M"}, tshirt).distribution,
              (Counts{{"M", 2}, {"XS", 1}, {"huge", 1}}));
    EXPECT_TRUE(RoundStatistics::of({}).distribution.empty());

    struct Case {
        const Deck* deck;
        Cards cards;
        std::optional<std::string> proposed;
    };
    const std::vector<Case> cases{
        {&standard, {}, std::nullopt},
        // The agreed value as the deck writes it.
        {&standard, {"\u00BD", "0,5"}, "1/2"},
        {&standard, {"?", "?"}, "?"},
        {&tshirt, {"M", "M"}, "M"},
        // Else the deck's card nearest the median, a tie going to the larger card.
        {&standard, {"3", "5", "8"}, "5"},
        {&standard, {"3", "5"}, "5"},
        {&standard, {"5"}, "5"},
        {&standard, {"13", "40"}, "20"},
        {&fibonacci, {"8", "21"}, "13"},
        {&standard, {"100", "?", "?"}, "100"},
        // Else the most frequent card.
        {&tshirt, {"L", "M", "M"}, "M"},
        {&tshirt, {"L", "M"}, "M"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RoundStatistics::of(c.cards, *c.deck).proposedEstimate(*c.deck), c.proposed)
            << testing::PrintToString(c.cards) << " on " << c.deck->id;
    }
}

TEST(DeckTest, PresetsAndNearestCard) {
    EXPECT_FALSE(Deck::preset("Standard"));
    EXPECT_TRUE(Deck::standard().contains("1/2"));
    EXPECT_FALSE(Deck::standard().contains("0.5"));
    EXPECT_TRUE(Deck::preset("fibonacci")->hasNumbers());
    EXPECT_FALSE(Deck::preset("tshirt")->hasNumbers());
    EXPECT_EQ(Deck::preset("tshirt")->nearest(3), std::nullopt);
    EXPECT_EQ(Deck::standard().nearest(0.3), "1/2");
    EXPECT_EQ(Deck::standard().nearest(30), "40");
    EXPECT_EQ(Deck::standard().nearest(1000), "100");
}

TEST(DeckTest, CustomDecksAreTrimmedComposedAndCheckedCardByCard) {
    struct Case {
        Cards cards;
        std::variant<Cards, std::string> expected;
    };
    const std::string accent = "e\u0301";  // é, decomposed
    Cards tooMany;
    while (tooMany.size() < 25) {
        tooMany.push_back(std::to_string(tooMany.size()));
    }
    Cards most(tooMany.begin(), tooMany.begin() + 24);
    const std::vector<Case> cases{
        {{" 1 ", "2", "XL\t"}, Cards{"1", "2", "XL"}},
        {{accent, "12345678", repeated(accent, 8)},
         Cards{"\u00E9", "12345678", repeated("\u00E9", 8)}},
        {most, most},
        {{}, "A deck needs at least two cards."},
        {{"1"}, "A deck needs at least two cards."},
        {tooMany, "A deck can have at most 24 cards."},
        {{"1", " \u3000 "}, "A card can't be empty."},
        {{"123456789", "1"}, "The card \"123456789\" is too long: at most 8 characters."},
        {{"a\u200Bb", "1"}, "A card can't contain invisible or control characters."},
        {{"a\tb", "1"}, "A card can't contain invisible or control characters."},
        {{"1", " 1"}, "The card \"1\" is in the deck twice."},
        {{"\u00E9", accent}, "The card \"\u00E9\" is in the deck twice."},
    };
    for (const Case& c : cases) {
        const auto deck = Deck::custom(c.cards);
        SCOPED_TRACE(testing::PrintToString(c.cards));
        if (const auto* cards = std::get_if<Cards>(&c.expected)) {
            ASSERT_TRUE(std::holds_alternative<Deck>(deck)) << std::get<std::string>(deck);
            EXPECT_EQ(std::get<Deck>(deck).cards, *cards);
            EXPECT_EQ(std::get<Deck>(deck).id, "custom");
        } else {
            ASSERT_TRUE(std::holds_alternative<std::string>(deck));
            EXPECT_EQ(std::get<std::string>(deck), std::get<std::string>(c.expected));
        }
    }
}

TEST(TextRulesTest, TrimmingCountingAndComposing) {
    const std::vector<std::pair<std::string, std::string>> trims{
        {"  x y \t\r\n", "x y"},
        {"\u3000\u00A0\u0141ukasz\u2029\u0085", "\u0141ukasz"},
        {" \u2003 ", ""},
        {"", ""},
        {"\u200Bx\u200B", "\u200Bx\u200B"},  // a zero-width space is no space
        {" \u0301x", "x"},                   // a character is white space by its first code point
    };
    for (const auto& [text, expected] : trims) {
        EXPECT_EQ(trimmed(text), expected) << testing::PrintToString(text);
    }
    for (const char32_t c : std::u32string(U"\u00A0\u1680\u0085\u2028\u000B ")) {
        EXPECT_TRUE(isWhiteSpace(c)) << static_cast<int>(c);
    }
    for (const char32_t c : std::u32string(U"\u200B\u0008x\uFEFF")) {
        EXPECT_FALSE(isWhiteSpace(c)) << static_cast<int>(c);
    }

    const std::vector<std::pair<std::string, std::size_t>> counts{
        {"", 0},
        {"abc", 3},
        {"\r\n", 1},
        {"e\u0301", 1},
        {"\u0141\u00F3d\u017A", 4},
        {"\U0001F44D\U0001F3FD", 1},  // thumbs up with a skin tone
        {"\U0001F1F5\U0001F1F1", 1},  // a flag
        {"\xFF\xFE", 2},              // invalid bytes still count, one each
    };
    for (const auto& [text, count] : counts) {
        EXPECT_EQ(characterCount(text), count) << testing::PrintToString(text);
    }

    EXPECT_EQ(normalized("Zo\u0065\u0308 e\u0301"), "Zo\u00EB \u00E9");
    EXPECT_EQ(normalized("plain"), "plain");
    EXPECT_EQ(normalized("\xFF"), "\xFF");
}

TEST(TextRulesTest, InvisibleCharactersNameEqualityAndNameChecks) {
    // clang-format off
    const std::vector<std::string> invisible{
        "a\u200Bb", "a\u200Db", "\u202Eevil", "\uFEFFbom", "soft\u00ADy", "a\x01", "a\x7F", "a\u0085",
        "a\tb", "a\nb", "a\u2028b", "\u2066x\u2069", "\u00A0\u0080"};
    // clang-format on
    for (const std::string& text : invisible) {
        EXPECT_TRUE(hasInvisibleCharacters(text)) << testing::PrintToString(text);
    }
    for (const std::string text :
         {"", "\u0141ucja", "a b", "\u00A0", "e\u0301", "\U0001F600", "?"}) {
        EXPECT_FALSE(hasInvisibleCharacters(text)) << testing::PrintToString(text);
    }

    struct Names {
        std::string a, b;
        bool same;
    };
    for (const Names& n : std::vector<Names>{{"Ann", "ann", true},
                                             {"ANN", "ann", true},
                                             {"\u00C9mile", "e\u0301mile", true},
                                             {"\u0141UCJA", "\u0142ucja", true},
                                             {"Ann", "Ann ", false},
                                             {"Ann", "Anna", false},
                                             {"", "", true}}) {
        EXPECT_EQ(sameName(n.a, n.b), n.same) << n.a << " / " << n.b;
    }

    struct Check {
        std::string text;
        std::string after;  // the text once checked
        std::optional<std::string> problem;
    };
    const std::vector<Check> checks{
        {"  Ann \n", "Ann", std::nullopt},
        {"Zoe\u0308", "Zo\u00EB", std::nullopt},
        {repeated("e\u0301", 200), repeated("\u00E9", 200), std::nullopt},
        {repeated("x", 200), repeated("x", 200), std::nullopt},
        {" \t ", "", "Please enter a name."},
        {repeated("x", 201), repeated("x", 201), "The name is too long: at most 200 characters."},
        {"A\u200Bnn", "A\u200Bnn", "The name can't contain invisible or control characters."},
        {"A\tnn", "A\tnn", "The name can't contain invisible or control characters."},
    };
    for (const Check& c : checks) {
        std::string text = c.text;
        EXPECT_EQ(checkName(text, "name"), c.problem) << testing::PrintToString(c.text);
        EXPECT_EQ(text, c.after);
    }
}

}  // namespace
}  // namespace pointlane
