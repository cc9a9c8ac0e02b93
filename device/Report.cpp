// Reading what a device, an image or a pulled folder holds.
#include "device/Report.h"

#include <fcntl.h>

#include <algorithm>

#include "device/DeviceFolder.h"
#include "device/RecordFields.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr uint64_t kHistoryReadLimit = 64 << 20;  // far above the daemon's own limit

RecordReport ReadRecord(const fs::path& image, uint64_t offset, uint64_t size) {
    RecordReport record;
    record.offset = offset;
    try {
        record.bytes = ReadFile(image, offset, size);
        if (record.bytes.size() < size) {
            record.problem = "cut off: " + std::to_string(record.bytes.size()) + " of " +
                             std::to_string(size) + " bytes are there";
        }
    } catch (const DeviceError& error) {
        record.problem = error.what();
    }
    return record;
}

void ReadRawdump(const fs::path& image, DeviceReport& report) {
    report.reasonHeader = ReadRecord(image, kReasonHeaderRegion.offset, kReasonHeaderRegion.size);
    report.minidump = ReadRecord(image, kMinidumpRegion.offset, sizeof(DumpHeader));
}

void ReadBootfail(const fs::path& image, DeviceReport& report) {
    report.meta = ReadRecord(image, kFulldumpMetaRegion.offset, kFulldumpMetaRegion.size);
}

// The header of the full dump that the meta record, or else the descriptor, says is waiting.
void ReadUserdata(const fs::path& image, DeviceReport& report) {
    const auto header = RecordOf<ReasonHeader>(report.reasonHeader->bytes);
    const auto meta = RecordOf<fulldump_header>(report.meta->bytes);
    if (meta.reservedFlag == kFulldumpReserved && MetaCrc(report.meta->bytes) == meta.crc) {
        report.fulldump = ReadRecord(image, meta.dumpOffset, sizeof(DumpHeader));
    } else if (header.fulldumpReservedFlag == kFulldumpReserved) {
        report.fulldump = ReadRecord(image, header.fulldumpOffset, sizeof(DumpHeader));
    }
}

FolderReport ReadFolder(const fs::path& folder) {
    FolderReport report;
    report.name = folder.filename();
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        if (fs::is_directory(entry->symlink_status(ignored))) {
            continue;
        }
        const uint64_t size = entry->is_regular_file(ignored) ? entry->file_size(ignored) : 0;
        report.files.push_back({fs::relative(entry->path(), folder, ignored), size});
        report.done = report.done || report.files.back().name == kDoneName;
    }
    if (error) {
        report.problem = "cannot be read: " + error.message();
    }
    std::sort(report.files.begin(), report.files.end(),
              [](const FileReport& a, const FileReport& b) { return a.name < b.name; });
    return report;
}

void ReadDumplog(const fs::path& folder, DeviceReport& report) {
    report.dumps.emplace();
    std::error_code error;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        std::error_code ignored;
        if (fs::is_directory(entry->symlink_status(ignored))) {
            report.dumps->push_back(ReadFolder(entry->path()));
        }
    }
    if (error) {
        report.problems.push_back("cannot read " + folder.string() + ": " + error.message());
    }
    std::sort(report.dumps->begin(), report.dumps->end(),
              [](const FolderReport& a, const FolderReport& b) { return a.name < b.name; });
    const fs::path history = folder / kHistoryName;
    if (!fs::exists(history, error)) {
        return;
    }
    try {
        report.history = ParseHistory(ReadFile(history, 0, kHistoryReadLimit));
    } catch (const DeviceError& failure) {
        report.history.emplace();
        report.history->problem = failure.what();
    }
}

void ReadReliability(const fs::path& folder, DeviceReport& report) {
    std::error_code error;
    ReadDumplog(folder / "dumplog", report);
    if (fs::is_directory(folder / "fulldumplog", error)) {
        report.fulldumps = ReadFolder(folder / "fulldumplog");
    }
}

void ReadWholeDevice(const fs::path& device, DeviceReport& report) {
    report.kind = "simulated device";
    auto scenario = nlohmann::json::parse(ReadFile(device / kScenarioFile), nullptr, false);
    if (scenario.is_object() && scenario["description"].is_string()) {
        report.description = scenario["description"];
    }
    const fs::path partitions = device / kPartitionFolder;
    ReadRawdump(partitions / kRawdumpPartition, report);
    ReadBootfail(partitions / kBootfailPartition, report);
    ReadUserdata(partitions / kUserdataPartition, report);
    ReadReliability(OnDevice(device, kDumplogRoot).parent_path(), report);
}

// A folder named like the record time of a boot: 14 digits, a hyphen, 8 digits.
bool IsBootFolder(const fs::path& path) {
    const std::string name = path.filename();
    return name.size() == 23 && name[14] == '-' &&
           std::count_if(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; }) ==
               22;
}

bool ReadPulledFolder(const fs::path& folder, DeviceReport& report) {
    std::error_code error;
    if (fs::is_directory(folder / "dumplog", error) ||
        fs::is_directory(folder / "fulldumplog", error)) {
        report.kind = "log folder of a phone";
        ReadReliability(folder, report);
        return true;
    }
    if (folder.filename() == "fulldumplog") {
        report.kind = "full dump folder of a phone";
        report.fulldumps = ReadFolder(folder);
        return true;
    }
    bool holdsBoots = folder.filename() == "dumplog" || fs::exists(folder / kHistoryName, error);
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        holdsBoots = holdsBoots || IsBootFolder(entry.path());
    }
    if (holdsBoots) {
        report.kind = "dump folder of a phone";
        ReadDumplog(folder, report);
    } else if (IsBootFolder(folder)) {
        report.kind = "collected boot of a phone";
        report.dumps = {ReadFolder(folder)};
    }
    return !report.kind.empty();
}

// By its content, and by its name where the content is no help.
void ReadImage(const fs::path& image, DeviceReport& report) {
    const std::string magic = ReadFile(image, kFulldumpMetaRegion.offset, sizeof(kFulldumpMagic));
    const bool named = image.filename().string().find("bootfail") != std::string::npos;
    const bool rawdump = image.filename().string().find("rawdump") != std::string::npos;
    if (ReadFile(image, 0, 2) == "\x1f\x8b") {
        throw DeviceError(image.string() +
                          " is a packed dump, no partition image; gzip -dc unpacks it");
    }
    if (named || (!rawdump && magic == "ZZZZ")) {
        report.kind = "bootfail_info image";
        ReadBootfail(image, report);
    } else {
        report.kind = "rawdump image";
        ReadRawdump(image, report);
    }
}

}  // namespace

uint64_t FolderReport::Size() const {
    uint64_t size = 0;
    for (const FileReport& file : files) {
        size += file.size;
    }
    return size;
}

HistoryReport ParseHistory(const std::string& text) {
    // The fixed texts around the reason, the time and the category. A value may hold a newline: one
    // at the end of the kernel command line keeps it.
    const std::string format = kHistoryFormat;
    std::vector<std::string> fixed;
    for (size_t at = 0, end = 0; at <= format.size(); at = end + 2) {
        end = std::min(format.find("%s", at), format.size());
        fixed.push_back(format.substr(at, end - at));
    }
    HistoryReport history;
    history.size = text.size();
    uint64_t understood = 0;
    for (size_t start = text.find(fixed[0]); start != std::string::npos;) {
        const size_t next = text.find(fixed[0], start + 1);
        const size_t time = text.find(fixed[1], start);
        const size_t category = text.find(fixed[2], std::min(time, text.size()));
        const size_t close = text.find(fixed[3], std::min(category, text.size()));
        if (close < next) {
            const auto between = [&](size_t from, size_t which, size_t to) {
                const size_t begin = from + fixed[which].size();
                return text.substr(begin, to - begin);
            };
            history.entries.push_back(
                {between(time, 1, category), between(category, 2, close), between(start, 0, time)});
            understood += close + fixed[3].size() - start;
        }
        start = next;
    }
    history.damaged = text.size() - understood;
    return history;
}

DeviceReport ReadDevice(const fs::path& path) {
    DeviceReport report;
    report.path = path;
    std::error_code error;
    const fs::path folder = fs::weakly_canonical(path, error);
    if (fs::is_directory(path, error)) {
        if (IsDevice(path)) {
            ReadWholeDevice(path, report);
        } else if (!ReadPulledFolder(folder, report)) {
            (void)OpenFile(path, O_RDONLY | O_DIRECTORY);  // says why, if it cannot be read at all
            throw DeviceError(path.string() +
                              " is neither a simulated device nor a log folder of a phone");
        }
    } else if (fs::is_regular_file(path, error) || fs::is_block_file(path, error)) {
        ReadImage(path, report);
    } else {
        throw DeviceError(path.string() + " is no file or folder that can be shown" +
                          (error ? ": " + error.message() : ""));
    }
    return report;
}

}  // namespace vortadev
