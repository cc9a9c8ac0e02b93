// The records that the boot chain and the daemon exchange through raw partitions: one packed struct
// each, all integers little-endian, with the layout drawn above it. Offsets and sizes of the
// regions of each partition stand here as well, and nowhere else in the daemon.
#pragma once

#include <stddef.h>
#include <stdint.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the records are read in place and are little-endian");

// A magic word: four characters taken as one 32-bit number, first character highest. On the
// partition its bytes therefore appear in reverse order.
constexpr uint32_t MagicWord(const char (&text)[5]) {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) {
        word = (word << 8) | static_cast<uint8_t>(text[i]);
    }
    return word;
}

constexpr uint32_t kResetNormal = MagicWord("NMAL");    // innerResetReason
constexpr uint32_t kResetAbnormal = MagicWord("ABNM");  // innerResetReason
constexpr uint32_t kResetWarm = MagicWord("WARM");      // resetType
constexpr uint32_t kTextValid = MagicWord("VALD");      // mreasonStrFlag, sreasonStrFlag

// The dump area in userdata is reserved and holds a full dump. On the partition: "W)];".
constexpr uint32_t kFulldumpReserved = MagicWord(";])W");

constexpr uint32_t kNormalBootLevel = 1;    // what the daemon writes with a reason of its own
constexpr uint32_t kAbnormalBootLevel = 2;  // this level and above: there are logs to save

// Reason header, at offset 0 of rawdump:
//
//     0  corvel value                    392  full dump offset in userdata  \  full dump
//     8  reason node (320 bytes)         400  reserve flag                   > descriptor,
//   328  reserved                        404  user type (8 bytes)           |  24 bytes,
//                                        412  reserved                      /  to 416
//                                        456  board id magic
//                                        464  board id
//                                        468  reserved, to 472
//
// Reason node, offsets from the start of the header:
//
//     8  reserved              24  mreasonStrFlag    40  mreasonStr  (32 bytes)
//    12  innerResetReason      28  sreasonStrFlag    72  sreasonStr (128 bytes)
//    16  resetType             32  reserved         200  reserved   (128 bytes), to 328
//    20  bootLevel
//
// Texts should end in a NUL; reading does not rely on it.
struct __attribute__((packed)) ReasonNode {
    uint8_t reserved0[4];
    uint32_t innerResetReason;  // kResetNormal or kResetAbnormal; anything else: no reason here
    uint32_t resetType;         // kResetWarm: the reason was written before the daemon ran
    uint32_t bootLevel;
    uint32_t mreasonStrFlag;  // kTextValid, or the node holds no reason
    uint32_t sreasonStrFlag;  // kTextValid when sreasonStr holds a text
    uint8_t reserved1[8];
    char mreasonStr[32];   // category: "NORMALBOOT", "HARDWARE_FAULT", "UNKNOWN" or the writer's
    char sreasonStr[128];  // detail
    uint8_t reserved2[128];
};
static_assert(sizeof(ReasonNode) == 320);

struct __attribute__((packed)) ReasonHeader {
    uint64_t corvel;  // see the corvel bits below
    ReasonNode reasonNode;
    uint8_t reserved0[64];
    uint64_t fulldumpOffset;        // bytes from the start of userdata
    uint32_t fulldumpReservedFlag;  // kFulldumpReserved when a dump is waiting
    char userType[8];               // zero-padded; a value of 8 or more has no NUL
    uint8_t reserved1[44];
    uint32_t boardIdMagic;  // kBoardIdMagic once boardId was stored
    uint8_t reserved2[4];
    uint32_t boardId;
    uint8_t reserved3[4];
};
static_assert(sizeof(ReasonHeader) == 472);
static_assert(offsetof(ReasonHeader, corvel) == 0);
static_assert(offsetof(ReasonHeader, reasonNode) == 8);
static_assert(offsetof(ReasonHeader, reasonNode.innerResetReason) == 12);
static_assert(offsetof(ReasonHeader, reasonNode.resetType) == 16);
static_assert(offsetof(ReasonHeader, reasonNode.bootLevel) == 20);
static_assert(offsetof(ReasonHeader, reasonNode.mreasonStrFlag) == 24);
static_assert(offsetof(ReasonHeader, reasonNode.sreasonStrFlag) == 28);
static_assert(offsetof(ReasonHeader, reasonNode.mreasonStr) == 40);
static_assert(offsetof(ReasonHeader, reasonNode.sreasonStr) == 72);
static_assert(offsetof(ReasonHeader, fulldumpOffset) == 392);
static_assert(offsetof(ReasonHeader, fulldumpReservedFlag) == 400);
static_assert(offsetof(ReasonHeader, userType) == 404);
static_assert(offsetof(ReasonHeader, boardIdMagic) == 456);
static_assert(offsetof(ReasonHeader, boardId) == 464);

constexpr uint32_t kBoardIdMagic = 0x0B0A1D1D;

// Corvel value, the first eight bytes of the reason header:
//
//    63      48 47 46 45                            0
//   +----------+--+--+-------------------------------+
//   | tag 434F | 0|C |            payload            |    C: corrected mark
//   +----------+--+--+-------------------------------+
constexpr uint64_t kCorvelCorrected = uint64_t{1} << 46;
constexpr uint64_t kCorvelTag = uint64_t{0x434F} << 48;
constexpr uint64_t kCorvelPayload = kCorvelCorrected - 1;

// Full dump descriptor, the short form of the meta record: bytes 392 to 415 of the reason header.
struct __attribute__((packed)) FulldumpDescriptor {
    uint64_t offset;        // bytes from the start of userdata
    uint32_t reservedFlag;  // kFulldumpReserved when a dump is waiting
    uint8_t reserved[12];
};
static_assert(sizeof(FulldumpDescriptor) == 24);
static_assert(offsetof(FulldumpDescriptor, offset) == 0);
static_assert(offsetof(FulldumpDescriptor, reservedFlag) == 8);
// The user type lies inside the descriptor's reserved bytes.
static_assert(offsetof(ReasonHeader, userType) == offsetof(ReasonHeader, fulldumpOffset) + 12);

// Full dump meta record, at offset 1024 of bootfail_info:
//
//     0  magic "ZZZZ"      8  reserve flag       32  dump size, bytes
//     4  reserved         12  reserved           40  reserved
//     5  magic tail "Z"   16  dump offset        48  CRC-32/MPEG-2 of bytes 0 to 47
//     6  user type        24  reserved           52  reserved, to 56
//     7  reserved
struct __attribute__((packed)) fulldump_header {
    uint32_t magic;     // kFulldumpMagic
    uint8_t reserved0;  // takes no part in the test of the magic
    uint8_t magicTail;  // kFulldumpMagicTail
    uint8_t userType;   // first character of the user type property
    uint8_t reserved1;
    uint32_t reservedFlag;  // kFulldumpReserved when a dump is waiting
    uint8_t reserved2[4];
    uint64_t dumpOffset;  // bytes from the start of userdata
    uint8_t reserved3[8];
    uint64_t dumpSize;  // bytes
    uint8_t reserved4[8];
    uint32_t crc;
    uint8_t reserved5[4];
};
static_assert(sizeof(fulldump_header) == 56);
static_assert(offsetof(fulldump_header, magic) == 0);
static_assert(offsetof(fulldump_header, magicTail) == 5);
static_assert(offsetof(fulldump_header, userType) == 6);
static_assert(offsetof(fulldump_header, reservedFlag) == 8);
static_assert(offsetof(fulldump_header, dumpOffset) == 16);
static_assert(offsetof(fulldump_header, dumpSize) == 32);
static_assert(offsetof(fulldump_header, crc) == 48);

constexpr uint32_t kFulldumpMagic = MagicWord("ZZZZ");
constexpr uint8_t kFulldumpMagicTail = 'Z';
constexpr uint8_t kFulldumpCrcLength = offsetof(fulldump_header, crc);

// Size assumed for a full dump whose meta record was rebuilt from the descriptor, which names none:
// 16.5 GiB.
constexpr uint64_t kFulldumpRebuiltSize = 17716740096;

// Dump header, the first bytes of a minidump region and of a full dump. Only `flag` has a meaning
// here; the other fields belong to the producer of the dump. word64b and word64c are unaligned.
//
//     0  text (8)      16  word64a     36  word64b
//     8  word32a       24  text (8)    44  word64c
//    12  flag          32  word32b     52  word32c, to 56
struct __attribute__((packed)) DumpHeader {
    char text0[8];
    uint32_t word32a;
    uint32_t flag;  // kDumpPresent: a dump is waiting
    uint64_t word64a;
    char text1[8];
    uint32_t word32b;
    uint64_t word64b;
    uint64_t word64c;
    uint32_t word32c;
};
static_assert(sizeof(DumpHeader) == 56);
static_assert(offsetof(DumpHeader, word32a) == 8);
static_assert(offsetof(DumpHeader, flag) == 12);
static_assert(offsetof(DumpHeader, word64a) == 16);
static_assert(offsetof(DumpHeader, text1) == 24);
static_assert(offsetof(DumpHeader, word32b) == 32);
static_assert(offsetof(DumpHeader, word64b) == 36);
static_assert(offsetof(DumpHeader, word64c) == 44);
static_assert(offsetof(DumpHeader, word32c) == 52);

constexpr uint32_t kDumpPresent = 1;  // bit 0 of DumpHeader::flag

// A mode names a partition, and with it the dump in that partition: rawdump holds the minidump,
// userdata the full dump. Every other value means bootfail_info.
constexpr uint8_t kModeRawdump = 0;
constexpr uint8_t kModeUserdata = 1;
constexpr uint8_t kModeBootfail = 2;

// A byte range of a partition.
struct Region {
    int64_t offset;
    int64_t size;
};

// rawdump. The kernel log's range overlaps the first 512 KiB of the TrustZone log's; both are taken
// at their full size.
constexpr Region kReasonHeaderRegion = {0, sizeof(ReasonHeader)};
constexpr Region kFulldumpDescriptorRegion = {offsetof(ReasonHeader, fulldumpOffset),
                                              sizeof(FulldumpDescriptor)};
constexpr Region kXblAblRegion = {0x80000, 0x40000};
constexpr Region kLastXblAblRegion = {0xC0000, 0x40000};
constexpr Region kLastKmsgRegion = {0x200000, 0x180000};
constexpr Region kTzLogRegion = {0x300000, 0x100000};
constexpr Region kMinidumpRegion = {0x400000, 0x1C00000};

// bootfail_info
constexpr Region kFulldumpMetaRegion = {1024, sizeof(fulldump_header)};
