// Fuzzes the full dump's meta record and the descriptor that replaces it: which of the two is used,
// what it says, and what reaches the partition.
#include "common/VortaUtils.h"
#include "fuzz/Phone.h"
#include "rainbow/RainbowHandle.h"

namespace {

enum Flag : uint8_t { kNoBootfail = 1, kNoRawdump = 2, kRightCrc = 4, kRightMagic = 8 };

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kBehind = 24;  // bytes behind the record, which nobody may touch
    constexpr size_t kAt = 1024;
    fuzz::Input input(data, size);
    const uint8_t flags = input.Byte();
    const std::string rawdump =
        std::string(offsetof(ReasonHeader, fulldumpOffset), 'r') + input.Bytes(80);
    std::string record = input.Bytes(sizeof(fulldump_header) + kBehind);
    if ((flags & kRightMagic) != 0 && record.size() >= 6) {
        record.replace(0, 4, "ZZZZ");
        record[5] = 'Z';
    }
    if ((flags & kRightCrc) != 0 && record.size() >= 52) {
        const uint32_t crc = fuzz::Crc(record.substr(0, 48));
        memcpy(&record[48], &crc, sizeof(crc));
    }
    const std::string userType = input.Line().substr(0, fuzz::kMaxProperty);
    std::string bootfail = std::string(kAt, 'b') + record;
    const bool hasRawdump = (flags & kNoRawdump) == 0;
    const bool hasBootfail = (flags & kNoBootfail) == 0;
    fuzz::Write(fuzz::kRawdump, hasRawdump ? std::optional(rawdump) : std::nullopt);
    fuzz::Write(fuzz::kBootfail, hasBootfail ? std::optional(bootfail) : std::nullopt);
    fuzz::Write(fuzz::kProperties, kUserTypeProperty + "=" + userType + "\n");

    auto expected = fuzz::RecordOf<fulldump_header>(record);
    const auto header = fuzz::RecordOf<ReasonHeader>(hasRawdump ? rawdump : "");
    const bool isDumpReserved = header.fulldumpReservedFlag == 0x3B5D2957;
    const std::string checked = fuzz::BytesOf(expected).substr(0, 48);
    bool usable = true;
    if (hasBootfail && fuzz::Crc(checked) == expected.crc && checked.substr(0, 4) == "ZZZZ" &&
        checked[5] == 'Z' && (expected.reservedFlag == 0x3B5D2957 || !isDumpReserved)) {
        if (!userType.empty() && expected.userType != static_cast<uint8_t>(userType[0])) {
            expected.userType = static_cast<uint8_t>(userType[0]);
            expected.crc = fuzz::Crc(fuzz::BytesOf(expected).substr(0, 48));
            bootfail.replace(kAt, sizeof(expected), fuzz::BytesOf(expected));
        }
    } else {
        expected = {};
        usable = hasRawdump;
        expected.reservedFlag = isDumpReserved ? 0x3B5D2957 : 0;
        expected.dumpOffset = isDumpReserved ? header.fulldumpOffset : 0;
        expected.dumpSize = isDumpReserved ? 0x420000000 : 0;
    }
    {
        RainbowHandle handle;
        fuzz::Require(handle.RainbowInit() == hasRawdump, "the header is read if it is there");
        fulldump_header meta = {};
        fuzz::Require(handle.InitFullDumpMetaInfo(meta) == usable, "a record is in hand");
        fuzz::Require(fuzz::BytesOf(meta) == fuzz::BytesOf(expected), "the record in hand");
        fuzz::Require(handle.IsFulldumpReserved(meta) == (meta.reservedFlag == 0x3B5D2957),
                      "reservation");
    }
    fuzz::Require(fuzz::Read(fuzz::kRawdump) == (hasRawdump ? rawdump : ""), "rawdump's bytes");
    fuzz::Require(fuzz::Read(fuzz::kBootfail) == (hasBootfail ? bootfail : ""), "bootfail's bytes");
    return 0;
}
