#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/Bytes.h"

namespace pointlane {

// The kinds of DataValue; each value's text is "isNull", "isInteger", ...
enum class DataValueType { isNull, isInteger, isFloat, isText, isBlob };

std::string toString(DataValueType type);
// Exactly the five texts; anything else gives nothing.
std::optional<DataValueType> dataValueTypeFrom(std::string_view text);

// A typed column value: integer, float, text or blob, each with an optional payload (an absent
// payload is written as the database null), or null.
// Value type; not synchronised.
class DataValue final {
  public:
    struct Integer {
        std::optional<std::int64_t> value;
        bool operator==(const Integer&) const = default;
    };
    struct Float {
        std::optional<double> value;
        bool operator==(const Float&) const = default;
    };
    struct Text {
        std::optional<std::string> value;
        bool operator==(const Text&) const = default;
    };
    struct Blob {
        std::optional<Bytes> value;
        bool operator==(const Blob&) const = default;
    };
    struct Null {
        bool operator==(const Null&) const = default;
    };
    using Storage = std::variant<Integer, Float, Text, Blob, Null>;

    DataValue() : storage_(Null{}) {}

    static DataValue integer(std::optional<std::int64_t> v) {
        DataValue d(std::in_place_type<Integer>);
        std::get<Integer>(d.storage_).value = v;
        return d;
    }
    static DataValue floating(std::optional<double> v) {
        DataValue d(std::in_place_type<Float>);
        std::get<Float>(d.storage_).value = v;
        return d;
    }
    static DataValue text(std::optional<std::string> v) {
        DataValue d(std::in_place_type<Text>);
        if (v) {
            std::get<Text>(d.storage_).value.emplace(std::move(*v));
        }
        return d;
    }
    static DataValue blob(std::optional<Bytes> v) {
        DataValue d(std::in_place_type<Blob>);
        if (v) {
            std::get<Blob>(d.storage_).value.emplace(std::move(*v));
        }
        return d;
    }
    static DataValue null() { return DataValue(); }

    DataValueType type() const;
    bool isNull() const { return std::holds_alternative<Null>(storage_); }

    // The payload when the value is of that kind and carries one; nothing otherwise.
    std::optional<std::int64_t> integerValue() const;
    std::optional<double> floatValue() const;
    std::optional<std::string> textValue() const;
    std::optional<Bytes> blobValue() const;

    const Storage& storage() const { return storage_; }
    bool operator==(const DataValue&) const = default;

  private:
    // Payloads are put in place: moving a whole optional inside the variant trips a false
    // "maybe uninitialized" warning in g++ 12 sanitizer builds.
    template <class T>
    explicit DataValue(std::in_place_type_t<T> type) : storage_(type) {}
    Storage storage_;
};

// A named value: the column name and its value.
struct SQLField {
    std::string name;
    DataValue data;
    bool operator==(const SQLField&) const = default;
};

// One row: column name -> field (the field's name equals its key).
struct RowData {
    std::map<std::string, SQLField> dictionary;

    // subscript(name): the field or nothing.
    std::optional<SQLField> operator[](const std::string& name) const {
        auto it = dictionary.find(name);
        if (it == dictionary.end()) {
            return std::nullopt;
        }
        return it->second;
    }
    // A pointer into the row, or nullptr; avoids copying blobs.
    const SQLField* find(const std::string& name) const {
        auto it = dictionary.find(name);
        return it == dictionary.end() ? nullptr : &it->second;
    }
    void set(SQLField field) {
        std::string key = field.name;
        dictionary.insert_or_assign(std::move(key), std::move(field));
    }
    bool empty() const { return dictionary.empty(); }
    std::size_t size() const { return dictionary.size(); }
    auto begin() const { return dictionary.begin(); }
    auto end() const { return dictionary.end(); }
};

// The rows of a query in the order the statement returned them.
struct QueryResult {
    std::vector<RowData> array;

    bool empty() const { return array.empty(); }
    std::size_t size() const { return array.size(); }
    auto begin() const { return array.begin(); }
    auto end() const { return array.end(); }
};

}  // namespace pointlane
