#include "storage/SQLiteStatement.h"

#include <sqlite3.h>

#include <string>
#include <utility>

#include "storage/TextConversions.h"

namespace pointlane {

namespace {

DataValue columnValue(sqlite3_stmt* stmt, int column) {
    switch (sqlite3_column_type(stmt, column)) {
        case SQLITE_INTEGER:
            return DataValue::integer(sqlite3_column_int64(stmt, column));
        case SQLITE_FLOAT:
            return DataValue::floating(sqlite3_column_double(stmt, column));
        case SQLITE_TEXT: {
            const auto* bytes =
                static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column));
            const int count = sqlite3_column_bytes(stmt, column);
            if (bytes == nullptr || count <= 0 ||
                !isValidUtf8(std::string_view(reinterpret_cast<const char*>(bytes), count))) {
                return DataValue::text(std::nullopt);
            }
            return DataValue::text(
                utf(std::string_view(reinterpret_cast<const char*>(bytes), count)));
        }
        case SQLITE_BLOB: {
            const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, column));
            const int count = sqlite3_column_bytes(stmt, column);
            if (bytes == nullptr || count <= 0) {
                return DataValue::blob(std::nullopt);
            }
            return DataValue::blob(Bytes(bytes, bytes + count));
        }
        default:
            return DataValue::null();
    }
}

}  // namespace

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

RowData SQLiteStatement::row() const {
    RowData row;
    if (stmt_ == nullptr) {
        return row;
    }
    const int columns = sqlite3_column_count(stmt_);
    for (int c = 0; c < columns; ++c) {
        const char* name = sqlite3_column_name(stmt_, c);
        row.set(SQLField{name ? name : "", columnValue(stmt_, c)});
    }
    return row;
}

int SQLiteStatement::finalize() {
    if (stmt_ == nullptr) {
        return SQLITE_OK;
    }
    return sqlite3_finalize(std::exchange(stmt_, nullptr));
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
