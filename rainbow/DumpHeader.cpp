// The dump header that says whether a dump is waiting, and the files that collected data goes to.
#include <errno.h>
#include <fcntl.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

static_assert(kDumpTypeMini == kModeRawdump && kDumpTypeFull == kModeUserdata,
              "a dump type is the mode of its partition");

int64_t HeaderOffset(uint8_t dumpType, int64_t fulldumpOffset) {
    return dumpType == kDumpTypeMini ? kMinidumpRegion.offset : fulldumpOffset;
}

// The text of a debug message, which is never output.
void ShowHeader(const DumpHeader& header) {
    VortaLogD("%s %u %u\n%lu %s %u\n%lu %lu %u", static_cast<const char*>(header.text0),
              header.word32a, header.flag, header.word64a, static_cast<const char*>(header.text1),
              header.word32b, header.word64b, header.word64c, header.word32c);
}

}  // namespace

bool RainbowHandle::IsDumpPartValid(uint8_t dumpType) {
    const int64_t offset = HeaderOffset(dumpType, fulldumpOffset);
    if (PartCommonRW(offset, dumpHeader, sizeof(DumpHeader), kRead, dumpType) < 0) {
        VortaLogE("[%s] PartCommonRW return fail", "IsDumpPartValid");
        return false;
    }
    if (dumpType == kDumpTypeFull) {
        ShowHeader(*dumpHeader);
    }
    if ((dumpHeader->flag & kDumpPresent) != 0) {
        VortaLogD("[%s] dump record in part", "IsDumpPartValid");
        return true;
    }
    VortaLogE("[%s] no dump record, flag is %u", "IsDumpPartValid", uint32_t{dumpHeader->flag});
    return false;
}

void RainbowHandle::UpdatePartDumpHeader(uint8_t dumpType) {
    // The whole record goes, not only the flag: that marks the dump as collected.
    if (memset_s(dumpHeader, sizeof(DumpHeader), 0, sizeof(DumpHeader)) != 0) {
        VortaLogE("[%s] dumpHeader memset_s fail", "UpdatePartDumpHeader");
    }
    const int64_t offset = HeaderOffset(dumpType, fulldumpOffset);
    if (PartCommonRW(offset, dumpHeader, sizeof(DumpHeader), kWrite, dumpType) < 0) {
        VortaLogE("[%s] update dump header part fail", "UpdatePartDumpHeader");
    } else {
        VortaLogD("[%s] update dump header part succ", "UpdatePartDumpHeader");
    }
}

int RainbowHandle::DumpFileCreate(std::string& path, const std::string& name, uint8_t dumpType) {
    path = DumpRoot(dumpType) + "/" + name;
    // No truncation: what a crashed run left in a file of this name is overwritten in place.
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_SYNC, kCreationMode);
    if (fd < 0) {
        VortaLogE("[%s] open file %s errno = %d", "DumpFileCreate", path.c_str(), errno);
        return fd;
    }
    DirOrFileSetPerm(fd, kFileMode, kOwner, kGroup);
    VortaLogD("[%s] %s create succ", "DumpFileCreate", path.c_str());
    return fd;
}
