// Fuzzes a whole boot: partitions, command line, power-on log, properties and the data folder come
// from one input, the service runs in process, and what has to hold is checked on the bytes.
#include <zlib.h>

#include <filesystem>
#include <vector>

#include "common/VortaParseFactory.h"
#include "fuzz/Phone.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;
using fuzz::Require;

namespace {

// First and second byte of an input.
enum Missing : uint8_t {
    kNoRawdump = 1,
    kNoUserdata = 2,
    kNoBootfail = 4,
    kNoDumplog = 8,
    kNoFulldumplog = 16,
    kNoPonLog = 32,
    kNoBoardId = 64
};
enum Extra : uint8_t {
    kCorvel = 1,
    kNoHistory = 2,
    kLongHistory = 4,
    kOldFolder = 8,
    kOldFulldump = 16,
    kMarker = 32,
    kRightCrc = 64
};

constexpr int64_t kDump = sizeof(DumpHeader);
constexpr int64_t kMini = 0x400000;
constexpr int64_t kChunk = 512 * 1024;
// Partitions that end in the header, in a log, in the dump's header, after whole and cut chunks.
constexpr size_t kRawdumpSizes[] = {
    kMini + kChunk, 0, 300, 0x90000, kMini + 20, kMini + 3 * kChunk, kMini + kChunk + 100};
constexpr size_t kUserdataSizes[] = {3 * kChunk, 0, 4096, kChunk + 100};

struct Partition {
    std::string path;
    std::optional<std::string> bytes;  // none: the partition is missing
    std::vector<Region> writable;      // the fields that this boot may change

    void Put(int64_t at, const std::string& content) {
        if (bytes && at >= 0 && at < static_cast<int64_t>(bytes->size())) {
            const size_t length = std::min(content.size(), bytes->size() - static_cast<size_t>(at));
            bytes->replace(static_cast<size_t>(at), length, content, 0, length);
        }
    }
    // Holds the file against what it was; gives the bytes that it has now.
    std::string Check() const {
        Partition now = {path, fuzz::Read(path), {}};
        Require(bytes || access(path.c_str(), F_OK) != 0, "no partition is made");
        const std::string before = bytes.value_or("");
        const std::string after = *now.bytes;
        for (const Region& field : writable) {
            if (field.offset >= 0 && field.offset < static_cast<int64_t>(before.size())) {
                now.Put(field.offset, before.substr(field.offset, field.size));
            }
        }
        Require(now.bytes->compare(0, before.size(), before) == 0,
                "a partition byte outside the service's fields stays");
        return after;
    }
};

struct Boot {
    uint8_t missing, extra;
    Partition rawdump = {fuzz::kRawdump, std::nullopt, {{0, sizeof(uint64_t)}}};
    Partition userdata = {fuzz::kUserdata, std::nullopt, {}};
    Partition bootfail = {fuzz::kBootfail, std::nullopt, {}};
    ReasonNode node;
    int64_t fulldumpOffset = 0;
    std::string history;

    bool Is(Extra flag) const { return (extra & flag) != 0; }

    // Takes the input apart and makes the device; the seeds have the same order.
    explicit Boot(fuzz::Input input) : missing(input.Byte()), extra(input.Byte()) {
        const auto unless = [&](Missing flag, std::string bytes) {
            return (missing & flag) != 0 ? std::nullopt : std::optional(std::move(bytes));
        };
        rawdump.bytes = unless(
            kNoRawdump, std::string(kRawdumpSizes[input.Byte() % std::size(kRawdumpSizes)], '\0'));
        userdata.bytes = unless(kNoUserdata, std::string(kUserdataSizes[input.Byte() % 4], '\0'));
        bootfail.bytes = unless(kNoBootfail, std::string(4096, 'b'));
        const auto header = fuzz::RecordOf<ReasonHeader>(input.Bytes(sizeof(ReasonHeader)));
        rawdump.Put(0, fuzz::BytesOf(header));
        rawdump.Put(kMini, input.Bytes(kDump));
        auto meta = fuzz::RecordOf<fulldump_header>(input.Bytes(sizeof(fulldump_header)));
        meta.crc = Is(kRightCrc) ? fuzz::Crc(fuzz::BytesOf(meta).substr(0, 48)) : meta.crc;
        bootfail.Put(kFulldumpMetaRegion.offset, fuzz::BytesOf(meta));
        fulldumpOffset = static_cast<int64_t>(
            meta.reservedFlag == kFulldumpReserved ? meta.dumpOffset : header.fulldumpOffset);
        userdata.Put(fulldumpOffset, input.Bytes(kDump));
        node = fuzz::RecordOf<ReasonHeader>(rawdump.bytes.value_or("")).reasonNode;

        fuzz::Write(fuzz::kProperties, input.Text());
        fuzz::Write(fuzz::kCmdline, input.Line() + "\n");
        fuzz::Write(kPmicPonLogPath, unless(kNoPonLog, input.Text()));
        fuzz::Write(kBoardIdPath, unless(kNoBoardId, input.Bytes(16)));
        const std::string log = input.Text();
        for (const Region& region : {kXblAblRegion, kLastXblAblRegion, kLastKmsgRegion}) {
            rawdump.Put(region.offset, log);
        }
        history = input.Text();
        history.resize(Is(kLongHistory) ? kHistoryLimit + 1 : history.size());
        if (!Is(kCorvel)) {
            rawdump.writable = {{offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode)},
                                {offsetof(ReasonHeader, userType), 8},
                                {offsetof(ReasonHeader, boardIdMagic), 4},
                                {offsetof(ReasonHeader, boardId), 4},
                                {kMini, kDump}};
            userdata.writable = {{fulldumpOffset, kDump}};
            bootfail.writable = {{kFulldumpMetaRegion.offset + 6, 1},
                                 {kFulldumpMetaRegion.offset + 48, 4}};
        }
        MakeFiles();
    }

    void MakeFiles() const {
        fs::remove_all(fs::path(kDumplogRoot).parent_path());
        fs::create_directories(kDumplogRoot);
        fs::create_directories(kFulldumplogRoot);
        for (const Partition* partition : {&rawdump, &userdata, &bootfail}) {
            fuzz::Write(partition->path, partition->bytes);
        }
        fuzz::Write(kDumplogRoot + "/" + kHistoryName, history);
        if (Is(kOldFolder)) {
            fs::create_directory(kDumplogRoot + "/2024");
            fuzz::Write(kDumplogRoot + "/2024/old", "");
            fs::resize_file(kDumplogRoot + "/2024/old", kDumplogLimit + 1);
        }
        if (Is(kOldFulldump)) {
            fuzz::Write(kFulldumplogRoot + "/2024-old", "old");
        }
        if (Is(kMarker)) {
            fuzz::Write(kShipmodePath, "");
        }
        if ((missing & kNoDumplog) != 0) {
            fs::remove_all(kDumplogRoot);
        }
        if ((missing & kNoFulldumplog) != 0) {
            fs::remove_all(kFulldumplogRoot);
        }
    }

    void Run() const {
        VortaParseFactory* const factory = VortaParseFactory::GetInstance();
        (Is(kCorvel) ? factory->CreateCorvel() : factory->CreateRainbow())
            ->HandleFlow(Is(kNoHistory) ? "minidump" : "boot");
        VortaParseFactory::ReleaseInstance();
        abnormalBootFlag = 0;
        fuzz::CloseLeftOpen();
    }
};

// A dump whose header was cleared lies in a file, of which `name` is the path's end: the whole
// chunks that the partition holds.
void CheckDump(const Partition& partition, const std::string& now, int64_t at, int64_t most,
               const std::string& root, const std::string& name) {
    const std::string before = partition.bytes.value_or("");
    const int64_t there = static_cast<int64_t>(before.size()) - at;
    if (at < 0 || there < kDump || before.compare(at, kDump, now, at, kDump) == 0) {
        return;
    }
    Require(now.substr(at, kDump) == std::string(kDump, '\0'), "a dump header is kept or cleared");
    std::string kept(before.size(), '\0');
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path();
        if (path.size() > name.size() && path.rfind(name) == path.size() - name.size()) {
            const gzFile file = gzopen(path.c_str(), "rb");  // reads a plain file as it is
            kept.resize(std::max(0, gzread(file, &kept[0], static_cast<unsigned>(kept.size()))));
            (void)gzclose(file);
        }
    }
    const int64_t chunks = (std::min(most, INT64_MAX - kChunk) + kChunk - 1) / kChunk;
    const int64_t size =
        most < kChunk ? (most <= there ? most : 0) : std::min(chunks, there / kChunk) * kChunk;
    Require(kept == before.substr(at, size), "a dump is cleared only when its file gives it back");
}

void CheckNode(const ReasonNode& before, const ReasonNode& now) {
    const bool derived = now.innerResetReason == kResetNormal && now.bootLevel == 1 &&
                         now.mreasonStrFlag == kTextValid && now.sreasonStrFlag == kTextValid &&
                         now.mreasonStr[0] != '\0' && now.resetType == before.resetType;
    Require(derived || fuzz::BytesOf(now) == fuzz::BytesOf(before) ||
                fuzz::BytesOf(now) == fuzz::BytesOf(ReasonNode{}),
            "the reason node is kept, cleared or derived as a whole");
}

void CheckHistory(const Boot& boot) {
    const bool runs = !boot.Is(kCorvel) && !boot.Is(kNoHistory) && boot.rawdump.bytes;
    const bool exists = (boot.missing & kNoDumplog) == 0;
    const bool stays = exists && !(runs && boot.history.size() > kHistoryLimit);
    const std::string before = stays ? boot.history : "";
    const std::string now = fuzz::Read(kDumplogRoot + "/" + kHistoryName);
    const std::string start = before + "system exception core [NA], reason [";
    if (!runs || !exists) {
        return Require(now == before, "no line without a history or a run");
    }
    Require(now.compare(0, start.size(), start) == 0, "the history keeps its lines and gains one");
    Require(now.back() == '\n' && now.find(start.substr(before.size()), start.size()) == now.npos,
            "one whole line a run");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::CloseLeftOpen();
    const Boot boot(fuzz::Input(data, size));
    boot.Run();

    const std::string rawdump = boot.rawdump.Check();
    const std::string userdata = boot.userdata.Check();
    const auto meta = fuzz::RecordOf<fulldump_header>(
        boot.bootfail.Check().substr(boot.bootfail.bytes ? kFulldumpMetaRegion.offset : 0));
    CheckHistory(boot);
    CheckNode(boot.node, fuzz::RecordOf<ReasonHeader>(rawdump).reasonNode);
    CheckDump(boot.rawdump, rawdump, kMini, kMinidumpRegion.size, kDumplogRoot, kRawdumpName);
    CheckDump(boot.userdata, userdata, boot.fulldumpOffset,
              meta.reservedFlag == kFulldumpReserved ? meta.dumpSize : kFulldumpRebuiltSize,
              kFulldumplogRoot, "-" + kFulldumpName);
    return 0;
}
