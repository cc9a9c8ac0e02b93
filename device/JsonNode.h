// A value of a scenario file together with the place it came from, so that every complaint about
// it names the file, the key and what was expected there.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace vortadev {

// A member that the file does not have is a node as well: it converts to false, and what is read
// from it is the default that the caller gives.
class JsonNode {
  public:
    // `value` outlives the node; `place` is the file, `key` the dotted path below it.
    JsonNode(const nlohmann::ordered_json* value, std::string place, std::string key)
        : value_(value), place_(std::move(place)), key_(std::move(key)) {}

    explicit operator bool() const { return value_ != nullptr; }
    const nlohmann::ordered_json& Value() const { return *value_; }
    bool IsText() const { return value_ != nullptr && value_->is_string(); }

    // Throws "FILE: KEY: expected WHAT, found VALUE".
    [[noreturn]] void Expected(const std::string& what) const;
    // Throws "FILE: KEY: TEXT".
    [[noreturn]] void Fail(const std::string& text) const;

    // An object whose keys are all among those given; or missing.
    void RequireKeys(const std::vector<std::string>& keys) const;
    // The member of an object.
    JsonNode operator[](const std::string& key) const;
    // All members of an object or elements of a list, in their order.
    std::vector<std::pair<std::string, JsonNode>> Items() const;

    std::string Text(const std::string& missing = "") const;
    bool Bool(bool missing = false) const;
    uint64_t Number(uint64_t missing, uint64_t largest = UINT64_MAX) const;
    // A number of bytes, or a text like "64MiB".
    uint64_t Size(uint64_t missing) const;
    std::vector<std::string> TextList(const std::vector<std::string>& missing = {}) const;
    // The text itself, or a list of lines, each of which gets a newline.
    std::string TextOrLines() const;

  private:
    const nlohmann::ordered_json* value_;
    std::string place_;
    std::string key_;
};

}  // namespace vortadev
