// A scenario: everything that a simulated device holds before a boot, how the daemon is started on
// it, and what has to hold afterwards. Read from a small JSON file; scenarios/README.md lists its
// keys. All values are checked while reading, so that a Scenario is always one that can be made.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Files.h"
#include "handle/PartitionRecords.h"

namespace vortadev {

// What fills a byte range.
struct Fill {
    enum Kind { kPhone, kZeros, kRandom, kBytes };

    Kind kind = kZeros;
    uint64_t seed = 0;  // of kPhone and kRandom
    uint64_t size = 0;  // bytes to fill; the rest of the range stays zero
    std::string bytes;  // kBytes: the content; kPhone: lines that close the log
};

// An entry of the data folder before the boot; `path` is relative to /data.
struct DataEntry {
    enum Kind { kFile, kFolder, kLink };

    std::filesystem::path path;
    Kind kind = kFile;
    Fill content;
    std::string target;  // of a link
};

// A full dump as the boot chain leaves it in userdata.
struct Fulldump {
    uint64_t offset = 0;  // bytes from the start of userdata
    uint64_t size = 0;    // bytes, header included
    std::string header;   // 56 bytes
    Fill content;
};

enum class FactoryLibrary { kAbsent, kPresent, kWithoutSymbol };

// What has to hold after the run. What is not named here must not have happened: a partition byte
// that no member allows to change, a dump folder or a history line that is not expected breaks the
// promise.
struct Expectations {
    struct History {
        std::string category;
        std::string reason;
        bool renewed = false;  // the old history was discarded at its limit
    };

    int status = 0;
    std::optional<History> history;  // the one line that is added
    std::vector<std::string>
        collected;          // all files of the new dump folder, sorted; none: no folder
    bool fulldump = false;  // a new full dump with the dump's bytes, closed by its marker
    bool minidumpCleared = false;
    bool fulldumpCleared = false;
    std::string reasonHeader;                // 472 bytes, exactly
    std::string meta;                        // 56 bytes of bootfail_info, exactly
    std::vector<std::string> log, notLog;    // texts that some line, or no line, contains
    std::vector<std::string> present, gone;  // paths below /data
    std::vector<std::string> factoryEvents;  // lines that the factory library received
};

struct Scenario {
    std::string name;
    std::string description;
    std::string source;  // the JSON text

    std::vector<std::string> arguments;  // of the daemon
    std::optional<uint64_t> dataSize;    // bytes of a small /data

    // Sizes in bytes; none: the partition is missing.
    std::optional<uint64_t> rawdump = 36 << 20;
    std::optional<uint64_t> userdata = 64 << 20;
    std::optional<uint64_t> bootfailInfo = 1 << 20;

    std::vector<std::pair<std::string, std::string>> properties;
    std::string cmdline;                // with its newline
    std::optional<std::string> ponLog;  // none: no such file
    std::optional<std::string> boardId;

    std::string reasonHeader;          // 472 bytes
    std::map<std::string, Fill> logs;  // by the name of the collected file, all four
    std::string minidumpHeader;        // 56 bytes
    Fill minidump;                     // header included
    std::optional<Fulldump> fulldump;
    std::string meta;  // 56 bytes of bootfail_info

    std::vector<DataEntry> data;
    FactoryLibrary factoryLibrary = FactoryLibrary::kAbsent;
    Expectations expect;
};

// A log region of rawdump and the file that it is collected into.
struct LogRegion {
    std::string name;
    Region region;
};
const std::vector<LogRegion>& LogRegions();

// Reads a scenario file, or a shipped scenario by its name (no slash, no ".json"). Throws a
// DeviceError that names the file, the key and what was expected.
Scenario LoadScenario(const std::string& nameOrPath);

// The same from text; `file` stands for it in errors, and relative files are looked up
// beside it.
Scenario ParseScenario(const std::string& text, const std::filesystem::path& file);

// Names of the shipped scenarios, sorted.
std::vector<std::string> ShippedScenarios();

// "64MiB", "512 KiB", "4096": bytes. None if it is no size.
std::optional<uint64_t> ParseSize(const std::string& text);

}  // namespace vortadev
