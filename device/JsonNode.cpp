// A value of a scenario file together with the place it came from.
#include "device/JsonNode.h"

#include <algorithm>

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
    if (value_ != nullptr && !value_->is_object()) {
        Expected("an object");
    }
    for (const auto& [key, item] : Items()) {
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
            std::string known;
            for (const std::string& name : keys) {
                known += (known.empty() ? "" : ", ") + name;
            }
            Fail("unknown key \"" + Printable(key) + "\"; expected one of: " + known);
        }
    }
}

JsonNode JsonNode::operator[](const std::string& key) const {
    const bool found = value_ != nullptr && value_->is_object() && value_->contains(key);
    return {found ? &value_->at(key) : nullptr, place_, key_.empty() ? key : key_ + "." + key};
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Items() const {
    std::vector<std::pair<std::string, JsonNode>> items;
    if (value_ == nullptr) {
        return items;
    }
    if (!value_->is_structured()) {
        Expected("an object");
    }
    for (const auto& item : value_->items()) {
        const std::string key = (key_.empty() ? "" : key_ + ".") + Printable(item.key());
        items.emplace_back(item.key(), JsonNode(&item.value(), place_, key));
    }
    return items;
}

std::string JsonNode::Text(const std::string& missing) const {
    if (value_ != nullptr && !value_->is_string()) {
        Expected("a text");
    }
    return value_ == nullptr ? missing : value_->get<std::string>();
}

bool JsonNode::Bool(bool missing) const {
    if (value_ != nullptr && !value_->is_boolean()) {
        Expected("true or false");
    }
    return value_ == nullptr ? missing : value_->get<bool>();
}

uint64_t JsonNode::Number(uint64_t missing, uint64_t largest) const {
    if (value_ != nullptr && (!value_->is_number_unsigned() || value_->get<uint64_t>() > largest)) {
        Expected("a whole number from 0 to " + std::to_string(largest));
    }
    return value_ == nullptr ? missing : value_->get<uint64_t>();
}

uint64_t JsonNode::Size(uint64_t missing) const {
    if (value_ == nullptr || value_->is_number_unsigned()) {
        return Number(missing);
    }
    const auto size = ParseSize(IsText() ? Text() : "");
    if (!size) {
        Expected("a number of bytes or a size like \"64MiB\"");
    }
    return *size;
}

std::vector<std::string> JsonNode::TextList(const std::vector<std::string>& missing) const {
    if (value_ == nullptr) {
        return missing;
    }
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
    if (IsText()) {
        return Text();
    }
    if (value_ != nullptr && !value_->is_array()) {
        Expected("a text or a list of lines");
    }
    std::string text;
    for (const std::string& line : TextList()) {
        text += line + "\n";
    }
    return text;
}

}  // namespace vortadev
