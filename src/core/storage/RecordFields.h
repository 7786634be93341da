#pragma once

// Reading record columns back from a row: the tests every record applies to its columns.
// Internal to the storage records.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "storage/SQLite.h"
#include "storage/TextConversions.h"
#include "storage/Values.h"

namespace pointlane::recordfields {

// An integer above 0 (the id and the references).
inline std::optional<std::int64_t> positiveInteger(const RowData& row, const std::string& name) {
    const SQLField* field = row.find(name);
    if (field == nullptr) {
        return std::nullopt;
    }
    const auto value = field->data.integerValue();
    if (!value || *value <= 0) {
        return std::nullopt;
    }
    return value;
}

// The trimmed text when it is not empty.
inline std::optional<std::string> nonEmptyTrimmed(const std::optional<std::string>& value) {
    if (!value) {
        return std::nullopt;
    }
    std::string text = trimmed(*value);
    if (text.empty()) {
        return std::nullopt;
    }
    return text;
}

// A text column that is not empty once trimmed; the trimmed text.
inline std::optional<std::string> nonEmptyText(const RowData& row, const std::string& name) {
    const SQLField* field = row.find(name);
    if (field == nullptr) {
        return std::nullopt;
    }
    return nonEmptyTrimmed(field->data.textValue());
}

// Stores a record's fields: a new record (id below 1) is inserted and takes the row id, a stored
// one is updated. True on success; a failed insert leaves id 0.
inline bool saveRecord(const std::string& table, const std::vector<SQLField>& fields,
                       std::int64_t& id) {
    if (id < 1) {
        const auto rowId = sqlm().insert(table, fields);
        if (!rowId) {
            return false;
        }
        id = *rowId;
        return true;
    }
    return sqlm().update(table, fields);
}

// The records built from the rows of a list query, in row order; invalid rows are skipped.
// Nothing when the query fails or no row makes a record.
template <class Record>
std::optional<std::vector<std::shared_ptr<Record>>> recordsFrom(const std::string& query) {
    const auto rows = sqlm().select(query);
    if (!rows) {
        return std::nullopt;
    }
    std::vector<std::shared_ptr<Record>> list;
    for (const RowData& row : *rows) {
        if (auto record = Record::fromRow(row)) {
            list.push_back(std::move(record));
        }
    }
    if (list.empty()) {
        return std::nullopt;
    }
    return list;
}

}  // namespace pointlane::recordfields
