#include "TableJson.h"

#include <algorithm>

#include "table/TableModel.h"

namespace pointlane {

namespace {

nlohmann::json optionalNumber(const std::optional<double>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

nlohmann::json optionalText(const std::optional<std::string>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

const char* phaseName(TableSnapshot::Phase phase) {
    switch (phase) {
        case TableSnapshot::Phase::open:
            return "open";
        case TableSnapshot::Phase::ended:
            return "ended";
        case TableSnapshot::Phase::closed:
            break;
    }
    return "closed";
}

}  // namespace

nlohmann::json TableJson::item(const TableItem& item, const Deck& deck) {
    nlohmann::json out = {{"number", item.number},
                          {"title", item.title},
                          {"opened", item.opened},
                          {"estimate", optionalText(item.estimate)},
                          {"stored", item.dealId.has_value()}};
    if (!item.opened) {
        return out;
    }
    nlohmann::json cards = nlohmann::json::array();
    for (const auto& card : item.cards) {
        cards.push_back({{"name", card.name}, {"card", card.card}});
    }
    const RoundStatistics& s = item.statistics;
    nlohmann::json distribution = nlohmann::json::array();
    for (const auto& [card, count] : s.distribution) {
        distribution.push_back({{"card", card}, {"count", count}});
    }
    out["cards"] = std::move(cards);
    out["statistics"] = {{"count", s.count},
                         {"numericCount", s.numericCount},
                         {"average", optionalNumber(s.average)},
                         {"median", optionalNumber(s.median)},
                         {"minimum", optionalNumber(s.minimum)},
                         {"maximum", optionalNumber(s.maximum)},
                         {"consensus", s.consensus},
                         {"distribution", std::move(distribution)}};
    out["proposed"] = optionalText(s.proposedEstimate(deck));
    return out;
}

std::string TableJson::quickRoundTitle(const TableSnapshot& table) {
    const int number =
        table.current ? table.current->number + 1 : static_cast<int>(table.items.size()) + 1;
    return "Item " + std::to_string(number);
}

nlohmann::json TableJson::of(const TableSnapshot& table) {
    nlohmann::json seats = nlohmann::json::array();
    for (const auto& seat : table.seats) {
        seats.push_back({{"name", seat.name},
                         {"facilitator", seat.facilitator},
                         {"web", seat.web},
                         {"present", seat.present},
                         {"played", seat.played}});
    }
    // The newest earlier items only: a long game must not make every message long.
    nlohmann::json items = nlohmann::json::array();
    const std::size_t skipped =
        table.items.size() > kItemsSent ? table.items.size() - kItemsSent : 0;
    for (std::size_t i = skipped; i < table.items.size(); ++i) {
        // An earlier item is a line in a list: its cards stay with the history.
        const TableItem& earlier = table.items[i];
        items.push_back({{"number", earlier.number},
                         {"title", earlier.title},
                         {"opened", earlier.opened},
                         {"count", earlier.cards.size()},
                         {"consensus", earlier.opened && earlier.statistics.consensus},
                         {"estimate", optionalText(earlier.estimate)}});
    }
    const std::size_t taken = std::min(table.seats.size(), TableModel::kSeats);
    return {{"version", table.version},
            {"phase", phaseName(table.phase)},
            {"game", table.game},
            {"facilitator", table.facilitator},
            {"deck",
             {{"id", table.deck.id},
              {"name", table.deck.name},
              {"cards", table.deck.cards},
              {"numbers", table.deck.hasNumbers()}}},
            {"seats", std::move(seats)},
            {"free", TableModel::kSeats - taken},
            {"played", table.played},
            {"current", table.current ? item(*table.current, table.deck) : nlohmann::json()},
            {"items", std::move(items)},
            {"itemsLeftOut", skipped},
            {"agenda", table.agenda},
            {"quickRound", quickRoundTitle(table)},
            {"settings",
             {{"autoReveal", table.settings.autoReveal},
              {"everyoneControls", table.settings.everyoneControls}}},
            {"countdownEndsAtMs",
             table.countdownEndsAtMs ? nlohmann::json(*table.countdownEndsAtMs) : nlohmann::json()},
            {"savingFailed", table.savingFailed}};
}

}  // namespace pointlane
