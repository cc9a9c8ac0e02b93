// Fuzzes a whole boot: partitions, command line, power-on log, properties and the data folder come
// from one input, the service runs in process, and what has to hold is checked on the bytes.
#include <zlib.h>

#include <filesystem>
#include <map>
#include <vector>

#include "common/VortaParseFactory.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"
#include "tests/fuzz/Phone.h"

namespace fs = std::filesystem;
using fuzz::Require;

namespace {

// The first two bytes of an input, low byte first.
enum Flag : uint16_t {
    kNoRawdump = 1,
    kNoUserdata = 2,
    kNoBootfail = 4,
    kNoDumplog = 8,
    kNoFulldumplog = 16,
    kNoPonLog = 32,
    kNoBoardId = 64,
    kCorvel = 256,
    kNoHistory = 512,
    kLongHistory = 1024,
    kOldDumps = 2048,
    kMarker = 4096,
    kRightCrc = 8192
};

constexpr int64_t kDump = sizeof(DumpHeader);
constexpr int64_t kMini = 0x400000;
constexpr int64_t kChunk = 0x80000;
// Partitions that end in the header, in a log, in the dump's header, after whole and cut chunks.
constexpr size_t kRawdumpSizes[] = {
    kMini + kChunk,    0, 300, 0x90000, kMini + 20, kMini + 3 * kChunk, kMini + kChunk + 100,
    kMini + kChunk - 1};
constexpr size_t kUserdataSizes[] = {3 * kChunk, 0, 4096, kChunk + 100};

// Sets bytes as far as the partition reaches.
void Put(std::string& partition, int64_t at, const std::string& bytes) {
    if (at >= 0 && at < static_cast<int64_t>(partition.size())) {
        const size_t length = std::min(bytes.size(), partition.size() - static_cast<size_t>(at));
        partition.replace(static_cast<size_t>(at), length, bytes, 0, length);
    }
}

uint32_t Crc(const fulldump_header& meta) {
    return RainbowHandle().FulldumpCrc32(reinterpret_cast<const uint8_t*>(&meta), 48);
}

// Only such a record counts; else the full dump is where the reason header has it.
bool IsWholeAndReserved(const fulldump_header& meta) {
    return meta.crc == Crc(meta) && meta.magic == kFulldumpMagic && meta.magicTail == 'Z' &&
           meta.reservedFlag == kFulldumpReserved;
}

// Everything that is there before the boot.
struct Boot {
    uint16_t flags;
    std::string rawdump, userdata, history;
    std::string bootfail = std::string(4096, 'b');
    int64_t dumpOffset, dumpSize;  // of the full dump

    bool Has(Flag what) const { return (flags & what) != 0; }

    // Takes the input apart and makes the device; the seeds have the same order.
    explicit Boot(fuzz::Input input) : flags(fuzz::RecordOf<uint16_t>(input.Bytes(2))) {
        rawdump.resize(kRawdumpSizes[input.Byte() % std::size(kRawdumpSizes)]);
        userdata.resize(kUserdataSizes[input.Byte() % std::size(kUserdataSizes)]);
        Put(rawdump, 0, input.Bytes(sizeof(ReasonHeader)));
        Put(rawdump, kMini, input.Bytes(kDump));
        auto meta = fuzz::RecordOf<fulldump_header>(input.Bytes(sizeof(fulldump_header)));
        meta.crc = Has(kRightCrc) ? Crc(meta) : meta.crc;
        Put(bootfail, kFulldumpMetaRegion.offset, fuzz::BytesOf(meta));
        const auto header = fuzz::RecordOf<ReasonHeader>(rawdump);
        const bool usesMeta = !Has(kNoBootfail) && IsWholeAndReserved(meta);
        dumpOffset = static_cast<int64_t>(usesMeta ? meta.dumpOffset : header.fulldumpOffset);
        dumpSize = static_cast<int64_t>(usesMeta ? meta.dumpSize : kFulldumpRebuiltSize);
        Put(userdata, dumpOffset, input.Bytes(kDump));
        fuzz::Write(fuzz::kProperties, input.Text());
        fuzz::Write(fuzz::kCmdline, input.Text());
        fuzz::Write(kPmicPonLogPath, input.Text(), !Has(kNoPonLog));
        fuzz::Write(kBoardIdPath, input.Bytes(16), !Has(kNoBoardId));
        const std::string log = input.Text();
        for (const Region& region :
             {kXblAblRegion, kLastXblAblRegion, kLastKmsgRegion, kTzLogRegion}) {
            Put(rawdump, region.offset, log);
        }
        history = input.Text();
        history.resize(Has(kLongHistory) ? kHistoryLimit + 1 : history.size());
        MakeData();
        fuzz::Write(fuzz::kPartitions + "rawdump", rawdump, !Has(kNoRawdump));
        fuzz::Write(fuzz::kPartitions + "userdata", userdata, !Has(kNoUserdata));
        fuzz::Write(fuzz::kPartitions + "bootfail_info", bootfail, !Has(kNoBootfail));
    }

    void MakeData() const {
        fs::remove_all(fs::path(kDumplogRoot).parent_path());
        fs::create_directories(kDumplogRoot + "/2024");
        fs::create_directories(kFulldumplogRoot + "/2024");
        fuzz::Write(kDumplogRoot + "/" + kHistoryName, history);
        if (Has(kOldDumps)) {  // over the limit
            fuzz::Write(kDumplogRoot + "/2024/old", "");
            fs::resize_file(kDumplogRoot + "/2024/old", kDumplogLimit + 1);
            fuzz::Write(kFulldumplogRoot + "/2024/old", "");
        }
        fuzz::Write(kShipmodePath, "", Has(kMarker));
        fs::remove_all(Has(kNoDumplog) ? kDumplogRoot : "/none");
        fs::remove_all(Has(kNoFulldumplog) ? kFulldumplogRoot : "/none");
    }
};

// Nothing but the writable fields of the partition differs; gives its bytes as they are now.
std::string CheckPartition(const std::string& name, bool exists, const std::string& before,
                           const std::vector<Region>& writable) {
    const std::string path = fuzz::kPartitions + name;
    Require(exists == fs::exists(path), "no partition is made");
    std::string now = exists ? fuzz::Read(path) : before;
    std::string masked = now;
    for (const Region& field : writable) {
        if (field.offset >= 0 && field.offset < static_cast<int64_t>(before.size())) {
            Put(masked, field.offset, before.substr(field.offset, field.size));
        }
    }
    Require(masked.compare(0, before.size(), before) == 0, "bytes outside the fields stay");
    return now;
}

// A dump whose header was cleared lies in a file with that in its path: the whole chunks that
// the partition holds, or a small dump as it is.
void CheckDump(const std::string& before, const std::string& now, int64_t at, int64_t most,
               const std::string& root, const std::string& name) {
    const int64_t there = static_cast<int64_t>(before.size()) - at;
    if (at < 0 || there < kDump || before.compare(at, kDump, now, at, kDump) == 0) {
        return;
    }
    Require(now.substr(at, kDump) == std::string(kDump, '\0'), "a dump header is kept or cleared");
    std::string kept(before.size(), '\0');
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path();
        if (path.find(name) != path.npos) {
            const gzFile file = gzopen(path.c_str(), "rb");  // reads a plain file as it is
            kept.resize(std::max(0, gzread(file, &kept[0], static_cast<unsigned>(kept.size()))));
            (void)gzclose(file);
        }
    }
    const int64_t chunks = std::min((most - 1) / kChunk + 1, there / kChunk);
    const int64_t size = most >= kChunk ? chunks * kChunk : most <= there ? most : 0;
    Require(kept == before.substr(at, size), "a dump is cleared only when its file gives it back");
}

void CheckHistory(const Boot& boot) {
    const bool runs = !boot.Has(kCorvel) && !boot.Has(kNoHistory) && !boot.Has(kNoRawdump) &&
                      !boot.Has(kNoDumplog);
    const bool isRenewed = runs && boot.history.size() > kHistoryLimit;
    const std::string before = boot.Has(kNoDumplog) || isRenewed ? "" : boot.history;
    const std::string now = fuzz::Read(kDumplogRoot + "/" + kHistoryName);
    Require(now.compare(0, before.size(), before) == 0, "the history keeps its lines");
    const std::string added = now.substr(before.size());
    Require(runs ? added.rfind("system exception core [NA], reason [") == 0 && added.back() == '\n'
                 : added.empty(),
            "one whole line a run");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::StartAnew();
    const Boot boot(fuzz::Input(data, size));
    VortaParseFactory* const factory = VortaParseFactory::GetInstance();
    (boot.Has(kCorvel) ? factory->CreateCorvel() : factory->CreateRainbow())
        ->HandleFlow(boot.Has(kNoHistory) ? "minidump" : "boot");
    VortaParseFactory::ReleaseInstance();
    abnormalBootFlag = 0;

    std::vector<Region> header = {{0, 8}}, dump, meta;  // what the service may write
    if (!boot.Has(kCorvel)) {
        header = {{offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode)},
                  {offsetof(ReasonHeader, userType), 8},
                  {offsetof(ReasonHeader, boardIdMagic), 4},
                  {offsetof(ReasonHeader, boardId), 4},
                  {kMini, kDump}};
        dump = {{boot.dumpOffset, kDump}};
        meta = {{kFulldumpMetaRegion.offset + 6, 1}, {kFulldumpMetaRegion.offset + 48, 4}};
    }
    const std::string rawdump =
        CheckPartition("rawdump", !boot.Has(kNoRawdump), boot.rawdump, header);
    const std::string userdata =
        CheckPartition("userdata", !boot.Has(kNoUserdata), boot.userdata, dump);
    (void)CheckPartition("bootfail_info", !boot.Has(kNoBootfail), boot.bootfail, meta);
    CheckDump(boot.rawdump, rawdump, kMini, kMinidumpRegion.size, kDumplogRoot, kRawdumpName);
    CheckDump(boot.userdata, userdata, boot.dumpOffset, boot.dumpSize, kFulldumplogRoot,
              "-" + kFulldumpName);
    CheckHistory(boot);
    return 0;
}
