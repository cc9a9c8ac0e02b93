// The simulated phone of the system tests.
#include "phone.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>

#include "device/RecordFields.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;
using namespace vortadev;

namespace {

constexpr std::chrono::seconds kBootLimit{120};  // generous: under qemu and sanitizers as well

std::string Variable(const char* name) {
    const char* const value = getenv(name);
    return value == nullptr ? "" : value;
}

}  // namespace

Scenario Patched(const std::string& scenario, const std::vector<std::string>& patches) {
    auto json = nlohmann::ordered_json::parse(LoadScenario(scenario).source);
    for (const std::string& patch : patches) {
        json.merge_patch(nlohmann::ordered_json::parse(patch));
    }
    return ParseScenario(json.dump(), "patched " + scenario);
}

RunOptions Options() {
    RunOptions options;
    options.capture = true;
    options.timeout = kBootLimit;
    options.daemon = Variable("VORTA_DAEMON");
    options.emulator = Variable("VORTA_EMULATOR");
    if (const std::string gcov = Variable("VORTA_GCOV"); !gcov.empty()) {
        options.binds.emplace_back(gcov, "/gcov");
        options.environment["GCOV_PREFIX"] = "/gcov";
    }
    return options;
}

Phone::Phone(const Scenario& made) : scenario(made) {
    std::string pattern = testing::TempDir() + "vorta_phone_XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw DeviceError("cannot make " + pattern);
    }
    device = pattern;
    CreateDevice(device, scenario);
}

RunResult Phone::Boot(const std::vector<std::string>& arguments, RunOptions options) const {
    options.args = arguments;
    RunResult result = RunDaemon(device, options);
    EXPECT_FALSE(result.timedOut);
    for (const auto& [name, image] : ReadPartitions(device)) {
        const auto size = name == kRawdumpPartition    ? scenario.rawdump
                          : name == kUserdataPartition ? scenario.userdata
                                                       : scenario.bootfailInfo;
        EXPECT_EQ(image.size, size) << name << " has another size after the run";
    }
    return result;
}

std::vector<std::string> Phone::Folders() const {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(*this / kDumplogRoot, missing)) {
        if (entry.is_directory()) {
            names.push_back(entry.path().filename());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

fs::path Phone::Folder() const {
    const std::vector<std::string> names = Folders();
    EXPECT_EQ(names.size(), 1u);
    return *this / (kDumplogRoot + "/" + (names.empty() ? "none" : names[0]));
}

std::string Phone::History() const {
    const fs::path path = *this / (kDumplogRoot + "/" + kHistoryName);
    return fs::exists(path) ? ReadFile(path) : "";
}

bool Phone::MinidumpWaits() const {
    const std::string bytes = ReadFile(Partition(kRawdumpPartition), kMinidumpRegion.offset,
                                       static_cast<uint64_t>(sizeof(DumpHeader)));
    return (RecordOf<DumpHeader>(bytes).flag & kDumpPresent) != 0;
}
