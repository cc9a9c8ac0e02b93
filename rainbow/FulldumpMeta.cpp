// The meta record of a reserved full dump: read it from bootfail_info, keep its user type current,
// rebuild it from the descriptor in rawdump when it is missing or stale.
#include <sys/system_properties.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"

static_assert(kFulldumpRebuiltSize == VortaHandle::kMaxCopy,
              "a rebuilt record names the most that can be copied");

bool RainbowHandle::ReadFulldumpMetaInfoFromBootfail(fulldump_header& meta) {
    if (PartCommonRW(kFulldumpMetaRegion.offset, &meta, sizeof(meta), kRead, kModeBootfail) < 0) {
        VortaLogE("[%s] get fulldump header fail", "ReadFulldumpMetaInfoFromBootfail");
        return false;
    }
    if (FulldumpCrc32(reinterpret_cast<const uint8_t*>(&meta), kFulldumpCrcLength) != meta.crc) {
        VortaLogE("[%s] crc check fail", "ReadFulldumpMetaInfoFromBootfail");
        return false;
    }
    return true;
}

void RainbowHandle::WriteFulldumpMetaInfoToBootfail(fulldump_header& meta) {
    meta.crc = FulldumpCrc32(reinterpret_cast<const uint8_t*>(&meta), kFulldumpCrcLength);
    if (PartCommonRW(kFulldumpMetaRegion.offset, &meta, sizeof(meta), kWrite, kModeBootfail) < 0) {
        VortaLogE("[%s] update fulldump bootfail header fail", "WriteFulldumpMetaInfoToBootfail");
    }
}

bool RainbowHandle::UpdateUserType(fulldump_header& meta) {
    char userType[PROP_VALUE_MAX] = {};
    if (property_get(kUserTypeProperty.c_str(), userType, "") < 1) {
        VortaLogE("vorta usertype prop get fail");
        return false;
    }
    const uint8_t current = static_cast<uint8_t>(userType[0]);
    if (meta.userType == current) {
        VortaLogD("[%s] No need to rewrite usertype", "UpdateUserType");
        return false;
    }
    meta.userType = current;
    return true;
}

bool RainbowHandle::IsFulldumpReserved(const fulldump_header& meta) {
    if (meta.reservedFlag == kFulldumpReserved) {
        VortaLogI("[%s] resize flag is set", "IsFulldumpReserved");
        return true;
    }
    VortaLogI("[%s] resize flag is not set", "IsFulldumpReserved");
    return false;
}

// Whether the record read from bootfail_info may be used. An unreserved one is stale when rawdump
// says that a dump is reserved.
bool RainbowHandle::IsMetaInfoValid(const fulldump_header& meta) {
    if (meta.magic != kFulldumpMagic || meta.magicTail != kFulldumpMagicTail) {
        VortaLogE("[%s] no record in bootfail_info partition", "IsMetaInfoValid");
        return false;
    }
    return meta.reservedFlag == kFulldumpReserved ||
           rbHeader->fulldumpReservedFlag != kFulldumpReserved;
}

bool RainbowHandle::InitFullDumpMetaInfo(fulldump_header& meta) {
    if (ReadFulldumpMetaInfoFromBootfail(meta) && IsMetaInfoValid(meta)) {
        if (UpdateUserType(meta)) {
            WriteFulldumpMetaInfoToBootfail(meta);
        }
        return true;
    }
    if (memset_s(&meta, sizeof(meta), 0, sizeof(meta)) != 0) {
        VortaLogE("[%s] dumpHeader memset_s fail", "InitFullDumpMetaInfo");
        return false;
    }
    return ReadFulldumpMetaInfoFromRawdump(meta);
}

// Rebuilds a cleared record from the descriptor, in memory only. Without a reserved dump it stays
// cleared, which is success as well.
bool RainbowHandle::ReadFulldumpMetaInfoFromRawdump(fulldump_header& meta) {
    FulldumpDescriptor descriptor = {};
    if (PartCommonRW(kFulldumpDescriptorRegion.offset, &descriptor, sizeof(descriptor), kRead,
                     kModeRawdump) < 0) {
        VortaLogE("[%s] get fulldump header fail", "ReadFulldumpMetaInfoFromRawdump");
        return false;
    }
    if (descriptor.reservedFlag == kFulldumpReserved) {
        meta.reservedFlag = kFulldumpReserved;
        meta.dumpSize = kFulldumpRebuiltSize;
        meta.dumpOffset = descriptor.offset;
    }
    return true;
}
