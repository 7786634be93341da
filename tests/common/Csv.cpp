#include "Csv.h"

namespace pointlane::testkit {

std::optional<std::vector<std::vector<std::string>>> parseCsv(const std::string& text) {
    std::vector<std::vector<std::string>> records;
    std::vector<std::string> record;
    std::string field;
    std::size_t i = 0;
    const std::size_t n = text.size();
    while (i < n) {
        if (text[i] == '"') {
            ++i;
            while (true) {
                if (i == n) {
                    return std::nullopt;
                }
                if (text[i] == '"') {
                    if (i + 1 < n && text[i + 1] == '"') {
                        field += '"';
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                field += text[i++];
            }
        } else {
            while (i < n && text[i] != ',' && text[i] != '\r' && text[i] != '\n') {
                if (text[i] == '"') {
                    return std::nullopt;
                }
                field += text[i++];
            }
        }
        if (i < n && text[i] == ',') {
            record.push_back(std::move(field));
            field.clear();
            ++i;
            continue;
        }
        if (i + 1 < n && text[i] == '\r' && text[i + 1] == '\n') {
            record.push_back(std::move(field));
            field.clear();
            records.push_back(std::move(record));
            record.clear();
            i += 2;
            continue;
        }
        return std::nullopt;
    }
    if (!record.empty() || !field.empty()) {
        return std::nullopt;
    }
    return records;
}

}  // namespace pointlane::testkit
