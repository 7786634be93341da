#pragma once

// Text and JSON helpers shared by the transport tests.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "support/Bytes.h"

namespace pointlane::jsontext {

inline Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// The JSON value of the bytes; a failure (and a discarded value) when there are none.
inline nlohmann::json parsed(const std::optional<Bytes>& bytes) {
    EXPECT_TRUE(bytes.has_value());
    return bytes ? nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false)
                 : nlohmann::json();
}

}  // namespace pointlane::jsontext
