#pragma once

#include <cstdint>
#include <vector>

namespace pointlane {

// A byte buffer: frame bodies, request payloads, blobs.
using Bytes = std::vector<std::uint8_t>;

}  // namespace pointlane
