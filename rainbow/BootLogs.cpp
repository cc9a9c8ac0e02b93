// The boot logs of rawdump as text files in this boot's folder: a raw copy of the region, its
// printable strings through the shell, and away with the copy.
#include <unistd.h>

#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

void RainbowHandle::XblAblLogUpdate() {
    VortaLogD("------xbl_abl log file update beginning...");
    // The previous boot's log is not tried when this boot's could not be copied.
    if (SaveBootLog(kXblAblName, kXblAblRegion) &&
        SaveBootLog(kLastXblAblName, kLastXblAblRegion)) {
        VortaLogD("------xbl_abl log file update end...");
    }
}

void RainbowHandle::LastkmsgUpdate() {
    VortaLogD("------lastkmsg log file update beginning...");
    (void)SaveBootLog(kLastKmsgName, kLastKmsgRegion);
}

void RainbowHandle::TzLogUpdate() {
    VortaLogD("------tz log file update beginning...");
    if (SaveBootLog(kTzLogName, kTzLogRegion)) {
        VortaLogD("------mini log log file update end...");
    }
}

// True when the region was copied, whatever came of its conversion to text. A copy that failed, and
// one whose conversion could not be started, stays in the folder.
bool RainbowHandle::SaveBootLog(const std::string& name, const Region& region) {
    const std::string finalPath = kDumplogRoot + "/" + recordTime + "/" + name;
    std::string tmpPath;
    const int fd = DumpFileCreate(tmpPath, recordTime + "/" + name + kTmpSuffix, kDumpTypeMini);
    if (fd < 0) {
        return false;
    }
    const int copied = PartToEmmc(fd, region.offset, region.size, kModeRawdump);
    (void)close(fd);
    if (copied < 0) {
        return false;
    }
    if (!FileErrCodeDele(finalPath, tmpPath).empty()) {
        DirOrFileRemove(tmpPath);
    }
    return true;
}
