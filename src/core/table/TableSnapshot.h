#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rules/Deck.h"
#include "rules/RoundStatistics.h"

namespace pointlane {

// The table as one moment saw it: plain values, copied out of the TableModel; safe to read on
// any thread.

struct TableSeat {
    std::string name;
    bool facilitator = false;
    bool web = false;     // seated from a web page (else from a native client)
    bool present = true;  // false while the seat's page is away
    bool played = false;  // has played on the current item
    bool operator==(const TableSeat&) const = default;
};

struct TableCard {
    std::string name;
    std::string card;
    bool operator==(const TableCard&) const = default;
};

struct TableItem {
    int number = 0;  // 1 for the game's first item
    std::string title;
    bool opened = false;
    std::vector<TableCard> cards;         // one per name, latest wins, order of arrival
    RoundStatistics statistics;           // of the cards
    std::optional<std::string> estimate;  // the final estimate, once recorded
    std::optional<std::int64_t> dealId;   // the stored deal's row id, once stored
    bool operator==(const TableItem& other) const;
};

struct TableSettings {
    bool autoReveal = true;
    bool everyoneControls = false;
    bool operator==(const TableSettings&) const = default;
};

struct TableSnapshot {
    std::uint64_t version = 0;  // grows with every change
    enum class Phase { closed, open, ended } phase = Phase::closed;
    std::string game, facilitator;
    Deck deck = Deck::standard();
    std::vector<TableSeat> seats;  // facilitator first, then order of arrival
    std::size_t played = 0;        // seats that have played on the current item
    std::optional<TableItem> current;
    std::vector<TableItem> items;     // this game's earlier items, oldest first
    std::vector<std::string> agenda;  // items still to come
    TableSettings settings;
    std::optional<std::int64_t> countdownEndsAtMs;  // wall clock, ms since the epoch
    bool savingFailed = false;                      // the database can't be written right now
    bool operator==(const TableSnapshot& other) const;
};

}  // namespace pointlane
