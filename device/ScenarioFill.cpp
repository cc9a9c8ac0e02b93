// The part of a scenario that says what fills a byte range.
#include "device/ScenarioFill.h"

#include "device/Content.h"

namespace fs = std::filesystem;

namespace vortadev {

Fill ParseFill(const JsonNode& node, const std::string& name, uint64_t limit, uint64_t seed,
               const fs::path& folder) {
    static const std::vector<std::string> kinds = {"phone", "zeros", "random", "text", "file"};
    static const char kForm[] =
        "\"phone\", \"zeros\", \"random\" or an object with one of phone, zeros, random, text, "
        "file";
    Fill fill;
    fill.seed = seed;
    std::string kind = node.Value().is_string() ? node.Text() : "";
    std::optional<JsonNode> size;
    if (node.Value().is_object()) {
        node.RequireKeys({"phone", "zeros", "random", "text", "file", "size"});
        size = node.Get("size");
        for (const std::string& candidate : kinds) {
            if (node.Get(candidate)) {
                kind = kind.empty() ? candidate : "several";
            }
        }
    }
    const auto value = node.Value().is_object() ? node.Get(kind) : std::nullopt;
    if (kind == "phone") {
        if (!HasPhoneContent(name)) {
            node.Fail("no phone content is known for \"" + name +
                      "\"; expected text, file, zeros or random");
        }
        fill.kind = Fill::kPhone;
        fill.bytes = value && value->Value().is_array() ? value->TextOrLines() : "";
    } else if (kind == "random") {
        fill.kind = Fill::kRandom;
        fill.seed = value && value->Value().is_number() ? value->Number() : seed;
    } else if (kind == "text" && value) {
        fill.kind = Fill::kBytes;
        fill.bytes = value->TextOrLines();
    } else if (kind == "file" && value) {
        const fs::path file = folder / value->Text();
        if (!fs::is_regular_file(file)) {
            value->Expected("an existing file");
        }
        fill.kind = Fill::kBytes;
        fill.bytes = ReadFile(file);
    } else if (kind != "zeros") {
        node.Expected(kForm);
    }
    if (fill.kind != Fill::kBytes && !size && limit >= kFileLimit) {
        node.Fail("expected a \"size\" as well");
    }
    fill.size = size ? size->Size() : fill.kind == Fill::kBytes ? fill.bytes.size() : limit;
    if (fill.size > limit) {
        node.Fail("expected at most " + std::to_string(limit) + " bytes, found " +
                  std::to_string(fill.size));
    }
    return fill;
}

}  // namespace vortadev
