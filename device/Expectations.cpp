// Holds a run against what its scenario promises.
#include "device/Expectations.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>

#include "device/Report.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr uint64_t kFulldumpChunk = 524288;
constexpr size_t kShortestText = 4;

// One comparison of a run with its promises.
class Checker {
  public:
    Checker(const Scenario& scenario, const DeviceState& before, const fs::path& device,
            const RunResult& result)
        : scenario_(scenario),
          expect_(scenario.expect),
          before_(before),
          device_(device),
          result_(result),
          after_(ReadState(device)) {}

    std::vector<std::string> Check() {
        Require(!result_.timedOut, "the daemon ended within its time limit");
        Require(result_.status == expect_.status, "exit status " + std::to_string(expect_.status) +
                                                      ", found " + std::to_string(result_.status));
        CheckPartitions();
        CheckCollected();
        CheckFulldump();
        CheckHistory();
        CheckLog();
        CheckFiles();
        return broken_;
    }

  private:
    void Require(bool holds, const std::string& promise) {
        if (!holds) {
            broken_.push_back("broken promise: " + promise);
        }
    }

    void CheckPartitions();
    void CheckCollected();
    void CheckCollectedFile(const fs::path& folder, const std::string& name);
    void CheckFulldump();
    void CheckHistory();
    void CheckLog();
    void CheckFiles();

    // The partition's content before the run with the bytes that the scenario lets it change.
    PartitionImage Expected(const std::string& name) const;

    std::string Before(const std::string& partition, uint64_t offset, uint64_t size) const {
        const auto image = before_.partitions.find(partition);
        return image == before_.partitions.end() ? "" : image->second.Range(offset, size);
    }

    const Scenario& scenario_;
    const Expectations& expect_;
    const DeviceState& before_;
    const fs::path& device_;
    const RunResult& result_;
    const DeviceState after_;
    std::vector<std::string> broken_;
};

std::set<std::string> Names(const fs::path& folder, bool foldersOnly) {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        if (!foldersOnly || entry.is_directory(error)) {
            names.insert(entry.path().filename());
        }
    }
    return names;
}

std::set<std::string> Added(const std::set<std::string>& before,
                            const std::set<std::string>& after) {
    std::set<std::string> added;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::inserter(added, added.end()));
    return added;
}

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : " ") + name;
    }
    return text.empty() ? "nothing" : text;
}

// The content of a whole gzip file; a problem, in words, for anything else.
std::string Unpacked(const fs::path& path, std::string& problem) {
    gzFile file = gzopen(path.c_str(), "rb");
    std::string bytes;
    char chunk[65536];
    int n = 0;
    while (file != nullptr && (n = gzread(file, chunk, sizeof(chunk))) > 0) {
        bytes.append(chunk, static_cast<size_t>(n));
    }
    if (file == nullptr || n < 0 || gzdirect(file) != 0) {
        problem = "is no gzip file";
    }
    // A file that ends early shows only here.
    if (file != nullptr && gzclose(file) != Z_OK && problem.empty()) {
        problem = "is cut off";
    }
    return bytes;
}

PartitionImage Checker::Expected(const std::string& name) const {
    PartitionImage image = before_.partitions.at(name);
    if (name == kRawdumpPartition) {
        image.Replace(kReasonHeaderRegion.offset, expect_.reasonHeader);
        if (expect_.minidumpCleared) {
            image.Replace(kMinidumpRegion.offset, std::string(sizeof(DumpHeader), '\0'));
        }
    } else if (name == kBootfailPartition) {
        image.Replace(kFulldumpMetaRegion.offset, expect_.meta);
    } else if (expect_.fulldumpCleared && scenario_.fulldump) {
        image.Replace(scenario_.fulldump->offset, std::string(sizeof(DumpHeader), '\0'));
    }
    return image;
}

void Checker::CheckPartitions() {
    for (const auto& [name, image] : after_.partitions) {
        if (before_.partitions.count(name) == 0) {
            Require(false, name + " is not made by the daemon");
            continue;
        }
        const PartitionImage expected = Expected(name);
        Require(image.size == expected.size, name + " keeps its size");
        std::set<uint64_t> offsets;
        for (const auto* blocks : {&image.blocks, &expected.blocks}) {
            for (const auto& [offset, block] : *blocks) {
                offsets.insert(offset);
            }
        }
        for (const uint64_t offset : offsets) {
            const std::string is = image.Range(offset, PartitionImage::kBlock);
            const std::string ought = expected.Range(offset, PartitionImage::kBlock);
            const auto differs = std::mismatch(is.begin(), is.end(), ought.begin(), ought.end());
            if (differs.first != is.end()) {
                Require(false, name + " as promised; the first other byte is at offset " +
                                   std::to_string(offset + (differs.first - is.begin())));
                break;
            }
        }
    }
}

void Checker::CheckCollected() {
    const std::set<std::string> added = Added(before_.dumps, after_.dumps);
    if (expect_.collected.empty() || added.size() != 1) {
        Require(added.size() == (expect_.collected.empty() ? 0 : 1),
                "new dump folder with " + Joined(expect_.collected) + "; found " +
                    std::to_string(added.size()) + " new folders");
        return;
    }
    const fs::path folder = OnDevice(device_, kDumplogRoot) / *added.begin();
    Require(
        result_.log.find("[GetRecordTime] get time [" + *added.begin() + "]") != std::string::npos,
        "the dump folder is named by the run's time");
    const std::set<std::string> names = Names(folder, false);
    const std::vector<std::string> files(names.begin(), names.end());
    Require(files == expect_.collected,
            "dump folder with " + Joined(expect_.collected) + "; found " + Joined(files));
    for (const std::string& name : files) {
        CheckCollectedFile(folder, name);
    }
}

void Checker::CheckCollectedFile(const fs::path& folder, const std::string& name) {
    for (const LogRegion& log : LogRegions()) {
        if (log.name == name) {
            const std::string region =
                Before(kRawdumpPartition, log.region.offset, log.region.size);
            Require(ReadFile(folder / name) == TextOf(region),
                    name + " holds the text of its region");
        }
    }
    if (name == kRawdumpName) {
        std::string problem;
        const std::string dump = Unpacked(folder / name, problem);
        Require(problem.empty(), name + " is a whole gzip file; it " + problem);
        Require(dump == Before(kRawdumpPartition, kMinidumpRegion.offset, kMinidumpRegion.size),
                name + " unpacks to the minidump region");
    }
}

void Checker::CheckFulldump() {
    const std::set<std::string> added = Added(before_.fulldumps, after_.fulldumps);
    std::string file;
    for (const std::string& name : added) {
        file = name.find(kFulldumpName) != std::string::npos ? name : file;
    }
    Require(expect_.fulldump == !file.empty(),
            expect_.fulldump ? "a full dump is collected" : "no full dump is collected");
    if (file.empty() || !scenario_.fulldump) {
        return;
    }
    Require(after_.fulldumps.count(kDoneName) == 1, "the full dump is closed by its marker");
    const uint64_t size =
        (scenario_.fulldump->size + kFulldumpChunk - 1) / kFulldumpChunk * kFulldumpChunk;
    Require(ReadFile(OnDevice(device_, kFulldumplogRoot) / file) ==
                Before(kUserdataPartition, scenario_.fulldump->offset, size),
            "the full dump holds the bytes of userdata");
}

void Checker::CheckHistory() {
    std::string expected = expect_.history && expect_.history->renewed ? "" : before_.history;
    if (expect_.history) {
        static const std::string kTimeText = "[GetRecordTime] get time [";
        const size_t at = result_.log.find(kTimeText);
        const size_t start = at == std::string::npos ? result_.log.size() : at + kTimeText.size();
        const std::string time = result_.log.substr(start, result_.log.find(']', start) - start);
        char line[4096];
        (void)snprintf(line, sizeof(line), kHistoryFormat, expect_.history->reason.c_str(),
                       time.c_str(), expect_.history->category.c_str());
        expected += line;
    }
    const auto last = ParseHistory(after_.history).entries;
    Require(after_.history == expected,
            expect_.history
                ? "history with one more line, category " + Printable(expect_.history->category) +
                      ", reason " + Printable(expect_.history->reason) + "; its last line says " +
                      (last.empty()
                           ? "nothing"
                           : Printable(last.back().category) + ", " + Printable(last.back().reason))
                : "no new line in the history");
}

void Checker::CheckLog() {
    for (const std::string& text : expect_.log) {
        Require(result_.log.find(text) != std::string::npos, "a log line with: " + text);
    }
    for (const std::string& text : expect_.notLog) {
        Require(result_.log.find(text) == std::string::npos, "no log line with: " + text);
    }
}

void Checker::CheckFiles() {
    for (const std::string& path : expect_.present) {
        Require(fs::exists(fs::symlink_status(device_ / "data" / path)),
                "/data/" + path + " is there");
    }
    for (const std::string& path : expect_.gone) {
        Require(!fs::exists(fs::symlink_status(device_ / "data" / path)),
                "/data/" + path + " is gone");
    }
    std::string events;
    for (const std::string& event : expect_.factoryEvents) {
        events += event + "\n";
    }
    const fs::path file = device_ / "data/vendor/factory/events.txt";
    const std::string found = fs::exists(file) ? ReadFile(file) : "";
    Require(found == events,
            "factory events: " + Printable(events) + "; found " + Printable(found));
}

}  // namespace

DeviceState ReadState(const fs::path& device) {
    DeviceState state;
    state.partitions = ReadPartitions(device);
    state.dumps = Names(OnDevice(device, kDumplogRoot), true);
    state.fulldumps = Names(OnDevice(device, kFulldumplogRoot), false);
    const fs::path history = OnDevice(device, kDumplogRoot) / kHistoryName;
    state.history = fs::is_regular_file(history) ? ReadFile(history) : "";
    return state;
}

std::vector<std::string> CheckExpectations(const Scenario& scenario, const DeviceState& before,
                                           const fs::path& device, const RunResult& result) {
    return Checker(scenario, before, device, result).Check();
}

std::vector<std::string> CheckScenario(const Scenario& scenario, const fs::path& device,
                                       RunOptions options) {
    CreateDevice(device, scenario);
    const DeviceState before = ReadState(device);
    options.args = scenario.arguments;
    options.dataSize = scenario.dataSize;
    const RunResult result = RunDaemon(device, options);
    return CheckExpectations(scenario, before, device, result);
}

std::string TextOf(const std::string& bytes) {
    std::string text;
    size_t start = 0;
    for (size_t i = 0; i <= bytes.size(); ++i) {
        if (i < bytes.size() && ((bytes[i] >= 0x20 && bytes[i] < 0x7f) || bytes[i] == '\t')) {
            continue;
        }
        if (i - start >= kShortestText) {
            text.append(bytes, start, i - start).push_back('\n');
        }
        start = i + 1;
    }
    return text;
}

}  // namespace vortadev
