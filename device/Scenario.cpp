// Where shipped scenarios are, and where the log regions lie.
#include "device/Scenario.h"

#include <algorithm>
#include <charconv>

#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

// Shipped scenarios: in the source tree while it is there, else beside the program.
fs::path ScenarioFolder() {
    const fs::path source = VORTADEV_SCENARIOS;
    return fs::is_directory(source) ? source : ProgramFolder() / "scenarios";
}

}  // namespace

const std::vector<LogRegion>& LogRegions() {
    static const std::vector<LogRegion> regions = {{kXblAblName, kXblAblRegion},
                                                   {kLastXblAblName, kLastXblAblRegion},
                                                   {kLastKmsgName, kLastKmsgRegion},
                                                   {kTzLogName, kTzLogRegion}};
    return regions;
}

Scenario LoadScenario(const std::string& nameOrPath) {
    fs::path path = nameOrPath;
    if (path.filename() == path && path.extension() != ".json") {
        path = ScenarioFolder() / (nameOrPath + ".json");
        if (!fs::exists(path)) {
            throw DeviceError("no shipped scenario is called " + Printable(nameOrPath) +
                              "; vortadev scenarios lists them, and a file ends in .json");
        }
    }
    return ParseScenario(ReadFile(path), path);
}

std::optional<uint64_t> ParseSize(const std::string& text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    std::string unit(end, text.data() + text.size());
    unit.erase(0, std::min(unit.find_first_not_of(' '), unit.size()));
    static const std::map<std::string, int> shifts = {
        {"", 0}, {"B", 0}, {"KiB", 10}, {"MiB", 20}, {"GiB", 30}};
    const auto shift = shifts.find(unit);
    if (error != std::errc() || shift == shifts.end() || number > (UINT64_MAX >> shift->second)) {
        return std::nullopt;
    }
    return number << shift->second;
}

std::vector<std::string> ShippedScenarios() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(ScenarioFolder())) {
        if (entry.path().extension() == ".json") {
            names.push_back(entry.path().stem());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace vortadev
