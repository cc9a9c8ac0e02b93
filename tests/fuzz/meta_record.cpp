// Fuzzes the full dump's meta record and the descriptor that replaces it: which of the two is used,
// and what reaches the partition.
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "tests/fuzz/Phone.h"

using fuzz::Require;

namespace {

enum Flag : uint8_t { kNoBootfail = 1, kNoRawdump = 2, kRightCrc = 4, kRightMagic = 8 };

constexpr size_t kAt = 1024;     // of the record in its partition
constexpr size_t kChecked = 48;  // bytes under the CRC, which follows them

bool IsUsable(const fulldump_header& record, const ReasonHeader& header) {
    const std::string bytes = fuzz::BytesOf(record);
    return record.crc == fuzz::Crc(bytes.substr(0, kChecked)) && bytes.substr(0, 4) == "ZZZZ" &&
           bytes[5] == 'Z' &&
           (record.reservedFlag == 0x3B5D2957 || header.fulldumpReservedFlag != 0x3B5D2957);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const uint8_t flags = input.Byte();
    const std::string rawdump =
        (flags & kNoRawdump) != 0 ? "" : std::string(392, 'r') + input.Bytes(80);
    std::string bootfail = std::string(kAt, 'b') + input.Bytes(sizeof(fulldump_header) + 24);
    if ((flags & kRightMagic) != 0) {
        bootfail.replace(kAt, 6, "ZZZZ-Z");
    }
    auto record = fuzz::RecordOf<fulldump_header>(bootfail.substr(kAt));
    if ((flags & kRightCrc) != 0) {
        record.crc = fuzz::Crc(fuzz::BytesOf(record).substr(0, kChecked));
        bootfail.replace(kAt, sizeof(record), fuzz::BytesOf(record));
    }
    const std::string userType = input.Line();
    fuzz::Write(fuzz::kPartitions + "rawdump",
                (flags & kNoRawdump) != 0 ? std::nullopt : std::optional(rawdump));
    fuzz::Write(fuzz::kPartitions + "bootfail_info",
                (flags & kNoBootfail) != 0 ? std::nullopt : std::optional(bootfail));
    fuzz::Write(fuzz::kProperties, kUserTypeProperty + "=" + userType + "\n");
    const auto header = fuzz::RecordOf<ReasonHeader>(rawdump);

    fulldump_header expected = {};
    bool isUsable = (flags & kNoRawdump) == 0;
    if ((flags & kNoBootfail) == 0 && IsUsable(record, header)) {
        isUsable = true;
        expected = record;
        if (!userType.empty() && userType[0] != static_cast<char>(record.userType)) {
            expected.userType = static_cast<uint8_t>(userType[0]);
            expected.crc = fuzz::Crc(fuzz::BytesOf(expected).substr(0, kChecked));
            bootfail.replace(kAt, sizeof(expected), fuzz::BytesOf(expected));
        }
    } else if (header.fulldumpReservedFlag == 0x3B5D2957) {
        expected.reservedFlag = 0x3B5D2957;
        expected.dumpOffset = header.fulldumpOffset;
        expected.dumpSize = 0x420000000;
    }
    fulldump_header meta = {};
    RainbowHandle handle;
    Require(handle.RainbowInit() == ((flags & kNoRawdump) == 0), "a header is read if it is there");
    Require(handle.InitFullDumpMetaInfo(meta) == isUsable, "a record is in hand");
    Require(fuzz::BytesOf(meta) == fuzz::BytesOf(expected), "the record in hand");
    Require(fuzz::Read(fuzz::kPartitions + "rawdump") == rawdump, "rawdump stays");
    Require(
        (flags & kNoBootfail) != 0 || fuzz::Read(fuzz::kPartitions + "bootfail_info") == bootfail,
        "only user type and CRC of the record change");
    return 0;
}
