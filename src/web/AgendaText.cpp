#include "AgendaText.h"

#include <algorithm>

#include "rules/TextRules.h"

namespace pointlane {

namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    });
    return text;
}

}  // namespace

std::vector<std::vector<std::string>> AgendaText::csvRows(std::string_view text) {
    // Spreadsheets set to a decimal comma write semicolons between fields: the header row says.
    const std::string_view header = text.substr(0, text.find_first_of("\r\n"));
    const char separator = std::count(header.begin(), header.end(), ';') >
                                   std::count(header.begin(), header.end(), ',')
                               ? ';'
                               : ',';
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> row;
    std::string field;
    bool quoted = false;
    bool any = false;  // the row has something, so a line break ends it
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
                field += '"';
                ++i;
            } else if (c == '"') {
                quoted = false;
            } else {
                field += c;
            }
            continue;
        }
        if (c == '"') {
            quoted = true;
            any = true;
        } else if (c == separator) {
            row.push_back(std::move(field));
            field.clear();
            any = true;
        } else if (c == '\n' || c == '\r') {
            if (any || !field.empty()) {
                row.push_back(std::move(field));
                rows.push_back(std::move(row));
            }
            row.clear();
            field.clear();
            any = false;
        } else {
            field += c;
        }
    }
    if (any || !field.empty()) {
        row.push_back(std::move(field));
        rows.push_back(std::move(row));
    }
    return rows;
}

std::variant<std::vector<std::string>, std::string> AgendaText::parse(std::string_view text,
                                                                      bool csv) {
    // A byte-order mark in front of a spreadsheet's file is no part of its first title.
    if (text.substr(0, 3) == "\xEF\xBB\xBF") {
        text.remove_prefix(3);
    }
    std::vector<std::string> titles;
    std::vector<std::size_t> lines;  // where each title was, for the sentence
    if (csv) {
        const auto rows = csvRows(text);
        if (rows.empty()) {
            return std::string("The CSV file is empty.");
        }
        const auto& header = rows.front();
        const auto column = std::find_if(header.begin(), header.end(), [](const std::string& name) {
            return lowered(trimmed(name)) == "title";
        });
        if (column == header.end()) {
            return std::string("The CSV file has no \"title\" column in its first row.");
        }
        const auto index = static_cast<std::size_t>(column - header.begin());
        for (std::size_t r = 1; r < rows.size(); ++r) {
            if (index < rows[r].size() && !trimmed(rows[r][index]).empty()) {
                titles.push_back(rows[r][index]);
                lines.push_back(r + 1);
            }
        }
    } else {
        std::size_t line = 0;
        std::size_t start = 0;
        while (start <= text.size()) {
            const std::size_t end = std::min(text.find('\n', start), text.size());
            ++line;
            const std::string_view one = text.substr(start, end - start);
            if (!trimmed(one).empty()) {
                titles.emplace_back(one);
                lines.push_back(line);
            }
            start = end + 1;
        }
    }
    if (titles.empty()) {
        return std::string("The agenda has no items.");
    }
    if (titles.size() > kMaxItems) {
        return "The agenda is too long: at most " + std::to_string(kMaxItems) + " items.";
    }
    for (std::size_t i = 0; i < titles.size(); ++i) {
        // A spreadsheet cell written on several lines is one title on one line.
        std::replace_if(
            titles[i].begin(), titles[i].end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
        if (auto problem = checkName(titles[i], "title")) {
            return (csv ? "Row " : "Line ") + std::to_string(lines[i]) + ": " + *problem;
        }
    }
    return titles;
}

}  // namespace pointlane
