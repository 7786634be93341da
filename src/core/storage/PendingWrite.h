#pragma once

#include <string>
#include <vector>

#include "storage/Values.h"

namespace pointlane {

// One write a record made on the database queue, kept as what it is (the table and the values,
// or the statement text) until the transaction holding it has committed: the queue stores it
// again from here when a commit fails, and writes it out as one JSON line when it never could.
// Value type; not synchronised.
struct PendingWrite {
    enum class Kind { insert, replace, update, statement };

    Kind kind = Kind::insert;
    std::string table;             // insert, replace, update
    std::vector<SQLField> fields;  // insert and replace: the row ("id" included); update: key first
    std::string sql;               // statement: the text as run

    // The statement text that applies this write, with ":" + name parameters for the fields.
    std::string statementText() const;
    // {"table":"Deal","operation":"insert","values":{"id":7,"gameId":3,"name":"Login"}}, or
    // {"operation":"statement","sql":"..."}; one line, UTF-8 (bytes that aren't are replaced).
    std::string jsonLine() const;
};

}  // namespace pointlane
