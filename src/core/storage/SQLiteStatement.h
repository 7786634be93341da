#pragma once

#include <cstdint>
#include <string>

#include "storage/SQLiteStatusCode.h"
#include "storage/Values.h"

struct sqlite3;
struct sqlite3_stmt;

namespace pointlane {

class SQLite;

// One prepared statement: the only owner of a statement handle, finalized when the object
// goes (or earlier through finalize()). Every call on a statement handle goes through here.
// Either used by one operation and dropped, or kept in the connection's statement cache and
// reset after each use.
// Threading: used by one thread at a time, under the connection's operation lock.
class SQLiteStatement final {
  public:
    SQLiteStatement() = default;
    ~SQLiteStatement();
    SQLiteStatement(SQLiteStatement&& other) noexcept;
    SQLiteStatement& operator=(SQLiteStatement&& other) noexcept;
    SQLiteStatement(const SQLiteStatement&) = delete;
    SQLiteStatement& operator=(const SQLiteStatement&) = delete;

    // Prepares the first statement of query on db (UTF-8, up to the terminating zero); code is
    // the prepare call's result, and the statement holds a handle only when it is SQLITE_OK.
    static SQLiteStatement prepare(SQLite* database, sqlite3* db, const std::string& query,
                                   int& code);

    // Binds value as a blob at the 1-based index without copying, or null when it is absent
    // or empty. The bytes must stay alive and unchanged until the statement is finalized.
    SQLiteStatusCode bindData(int index, const Bytes* value);
    // Binds one field at the parameter ":" + name: text trimmed and converted, null for an
    // absent payload. Bind failures leave the parameter null and are not reported.
    void bind(const SQLField& field);
    // The same at a known 1-based parameter index, for a statement whose text the caller built.
    void bind(int index, const SQLField& field);

    // One step; the library's result (SQLITE_ROW, SQLITE_DONE or an error).
    int step();
    // Back to the start for the next use; the result is the error of the last step, if any.
    // Bindings are cleared too (blobs are bound without copying).
    int reset();

    int columnCount() const;
    // The column's name as the library reports it ("" when it has none).
    std::string columnName(int column) const;
    // The current row's column: text read back in natural form, nothing for text that is not
    // UTF-8 or empty, a copy of a blob.
    DataValue columnValue(int column) const;
    // The columns of the row the last step stopped at, by column name (a later column replaces
    // an earlier one of the same name).
    RowData row() const;

    // Finalizes now; the result is the finalize call's code (the last step's error, if any).
    int finalize();

    SQLite* database() const { return database_; }
    bool hasHandle() const { return stmt_ != nullptr; }

  private:
    SQLiteStatement(SQLite* database, sqlite3_stmt* stmt) : database_(database), stmt_(stmt) {}

    SQLite* database_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace pointlane
