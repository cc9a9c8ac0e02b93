// What a device, a partition image or a folder pulled from a phone holds. Reading never fails on
// damaged content: what cannot be read or understood is told in `problem` and `problems`.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "handle/PartitionRecords.h"

namespace vortadev {

// The bytes of one record; shorter than the record, with a problem, when the image ends early.
struct RecordReport {
    std::string bytes;
    std::string problem;
    uint64_t offset = 0;  // where it lies in its partition
};

struct FileReport {
    std::string name;
    uint64_t size = 0;  // bytes
};

// A folder of one collected boot, or the full dump folder.
struct FolderReport {
    std::string name;
    std::vector<FileReport> files;  // sorted, all levels
    bool done = false;              // the marker is there
    std::string problem;

    uint64_t Size() const;
};

struct HistoryEntry {
    std::string time;
    std::string category;
    std::string reason;
};

struct HistoryReport {
    uint64_t size = 0;                  // of the file, bytes
    std::vector<HistoryEntry> entries;  // oldest first
    uint64_t damaged = 0;               // bytes that belong to no entry
    std::string problem;
};

struct DeviceReport {
    std::string path;
    std::string kind;         // "simulated device", "rawdump image", ...
    std::string description;  // of the device's scenario

    // None: this kind of source does not hold it.
    std::optional<RecordReport> reasonHeader;
    std::optional<RecordReport> minidump;
    std::optional<RecordReport> fulldump;
    std::optional<RecordReport> meta;
    std::optional<std::vector<FolderReport>> dumps;
    std::optional<FolderReport> fulldumps;
    std::optional<HistoryReport> history;
    std::vector<std::string> problems;
};

// Reads a device folder, a rawdump or bootfail_info image (or block device), a "reliability" folder
// or a dumplog or fulldumplog folder. Throws DeviceError if the path is none of these.
DeviceReport ReadDevice(const std::filesystem::path& path);

// Finds the entries in the text of a history file.
HistoryReport ParseHistory(const std::string& text);

// For a person; `historyLines` of the latest history entries are shown.
std::string ReportText(const DeviceReport& report, size_t historyLines = 10);

// The same for a program.
nlohmann::ordered_json ReportJson(const DeviceReport& report);

}  // namespace vortadev
