#include "storage/SQLiteStatement.h"

#include <sqlite3.h>

#include <string>
#include <string_view>
#include <utility>

#include "storage/TextConversions.h"
#include "support/ToolBox.h"

namespace pointlane {

SQLiteStatement::~SQLiteStatement() {
    finalize();
}

SQLiteStatement::SQLiteStatement(SQLiteStatement&& other) noexcept
    : database_(std::exchange(other.database_, nullptr)),
      stmt_(std::exchange(other.stmt_, nullptr)) {}

SQLiteStatement& SQLiteStatement::operator=(SQLiteStatement&& other) noexcept {
    if (this != &other) {
        finalize();
        database_ = std::exchange(other.database_, nullptr);
        stmt_ = std::exchange(other.stmt_, nullptr);
    }
    return *this;
}

SQLiteStatement SQLiteStatement::prepare(SQLite* database, sqlite3* db, const std::string& query,
                                         int& code) {
    sqlite3_stmt* stmt = nullptr;
    code = sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr);
    if (code != SQLITE_OK) {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
    return SQLiteStatement(database, stmt);
}

RowData SQLiteStatement::row() const {
    RowData row;
    const int columns = columnCount();
    for (int c = 0; c < columns; ++c) {
        row.set(SQLField{columnName(c), columnValue(c)});
    }
    return row;
}

int SQLiteStatement::finalize() {
    if (stmt_ == nullptr) {
        return SQLITE_OK;
    }
    return sqlite3_finalize(std::exchange(stmt_, nullptr));
}

int SQLiteStatement::step() {
    return stmt_ != nullptr ? sqlite3_step(stmt_) : SQLITE_MISUSE;
}

int SQLiteStatement::reset() {
    if (stmt_ == nullptr) {
        return SQLITE_OK;
    }
    const int rc = sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    return rc;
}

int SQLiteStatement::columnCount() const {
    return stmt_ != nullptr ? sqlite3_column_count(stmt_) : 0;
}

std::string SQLiteStatement::columnName(int column) const {
    const char* name = stmt_ != nullptr ? sqlite3_column_name(stmt_, column) : nullptr;
    return name != nullptr ? name : "";
}

DataValue SQLiteStatement::columnValue(int column) const {
    switch (sqlite3_column_type(stmt_, column)) {
        case SQLITE_INTEGER:
            return DataValue::integer(sqlite3_column_int64(stmt_, column));
        case SQLITE_FLOAT:
            return DataValue::floating(sqlite3_column_double(stmt_, column));
        case SQLITE_TEXT: {
            const auto* bytes = static_cast<const char*>(sqlite3_column_blob(stmt_, column));
            const int count = sqlite3_column_bytes(stmt_, column);
            if (bytes == nullptr || count <= 0) {
                return DataValue::text(std::nullopt);
            }
            const std::string_view text(bytes, static_cast<std::size_t>(count));
            if (!ToolBox::isValidUtf8(text)) {
                return DataValue::text(std::nullopt);
            }
            return DataValue::text(utf(text));
        }
        case SQLITE_BLOB: {
            const auto* bytes =
                static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt_, column));
            const int count = sqlite3_column_bytes(stmt_, column);
            if (bytes == nullptr || count <= 0) {
                return DataValue::blob(std::nullopt);
            }
            return DataValue::blob(Bytes(bytes, bytes + count));
        }
        default:
            return DataValue::null();
    }
}

SQLiteStatusCode SQLiteStatement::bindData(int index, const Bytes* value) {
    if (stmt_ == nullptr) {
        return SQLiteStatusCode::misuse;
    }
    int rc;
    if (value != nullptr && !value->empty()) {
        rc = sqlite3_bind_blob(stmt_, index, value->data(), static_cast<int>(value->size()),
                               SQLITE_STATIC);
    } else {
        rc = sqlite3_bind_null(stmt_, index);
    }
    return sqliteStatusCodeFrom(rc).value_or(SQLiteStatusCode::error);
}

void SQLiteStatement::bind(const SQLField& field) {
    if (stmt_ == nullptr) {
        return;
    }
    const std::string parameter = ":" + field.name;
    bind(sqlite3_bind_parameter_index(stmt_, parameter.c_str()), field);
}

void SQLiteStatement::bind(int index, const SQLField& field) {
    if (stmt_ == nullptr) {
        return;
    }
    const auto& storage = field.data.storage();
    if (const auto* v = std::get_if<DataValue::Integer>(&storage); v && v->value) {
        sqlite3_bind_int64(stmt_, index, *v->value);
    } else if (const auto* f = std::get_if<DataValue::Float>(&storage); f && f->value) {
        sqlite3_bind_double(stmt_, index, *f->value);
    } else if (const auto* t = std::get_if<DataValue::Text>(&storage); t && t->value) {
        const std::string stored = polish(trimmed(*t->value));
        sqlite3_bind_text(stmt_, index, stored.c_str(), -1, SQLITE_TRANSIENT);
    } else if (const auto* b = std::get_if<DataValue::Blob>(&storage)) {
        bindData(index, b->value ? &*b->value : nullptr);
    } else {
        sqlite3_bind_null(stmt_, index);
    }
}

}  // namespace pointlane
