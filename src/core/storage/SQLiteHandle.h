#pragma once

#include <memory>

struct sqlite3;

namespace pointlane {

// Closes a connection handle. sqlite3_close_v2: a statement still open keeps the connection
// alive until that statement is finalized, so the order of teardown never leaks nor crashes.
struct SQLiteCloser {
    void operator()(sqlite3* db) const;
};

// The one owner type of a connection handle: the server's database and any read-only reader
// hold their connection through it.
using SQLiteHandle = std::unique_ptr<sqlite3, SQLiteCloser>;

}  // namespace pointlane
