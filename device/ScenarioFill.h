// The part of a scenario that says what fills a byte range.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "device/JsonNode.h"
#include "device/Scenario.h"

namespace vortadev {

// Largest file of the data folder; also the mark of a range that has no size of its own.
constexpr uint64_t kFileLimit = uint64_t{1} << 30;

// Reads "phone", "zeros", "random", or an object with one of phone (closing lines), zeros, random
// (a seed), text, file (relative to `folder`), and a size. `name` selects the phone content,
// `limit` is the size of the range in bytes, `seed` serves where the node gives none.
Fill ParseFill(const JsonNode& node, const std::string& name, uint64_t limit, uint64_t seed,
               const std::filesystem::path& folder);

}  // namespace vortadev
