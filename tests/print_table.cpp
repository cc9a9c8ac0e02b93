// Prints what the daemon's headers say of records, regions, words, names and limits, a line each:
// "NAME VALUE..." under the names that the host tool has for them. A test compares the two.
#include <inttypes.h>
#include <stdio.h>

#include <string>

#include "handle/PartitionRecords.h"
#include "handle/VortaHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

void Print(const std::string& name, uint64_t value) {
    printf("%s %" PRIu64 "\n", name.c_str(), value);
}

void Print(const std::string& name, const Region& region) {
    printf("%s %" PRId64 " %" PRId64 "\n", name.c_str(), region.offset, region.size);
}

void Print(const std::string& name, const std::string& text) {
    printf("%s %s\n", name.c_str(), text.c_str());
}

#define FIELD(record, type, member) \
    Print(record "." #member, Region{offsetof(type, member), sizeof(type::member)})
#define NODE_FIELD(member)          \
    Print("REASON_HEADER." #member, \
          Region{offsetof(ReasonHeader, reasonNode.member), sizeof(ReasonNode::member)})

void PrintReasonHeader() {
    Print("REASON_HEADER", sizeof(ReasonHeader));
    FIELD("REASON_HEADER", ReasonHeader, corvel);
    NODE_FIELD(innerResetReason);
    NODE_FIELD(resetType);
    NODE_FIELD(bootLevel);
    NODE_FIELD(mreasonStrFlag);
    NODE_FIELD(sreasonStrFlag);
    NODE_FIELD(mreasonStr);
    NODE_FIELD(sreasonStr);
    FIELD("REASON_HEADER", ReasonHeader, fulldumpOffset);
    FIELD("REASON_HEADER", ReasonHeader, fulldumpReservedFlag);
    FIELD("REASON_HEADER", ReasonHeader, userType);
    FIELD("REASON_HEADER", ReasonHeader, boardIdMagic);
    FIELD("REASON_HEADER", ReasonHeader, boardId);
}

void PrintDumpRecords() {
    Print("DUMP_HEADER", sizeof(DumpHeader));
    FIELD("DUMP_HEADER", DumpHeader, text0);
    FIELD("DUMP_HEADER", DumpHeader, word32a);
    FIELD("DUMP_HEADER", DumpHeader, flag);
    FIELD("DUMP_HEADER", DumpHeader, word64a);
    FIELD("DUMP_HEADER", DumpHeader, text1);
    FIELD("DUMP_HEADER", DumpHeader, word32b);
    FIELD("DUMP_HEADER", DumpHeader, word64b);
    FIELD("DUMP_HEADER", DumpHeader, word64c);
    FIELD("DUMP_HEADER", DumpHeader, word32c);
    Print("FULLDUMP_META", sizeof(fulldump_header));
    FIELD("FULLDUMP_META", fulldump_header, magic);
    FIELD("FULLDUMP_META", fulldump_header, magicTail);
    FIELD("FULLDUMP_META", fulldump_header, userType);
    FIELD("FULLDUMP_META", fulldump_header, reservedFlag);
    FIELD("FULLDUMP_META", fulldump_header, dumpOffset);
    FIELD("FULLDUMP_META", fulldump_header, dumpSize);
    FIELD("FULLDUMP_META", fulldump_header, crc);
}

void PrintRegions() {
    Print("REASON_REGION", kReasonHeaderRegion);
    Print("REASON_NODE_REGION", Region{offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode)});
    Print("MINIDUMP_REGION", kMinidumpRegion);
    Print("META_REGION", kFulldumpMetaRegion);
    Print("LOG_REGIONS." + kXblAblName, kXblAblRegion);
    Print("LOG_REGIONS." + kLastXblAblName, kLastXblAblRegion);
    Print("LOG_REGIONS." + kLastKmsgName, kLastKmsgRegion);
    Print("LOG_REGIONS." + kTzLogName, kTzLogRegion);
    Print("COPY_CHUNK", VortaHandle::kCopyChunk);
}

void PrintWords() {
    Print("RESET_NORMAL", kResetNormal);
    Print("RESET_ABNORMAL", kResetAbnormal);
    Print("RESET_WARM", kResetWarm);
    Print("TEXT_VALID", kTextValid);
    Print("FULLDUMP_RESERVED", kFulldumpReserved);
    Print("ABNORMAL_LEVEL", kAbnormalBootLevel);
    Print("BOARD_ID_MAGIC", kBoardIdMagic);
    Print("CORVEL_TAG", kCorvelTag);
    Print("CORVEL_CORRECTED", kCorvelCorrected);
    Print("META_MAGIC", kFulldumpMagic);
}

void PrintFiles() {
    Print("PON_LOG", kPmicPonLogPath);
    Print("BOARD_ID", kBoardIdPath);
    Print("FACTORY_LIBRARY", "/vendor/lib64/" + kFactoryLibrary);
    Print("DUMPLOG", kDumplogRoot);
    Print("FULLDUMPLOG", kFulldumplogRoot);
    Print("SHIPMODE", kShipmodePath);
    Print("HISTORY_NAME", kHistoryName);
    Print("RAWDUMP_NAME", kRawdumpName);
    Print("TMP_DUMP_NAME", kTmpDumpName);
    Print("FULLDUMP_NAME", kFulldumpName);
    Print("DONE_NAME", kDoneName);
    Print("TMP_SUFFIX", kTmpSuffix);
    Print("HISTORY_TEXTS", kHistoryFormat);  // ends its line
    Print("OWNER", kOwner);
    Print("GROUP", kGroup);
    Print("FILE_MODE", kFileMode);
    Print("FOLDER_MODE", kFolderMode);
    Print("HISTORY_LIMIT", kHistoryLimit);
    Print("DUMPLOG_LIMITS.commercial", kDumplogLimitCommercial);
    Print("DUMPLOG_LIMITS.internal", kDumplogLimit);
}

}  // namespace

int main() {
    PrintReasonHeader();
    PrintDumpRecords();
    PrintRegions();
    PrintWords();
    PrintFiles();
}
