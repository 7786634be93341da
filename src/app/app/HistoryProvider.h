#pragma once

#include <string>

#include "HistorySource.h"

namespace pointlane {

// The web page's history, read from the database file at databasePath: the JSON and CSV
// exports of every game or of one. Each call opens its own read-only connection, so the
// functions are thread safe and never disturb the server's writes; they give nothing when
// the file can't be read. Its version grows with every game, deal or election the server
// stores from then on (once committed), so unchanged history is known without reading it.
HistorySource historySourceFor(std::string databasePath);

}  // namespace pointlane
