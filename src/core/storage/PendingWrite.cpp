#include "storage/PendingWrite.h"

#include <nlohmann/json.hpp>

#include "support/ToolBox.h"

namespace pointlane {

namespace {

const char* operationName(PendingWrite::Kind kind) {
    switch (kind) {
        case PendingWrite::Kind::insert:
            return "insert";
        case PendingWrite::Kind::replace:
            return "replace";
        case PendingWrite::Kind::update:
            return "update";
        case PendingWrite::Kind::statement:
            break;
    }
    return "statement";
}

nlohmann::ordered_json jsonValue(const DataValue& value) {
    if (auto integer = value.integerValue()) {
        return *integer;
    }
    if (auto number = value.floatValue()) {
        return *number;
    }
    if (auto text = value.textValue()) {
        return *text;
    }
    if (auto blob = value.blobValue()) {
        return ToolBox::encodeBase64(*blob);
    }
    return nullptr;
}

}  // namespace

std::string PendingWrite::statementText() const {
    std::string text;
    switch (kind) {
        case Kind::statement:
            return sql;
        case Kind::update:
            text = "UPDATE " + table + " SET ";
            for (std::size_t i = 0; i < fields.size(); ++i) {
                text += (i == 0 ? "" : ",") + fields[i].name + "=:" + fields[i].name;
            }
            if (!fields.empty()) {
                text += " WHERE " + fields.front().name + "=:" + fields.front().name;
            }
            return text;
        case Kind::insert:
        case Kind::replace:
            break;
    }
    text = (kind == Kind::replace ? "INSERT OR REPLACE INTO " : "INSERT INTO ") + table + " (";
    for (std::size_t i = 0; i < fields.size(); ++i) {
        text += (i == 0 ? "" : ",") + fields[i].name;
    }
    text += ") VALUES (";
    for (std::size_t i = 0; i < fields.size(); ++i) {
        text += (i == 0 ? ":" : ",:") + fields[i].name;
    }
    return text + ")";
}

std::string PendingWrite::jsonLine() const {
    nlohmann::ordered_json line = nlohmann::ordered_json::object();
    if (kind == Kind::statement) {
        line["operation"] = "statement";
        line["sql"] = sql;
    } else {
        line["table"] = table;
        line["operation"] = operationName(kind);
        nlohmann::ordered_json values = nlohmann::ordered_json::object();
        for (const SQLField& field : fields) {
            values[field.name] = jsonValue(field.data);
        }
        line["values"] = std::move(values);
    }
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace pointlane
