#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "storage/SQLiteStatusCode.h"
#include "storage/Values.h"

struct sqlite3_stmt;

namespace pointlane {

class SQLite;

// One prepared statement; owns its handle and finalizes it when destroyed (or earlier through
// finalize()). It never outlives the operation that prepared it.
// Threading: used by the thread that prepared it only.
class SQLiteStatement final {
  public:
    SQLiteStatement() = default;
    SQLiteStatement(SQLite* database, sqlite3_stmt* stmt) : database_(database), stmt_(stmt) {}
    ~SQLiteStatement();
    SQLiteStatement(SQLiteStatement&& other) noexcept;
    SQLiteStatement& operator=(SQLiteStatement&& other) noexcept;
    SQLiteStatement(const SQLiteStatement&) = delete;
    SQLiteStatement& operator=(const SQLiteStatement&) = delete;

    // Binds value as a blob at the 1-based index without copying, or null when it is absent
    // or empty. The bytes must stay alive and unchanged until the statement is finalized.
    SQLiteStatusCode bindData(int index, const Bytes* value);
    // Binds one field at the parameter ":" + name: text trimmed and converted, null for an
    // absent payload. Bind failures leave the parameter null and are not reported.
    void bind(const SQLField& field);
    // The same at a known 1-based parameter index, for a statement whose text the caller built.
    void bind(int index, const SQLField& field);

    // The columns of the row the last step stopped at, by column name (a later column replaces
    // an earlier one of the same name). Text comes back in natural form; text that is empty or
    // not UTF-8 has no value, an empty blob none either.
    RowData row() const;

    // Finalizes now; the result is the finalize call's code (the last step's error, if any).
    int finalize();

    // Gives the handle up without finalizing it (the caller owns it from now on).
    sqlite3_stmt* release() { return std::exchange(stmt_, nullptr); }

    SQLite* database() const { return database_; }
    sqlite3_stmt* stmt() const { return stmt_; }
    bool hasHandle() const { return stmt_ != nullptr; }

  private:
    SQLite* database_ = nullptr;
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace pointlane
