// A value of a scenario file together with the place it came from.
#include "device/JsonNode.h"

#include <algorithm>
#include <charconv>

#include "device/Scenario.h"

namespace vortadev {

using Json = nlohmann::ordered_json;

void JsonNode::Fail(const std::string& text) const {
    throw DeviceError(place_ + ": " + (key_.empty() ? "" : key_ + ": ") + text);
}

void JsonNode::Expected(const std::string& what) const {
    constexpr size_t kShown = 40;
    std::string found = value_->dump(-1, ' ', false, Json::error_handler_t::replace);
    if (found.size() > kShown) {
        found = found.substr(0, kShown) + "...";
    }
    Fail("expected " + what + ", found " + Printable(found));
}

void JsonNode::RequireKeys(const std::vector<std::string>& keys) const {
    if (!value_->is_object()) {
        Expected("an object");
    }
    for (const auto& item : value_->items()) {
        if (std::find(keys.begin(), keys.end(), item.key()) == keys.end()) {
            std::string known;
            for (const std::string& key : keys) {
                known += (known.empty() ? "" : ", ") + key;
            }
            Fail("unknown key \"" + Printable(item.key()) + "\"; expected one of: " + known);
        }
    }
}

std::optional<JsonNode> JsonNode::Get(const std::string& key) const {
    const auto found = value_->find(key);
    if (found == value_->end()) {
        return std::nullopt;
    }
    return JsonNode(*found, place_, key_.empty() ? key : key_ + "." + key);
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Items() const {
    if (!value_->is_structured()) {
        Expected("an object");
    }
    std::vector<std::pair<std::string, JsonNode>> items;
    for (const auto& item : value_->items()) {
        const std::string key = (key_.empty() ? "" : key_ + ".") + Printable(item.key());
        items.emplace_back(item.key(), JsonNode(item.value(), place_, key));
    }
    return items;
}

std::string JsonNode::Text() const {
    if (!value_->is_string()) {
        Expected("a text");
    }
    return value_->get<std::string>();
}

bool JsonNode::Bool() const {
    if (!value_->is_boolean()) {
        Expected("true or false");
    }
    return value_->get<bool>();
}

uint64_t JsonNode::Number(uint64_t largest) const {
    if (!value_->is_number_unsigned() || value_->get<uint64_t>() > largest) {
        Expected("a whole number from 0 to " + std::to_string(largest));
    }
    return value_->get<uint64_t>();
}

uint64_t JsonNode::Size() const {
    if (value_->is_number_unsigned()) {
        return Number();
    }
    const auto size = ParseSize(value_->is_string() ? value_->get<std::string>() : "");
    if (!size) {
        Expected("a number of bytes or a size like \"64MiB\"");
    }
    return *size;
}

std::vector<std::string> JsonNode::TextList() const {
    if (!value_->is_array()) {
        Expected("a list of texts");
    }
    std::vector<std::string> list;
    for (const auto& [key, item] : Items()) {
        list.push_back(item.Text());
    }
    return list;
}

std::string JsonNode::TextOrLines() const {
    if (value_->is_string()) {
        return Text();
    }
    if (!value_->is_array()) {
        Expected("a text or a list of lines");
    }
    std::string text;
    for (const std::string& line : TextList()) {
        text += line + "\n";
    }
    return text;
}

std::optional<uint64_t> ParseSize(const std::string& text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    std::string unit(end, text.data() + text.size());
    unit.erase(0, std::min(unit.find_first_not_of(' '), unit.size()));
    const std::map<std::string, int> shifts = {
        {"", 0}, {"B", 0}, {"KiB", 10}, {"MiB", 20}, {"GiB", 30}};
    const auto shift = shifts.find(unit);
    if (error != std::errc() || shift == shifts.end() || number > (UINT64_MAX >> shift->second)) {
        return std::nullopt;
    }
    return number << shift->second;
}

}  // namespace vortadev
