// Makes the files that collected data goes to; sets mode and owner, of the history log as well.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/VortaUtils.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

int RainbowHandle::DumpFileCreate(std::string& path, const std::string& name, uint8_t mode) {
    path = DumpRoot(mode) + "/" + name;
    // No truncation: what a crashed run left in a file of this name is overwritten in place.
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_SYNC, kCreationMode);
    if (fd < 0) {
        const int error = errno;
        VortaLogE("[%s] open file %s errno = %d", "DumpFileCreate", path.c_str(), error);
        return fd;
    }
    DirOrFileSetPerm(fd, kFileMode, kOwner, kGroup);
    VortaLogD("[%s] %s create succ", "DumpFileCreate", path.c_str());
    return fd;
}

void RainbowHandle::DirOrFileSetPerm(int fd, int permissions, int user, int group) {
    if (fd < 0) {
        return;
    }
    if (fchmod(fd, static_cast<mode_t>(permissions)) != 0) {
        const int error = errno;
        VortaLogE("[%s] fchmod file errno = %d", "DirOrFileSetPerm", error);
    }
    if (fchown(fd, static_cast<uid_t>(user), static_cast<gid_t>(group)) != 0) {
        const int error = errno;
        VortaLogE("[%s] fchown file errno = %d", "DirOrFileSetPerm", error);
    }
}
