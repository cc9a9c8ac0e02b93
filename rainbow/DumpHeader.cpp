// The dump header: tells whether a dump is waiting; cleared once the dump is on storage.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"

using android::base::unique_fd;

namespace {

int64_t HeaderOffset(uint8_t mode, int64_t fulldumpOffset) {
    return mode == kModeRawdump ? kMinidumpRegion.offset : fulldumpOffset;
}

// For the debug level, which writes nothing.
void ShowHeader(const DumpHeader& header) {
    VortaLogD("%s %u %u\n%lu %s %u\n%lu %lu %u", static_cast<const char*>(header.text0),
              header.word32a, header.flag, header.word64a, static_cast<const char*>(header.text1),
              header.word32b, header.word64b, header.word64c, header.word32c);
}

// Flushes the names in a folder to storage. Returns 0 or an errno value.
int FlushFolder(const std::string& folder) {
    const unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.ok() && fsync(fd.get()) == 0 ? 0 : errno;
}

}  // namespace

bool RainbowHandle::IsDumpPartValid(uint8_t mode) {
    const int64_t offset = HeaderOffset(mode, fulldumpOffset);
    if (PartCommonRW(offset, dumpHeader, sizeof(DumpHeader), kRead, mode) < 0) {
        VortaLogE("[%s] PartCommonRW return fail", "IsDumpPartValid");
        return false;
    }
    if (mode == kModeUserdata) {
        ShowHeader(*dumpHeader);
    }
    if ((dumpHeader->flag & kDumpPresent) != 0) {
        VortaLogD("[%s] dump record in part", "IsDumpPartValid");
        return true;
    }
    VortaLogE("[%s] no dump record, flag is %u", "IsDumpPartValid", uint32_t{dumpHeader->flag});
    return false;
}

void RainbowHandle::UpdatePartDumpHeader(uint8_t mode) {
    // The whole record, not only its flag: that marks the dump as collected.
    if (memset_s(dumpHeader, sizeof(DumpHeader), 0, sizeof(DumpHeader)) != 0) {
        VortaLogE("[%s] dumpHeader memset_s fail", "UpdatePartDumpHeader");
    }
    const int64_t offset = HeaderOffset(mode, fulldumpOffset);
    if (PartCommonRW(offset, dumpHeader, sizeof(DumpHeader), kWrite, mode) < 0) {
        VortaLogE("[%s] update dump header part fail", "UpdatePartDumpHeader");
    } else {
        VortaLogD("[%s] update dump header part succ", "UpdatePartDumpHeader");
    }
}

// The partition holds the only copy of the dump until the file `fd` is on storage. fsync of the
// file covers its data and its name; the name of the folder that this run made needs fsync of the
// root folder. On f2fs mounted with fsync_mode=nobarrier only the second one also empties the
// storage device's own cache. If either fails, the header stays, and a later run saves the dump
// again: the next boot, or, for a minidump without remote debugging, the next abnormal one.
void RainbowHandle::ClearHeaderOnceStored(int fd, uint8_t mode, const char* operation) {
    const int error = fsync(fd) != 0 ? errno : FlushFolder(DumpRoot(mode));
    if (error != 0) {
        VortaLogE("[%s] fsync errno = %d", operation, error);
        return;
    }
    UpdatePartDumpHeader(mode);
}
