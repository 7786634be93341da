#pragma once

// Reading record columns back from a row: the tests every record applies to its columns.
// Internal to the storage records.

#include <cstdint>
#include <optional>
#include <string>

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

// A text that is not empty once trimmed; the trimmed text.
inline std::optional<std::string> nonEmptyText(const RowData& row, const std::string& name) {
    const SQLField* field = row.find(name);
    if (field == nullptr) {
        return std::nullopt;
    }
    const auto value = field->data.textValue();
    if (!value) {
        return std::nullopt;
    }
    std::string text = trimmed(*value);
    if (text.empty()) {
        return std::nullopt;
    }
    return text;
}

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

}  // namespace pointlane::recordfields
