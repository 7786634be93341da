#include "storage/SQLiteStatement.h"

#include <sqlite3.h>

#include <string>
#include <utility>

#include "storage/TextConversions.h"

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
