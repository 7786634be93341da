#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace pointlane {

// The items of an agenda as a facilitator gives them: pasted text, one title per line (blank
// lines skipped), or a CSV file whose header row names a "title" column (any case; commas, or
// semicolons when the header row has more of them; quoted fields, doubled quotes and line breaks
// inside quotes as spreadsheets write them). Every title is trimmed, composed and checked like any
// title. Plain functions; safe on any thread.
class AgendaText final {
  public:
    static constexpr std::size_t kMaxItems = 200;

    // The titles in order, or the sentence saying what is wrong.
    static std::variant<std::vector<std::string>, std::string> parse(std::string_view text,
                                                                     bool csv);
    // The rows of a CSV text, each a list of fields as written (unquoted).
    static std::vector<std::vector<std::string>> csvRows(std::string_view text);
};

}  // namespace pointlane
