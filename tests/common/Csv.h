#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pointlane::testkit {

// The records of a strict RFC 4180 text: fields separated by commas, records ended by CRLF,
// fields that hold commas, quotes or line breaks quoted with their quotes doubled. Nothing for
// any text that breaks those rules (a bare line feed between records, a stray quote, an
// unterminated quoted field, a last record without its CRLF).
std::optional<std::vector<std::vector<std::string>>> parseCsv(const std::string& text);

}  // namespace pointlane::testkit
