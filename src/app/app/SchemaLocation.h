#pragma once

#include <optional>
#include <string>

namespace pointlane {

// Where the application keeps its database schema script ("Schema.sql"): next to the program
// (a build tree), else in the data folder of the install the program belongs to, wherever that
// tree was moved, else at the configured install path. The storage layer is handed the result
// and never looks for it itself.
//
// Thread safe (reads the file system only).
class SchemaLocation final {
  public:
    SchemaLocation() = delete;

    // The script's path, or nothing when there is none (a database is then created empty).
    static std::optional<std::string> find();
};

}  // namespace pointlane
