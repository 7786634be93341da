#pragma once

#include <nlohmann/json.hpp>

#include "table/TableSnapshot.h"

namespace pointlane {

// The table as every page is sent it: the snapshot's seats, items, deck, settings and
// countdown, with each opened item's cards and statistics as the rules computed them (the
// page only renders them). Cards of an item are sent only once the item is opened; of the
// earlier items only the newest kItemsSent go along, each as one line (title, card count,
// consensus, estimate): the history page has the rest.
// Plain functions of their arguments; safe on any thread.
class TableJson final {
  public:
    static constexpr std::size_t kItemsSent = 20;

    static nlohmann::json of(const TableSnapshot& table);
    static nlohmann::json item(const TableItem& item, const Deck& deck);
    // The title of a quick round, put up without typing: "Item N", N the next item's number.
    static std::string quickRoundTitle(const TableSnapshot& table);
};

}  // namespace pointlane
