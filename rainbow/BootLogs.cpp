// Saves the boot logs of rawdump as text files in this boot's folder: copies the region, extracts
// its printable strings through the shell, flushes them and removes the copy.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "common/VortaUtils.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

using android::base::unique_fd;

namespace {

// The raw copy was written with O_SYNC, but the shell leaves the text in memory: with the copy
// gone, a power cut seconds later could leave an empty file. A text that cannot be opened, normally
// because the shell made none, is nothing to flush. False, after a log line, if the flush failed.
bool FlushText(const std::string& path, const char* operation) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.ok() && fsync(fd.get()) != 0) {
        const int error = errno;
        VortaLogE("[%s] fsync errno = %d", operation, error);
        return false;
    }
    return true;
}

}  // namespace

void RainbowHandle::XblAblLogUpdate() {
    VortaLogD("------xbl_abl log file update beginning...");
    // The previous boot's log is not tried when this boot's could not be copied.
    if (SaveBootLog(kXblAblName, kXblAblRegion, "XblAblLogUpdate") &&
        SaveBootLog(kLastXblAblName, kLastXblAblRegion, "XblAblLogUpdate")) {
        VortaLogD("------xbl_abl log file update end...");
    }
}

void RainbowHandle::LastkmsgUpdate() {
    VortaLogD("------lastkmsg log file update beginning...");
    (void)SaveBootLog(kLastKmsgName, kLastKmsgRegion, "LastkmsgUpdate");
}

void RainbowHandle::TzLogUpdate() {
    VortaLogD("------tz log file update beginning...");
    if (SaveBootLog(kTzLogName, kTzLogRegion, "TzLogUpdate")) {
        VortaLogD("------mini log log file update end...");
    }
}

// Returns whether the region was copied, whatever came of its conversion to text. The raw copy
// stays if it is incomplete, if the conversion could not be started, or if the text could not be
// flushed.
bool RainbowHandle::SaveBootLog(const std::string& name, const Region& region,
                                const char* operation) {
    const std::string finalPath = BootFolder(kModeRawdump, recordTime) + "/" + name;
    std::string tmpPath;
    unique_fd fd(DumpFileCreate(tmpPath, recordTime + "/" + name + kTmpSuffix, kModeRawdump));
    if (!fd.ok()) {
        return false;
    }
    const int copied = PartToEmmc(fd.get(), region.offset, region.size, kModeRawdump);
    fd.reset();  // closed before the shell reads it
    if (copied < 0) {
        return false;
    }
    if (!FileErrCodeDele(finalPath, tmpPath).empty() && FlushText(finalPath, operation)) {
        DirOrFileRemove(tmpPath);
    }
    return true;
}
