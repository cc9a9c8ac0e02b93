// The part of a scenario that says what fills a byte range.
#include "device/ScenarioFill.h"

#include "device/Content.h"

namespace fs = std::filesystem;

namespace vortadev {

Fill ParseFill(const JsonNode& node, const std::string& name, uint64_t limit, uint64_t seed,
               const fs::path& folder) {
    std::string kind = node.IsText() ? node.Text() : "";
    if (!node.IsText()) {
        node.RequireKeys({"phone", "zeros", "random", "text", "file", "size"});
        for (const auto& [key, value] : node.Items()) {
            kind += key == "size" ? "" : key;  // several of them make a kind that is not known
        }
    }
    const JsonNode value = node[kind];
    Fill fill;
    fill.seed = seed;
    if (kind == "phone") {
        if (!HasPhoneContent(name)) {
            node.Fail("no phone content is known for \"" + name +
                      "\"; expected text, file, zeros or random");
        }
        fill.kind = Fill::kPhone;
        fill.bytes = value && value.Value().is_array() ? value.TextOrLines() : "";
    } else if (kind == "random") {
        fill.kind = Fill::kRandom;
        fill.seed = value.Number(seed);
    } else if (kind == "text" && value) {
        fill.kind = Fill::kBytes;
        fill.bytes = value.TextOrLines();
    } else if (kind == "file" && value) {
        if (!fs::is_regular_file(folder / value.Text())) {
            value.Expected("an existing file");
        }
        fill.kind = Fill::kBytes;
        fill.bytes = ReadFile(folder / value.Text());
    } else if (kind != "zeros") {
        node.Expected("phone, zeros or random, or an object with one of these, text or file");
    }
    if (fill.kind != Fill::kBytes && !node["size"] && limit >= kFileLimit) {
        node.Fail("expected a \"size\" as well");
    }
    fill.size = node["size"].Size(fill.kind == Fill::kBytes ? fill.bytes.size() : limit);
    if (fill.size > limit) {
        node.Fail("expected at most " + std::to_string(limit) + " bytes, found " +
                  std::to_string(fill.size));
    }
    return fill;
}

}  // namespace vortadev
