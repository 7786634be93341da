#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/WorkQueue.h"

struct sqlite3;

namespace pointlane {

// The one connection to the database file, reached through sqlm(). Every failure prints one
// report line on standard output:
//   "SQLite: " + operation + " (" + line + "): " + message + " (" + code + ")".
//
// Threading: the connection is opened in SQLite's serialized mode, so reads on one thread may
// overlap a write on the work queue; each operation's success check is its own. open(),
// create() and close() run when no other thread uses the connection. Record writes are
// submitted with async() and run one at a time, in submission order.
class SQLite final {
public:
    // The single instance, created on first use and never destroyed.
    static SQLite& shared();

    SQLite(const SQLite&) = delete;
    SQLite& operator=(const SQLite&) = delete;

    // Schedules block on the database queue ("sqlite.manager") and returns at once.
    void async(std::function<void()> block);
    // Waits until every block submitted so far has run (shutdown, tests).
    void drain();

    // True when the file's first 16 bytes are "SQLite format 3" and a zero byte.
    bool isValidDatabase(const std::string& path) const;
    // Opens an existing database (never creates one) with foreign keys on.
    bool open(const std::string& path);
    // Creates the database from the schema script, runs initializer (when given) and switches
    // foreign keys on; on failure the connection is closed.
    bool create(const std::string& path,
                const std::function<bool(SQLite&)>& initializer = nullptr);
    // Runs SQL text with sqlite3_exec; rows are discarded.
    bool execQuery(const std::string& query);
    // Closes the connection if one is open and the library accepts.
    void close();
    // True while a connection is open.
    bool isOpen() const;

    // Where the schema script is read from; by default "Schema.sql" found next to the
    // executable or in the installed data folder. Tests point it elsewhere (empty: no script).
    void setSchemaPath(std::optional<std::string> path);

    // ---- statements, values and rows (select, insert, update) are declared below ----

private:
    SQLite();
    ~SQLite();
};

// The application-wide database object, the same as SQLite::shared().
inline SQLite& sqlm() { return SQLite::shared(); }

}  // namespace pointlane
