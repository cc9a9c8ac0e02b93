// The history of reboots: one line a run.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/HeaderText.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

// The line of one boot; empty if there was no memory for it.
std::string HistoryLine(const std::string& reason, const std::string& time,
                        const std::string& category) {
    char* text = nullptr;
    if (asprintf(&text, kHistoryFormat, reason.c_str(), time.c_str(), category.c_str()) < 0) {
        return "";
    }
    std::string line = text;
    free(text);
    return line;
}

}  // namespace

int RainbowHandle::HistoryFileOpen() {
    historyFilePath = kDumplogRoot + "/" + kHistoryName;
    const int fd =
        open(historyFilePath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_SYNC, kCreationMode);
    const int error = errno;
    historyFd.reset(fd);
    if (!historyFd.ok()) {
        VortaLogE("[%s] open file %s errno = %d", "HistoryFileOpen", historyFilePath.c_str(),
                  error);
        return -1;
    }
    // open() sets the mode of a new file only; an existing one is corrected as well.
    DirOrFileSetPerm(historyFd.get(), kFileMode, kOwner, kGroup);
    return 0;
}

int RainbowHandle::HistoryFileCheck() {
    if (HistoryFileOpen() < 0) {
        return -1;
    }
    struct stat status;
    if (memset_s(&status, sizeof(status), 0, sizeof(status)) != 0) {
        VortaLogE("[%s] logStat memset_s fail", "HistoryFileCheck");
    }
    if (fstat(historyFd.get(), &status) < 0) {
        const int error = errno;
        VortaLogE("[%s] stat %s fail errno = %d", "HistoryFileCheck", historyFilePath.c_str(),
                  error);
        return -1;
    }
    if (status.st_size > kHistoryLimit) {
        VortaLogI("[%s] history.log too big, need renew", "HistoryFileCheck");
        DirOrFileRemove(historyFilePath);
        // Not closed: the removed file's descriptor stays open until the process ends.
        (void)historyFd.release();
        return HistoryFileOpen();
    }
    VortaLogD("[%s] history.log less than the size limit", "HistoryFileCheck");
    return 0;
}

int RainbowHandle::HistoryFileRecord(const std::string& line) {
    if (line.empty()) {
        VortaLogE("invalid input parameter");
        return -1;
    }
    if (!historyFd.ok()) {
        VortaLogE("[%s] historyFd is not valid", "HistoryFileRecord");
        return -1;
    }
    if (lseek(historyFd.get(), 0, SEEK_END) < 0) {
        const int error = errno;
        VortaLogE("[%s] lseek %s fail, errno = %d", "HistoryFileRecord", historyFilePath.c_str(),
                  error);
        return -1;
    }
    if (write(historyFd.get(), line.c_str(), line.size()) < 0) {
        const int error = errno;
        VortaLogE("[%s] write %s fail, errno = %d", "HistoryFileRecord", historyFilePath.c_str(),
                  error);
        return -1;
    }
    VortaLogD("[%s] history.log record succ", "HistoryFileRecord");
    return 0;
}

void RainbowHandle::HistoryFileUpdate() {
    VortaLogD("------history log file update beginning...");
    if (HistoryFileCheck() < 0) {
        return;
    }
    const bool fromPart = IsReasonPartValid();
    std::string reason;
    std::string category;
    if (fromPart) {
        VortaLogI("[%s] reason generate from part", "HistoryFileUpdate");
        reason = GetSreasonFromPart();
        category = HeaderText(*rbHeader, rbHeader->reasonNode.mreasonStr);
    } else {
        VortaLogI("[%s] reason generate from cmdline", "HistoryFileUpdate");
        reason = KeyValueFromCmdline(kSreasonKey);
        category = KeyValueFromCmdline(kRebootReasonKey);
    }
    const std::string line = HistoryLine(reason, recordTime, category);
    if (line.empty()) {
        VortaLogE("[%s] asprintf fail", "HistoryFileUpdate");
        return;
    }
    if (HistoryFileRecord(line) < 0) {
        if (fromPart) {
            return;  // already logged
        }
        VortaLogE("[%s] history file record fail", "HistoryFileUpdate");
    }
    VortaLogI("[%s] history = %s", "HistoryFileUpdate", line.c_str());
    VortaLogD("------history log file update end...");
}
