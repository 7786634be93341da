#include "storage/Values.h"

#include <array>

namespace pointlane {

namespace {
constexpr std::array<std::pair<DataValueType, std::string_view>, 5> kTypeNames{{
    {DataValueType::isNull, "isNull"},
    {DataValueType::isInteger, "isInteger"},
    {DataValueType::isFloat, "isFloat"},
    {DataValueType::isText, "isText"},
    {DataValueType::isBlob, "isBlob"},
}};
}  // namespace

std::string toString(DataValueType type) {
    for (const auto& [t, name] : kTypeNames) {
        if (t == type) {
            return std::string(name);
        }
    }
    return {};
}

std::optional<DataValueType> dataValueTypeFrom(std::string_view text) {
    for (const auto& [t, name] : kTypeNames) {
        if (name == text) {
            return t;
        }
    }
    return std::nullopt;
}

DataValueType DataValue::type() const {
    switch (storage_.index()) {
        case 0:
            return DataValueType::isInteger;
        case 1:
            return DataValueType::isFloat;
        case 2:
            return DataValueType::isText;
        case 3:
            return DataValueType::isBlob;
        default:
            return DataValueType::isNull;
    }
}

std::optional<std::int64_t> DataValue::integerValue() const {
    if (const auto* v = std::get_if<Integer>(&storage_)) {
        return v->value;
    }
    return std::nullopt;
}

std::optional<double> DataValue::floatValue() const {
    if (const auto* v = std::get_if<Float>(&storage_)) {
        return v->value;
    }
    return std::nullopt;
}

std::optional<std::string> DataValue::textValue() const {
    if (const auto* v = std::get_if<Text>(&storage_)) {
        return v->value;
    }
    return std::nullopt;
}

std::optional<Bytes> DataValue::blobValue() const {
    if (const auto* v = std::get_if<Blob>(&storage_)) {
        return v->value;
    }
    return std::nullopt;
}

}  // namespace pointlane
