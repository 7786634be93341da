#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pointlane::testkit {

using Row = std::map<std::string, std::string>;  // column name -> value as text ("" for NULL)

// Every row of the query, read straight from the database file with the SQLite C API (no
// conversion of stored text); nothing when the file or the query can't be used.
std::optional<std::vector<Row>> storedRows(const std::string& databasePath,
                                           const std::string& query);

}  // namespace pointlane::testkit
