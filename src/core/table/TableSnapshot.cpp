#include "table/TableSnapshot.h"

namespace pointlane {

// The statistics follow from the cards, so they take no part.
bool TableItem::operator==(const TableItem& other) const {
    return number == other.number && title == other.title && opened == other.opened &&
           cards == other.cards && estimate == other.estimate && dealId == other.dealId;
}

bool TableSnapshot::operator==(const TableSnapshot& other) const {
    return version == other.version && phase == other.phase && game == other.game &&
           facilitator == other.facilitator && deck == other.deck && seats == other.seats &&
           played == other.played && current == other.current && items == other.items &&
           agenda == other.agenda && settings == other.settings &&
           countdownEndsAtMs == other.countdownEndsAtMs && savingFailed == other.savingFailed;
}

}  // namespace pointlane
