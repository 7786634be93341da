#pragma once

#include <optional>
#include <string>

namespace pointlane {

class SQLite;

// The layout of the database, numbered in PRAGMA user_version, and the steps that bring an
// older file up to date. Version 0 (no number) is the first release's layout: Game, Deal,
// Election and PlayerInfo, as the schema script creates them; every later version is one step
// here, run in its own transaction together with its number. A new database is made by the
// script and then these same steps, so new and upgraded files can't differ.
// Threading: used at start, while no other thread uses the connection.
class SchemaVersion final {
  public:
    // 1: table Estimate (one final estimate per deal).
    static constexpr int kCurrent = 1;

    // Reads the file at path on a read-only connection, never changing a byte of it: nothing
    // when this server can use it (version kCurrent or older, readable and sound), else the one
    // line that says why not.
    static std::optional<std::string> check(const std::string& path);
    // Brings the open database up to kCurrent, one step per version; nothing on success, else
    // why not, as the end of a sentence (the failed step leaves no trace).
    static std::optional<std::string> upgrade(SQLite& database);
    // The open database's version; nothing when it can't be read.
    static std::optional<int> version(SQLite& database);
};

}  // namespace pointlane
