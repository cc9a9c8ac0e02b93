// The dump folders: make, list, measure, prune and remove them, set modes, pack the minidump.
#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/DirEntries.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

constexpr size_t kPackChunk = 128;
// What the streams on both sides of that chunk gather. With their defaults, a page and 8 KiB,
// packing takes forty times as many system calls.
constexpr size_t kPackGather = 131072;

// Packs all of `in`. A read error ends it like the end of the file. Only a negative result is a
// failure, and zlib answers 0 even when the disk is full: see docs/hazards.md.
bool PackStream(FILE* in, gzFile out) {
    char buffer[kPackChunk] = {};
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof(buffer), in)) > 0) {
        if (gzwrite(out, buffer, static_cast<unsigned>(n)) < 0) {
            VortaLogE("[%s] gzwrite file errno = %d", "DumpFileCompress", errno);
            return false;
        }
        if (memset_s(buffer, sizeof(buffer), 0, sizeof(buffer)) != 0) {
            VortaLogE("[%s] buf memset_s fail", "DumpFileCompress");
        }
    }
    return true;
}

// Hands `visit` the full path of each entry below `folder` that is no folder, depth first. Nothing
// is gathered on the way: how much there is below the dump folder is up to others.
template <typename Visit>
void WalkFiles(const std::string& folder, const Visit& visit) {
    const UniqueDir dir(opendir(folder.c_str()));
    if (dir == nullptr) {
        return;
    }
    while (const dirent* const entry = NextEntry(dir)) {
        const std::string path = EntryPath(folder, entry->d_name);
        if (entry->d_type == DT_DIR) {
            WalkFiles(path, visit);
        } else {
            visit(path);
        }
    }
    VortaLogE("[%s] readdir is null", "GetDirFiles");  // the end of every listing
}

}  // namespace

int RainbowHandle::DumpDirOpen(uint8_t dumpType) {
    const std::string folder = DumpRoot(dumpType) + "/" + recordTime;
    if (mkdir(folder.c_str(), kFolderMode) != 0) {
        VortaLogE("[%s] mkdir %s err\n", "DumpDirOpen", folder.c_str());
        return -1;
    }
    if (chmod(folder.c_str(), kFolderMode) != 0) {  // mkdir's mode went through the umask
        VortaLogE("[%s] chmod dir %s errno = %d", "DumpDirOpen", folder.c_str(), errno);
    }
    if (chown(folder.c_str(), kOwner, kGroup) != 0) {
        VortaLogE("[%s] chown dir %s errno = %d", "DumpDirOpen", folder.c_str(), errno);
    }
    VortaLogD("[%s] mkdir dump dir %s succ", "DumpDirOpen", folder.c_str());
    return 0;
}

void RainbowHandle::GetDirFiles(const std::string& folder, std::vector<std::string>& files) {
    WalkFiles(folder, [&files](const std::string& path) { files.push_back(path); });
}

int32_t RainbowHandle::GetFolderSize(const std::string& folder) {
    struct stat status;
    if (memset_s(&status, sizeof(status), 0, sizeof(status)) != 0) {
        VortaLogE("[%s] statbuf memset_s fail", "GetFolderSize");
    }
    int32_t sum = 0;
    WalkFiles(folder, [&status, &sum](const std::string& path) {
        if (stat(path.c_str(), &status) == 0) {
            sum = AddSize(sum, status.st_size);
        }
    });
    return sum;
}

std::string RainbowHandle::DumpFindOldDir(uint8_t dumpType, uint32_t& count) {
    const UniqueDir dir(opendir(DumpRoot(dumpType).c_str()));
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "DumpFindOldDir");
        return "";
    }
    std::vector<std::string> names;
    while (const dirent* const entry = NextEntry(dir)) {
        if (entry->d_type == DT_REG || entry->d_type == DT_DIR) {
            VortaLogD("[%s] dirname = %s", "DumpFindOldDir",
                      static_cast<const char*>(entry->d_name));
            names.emplace_back(entry->d_name);
            ++count;
        }
    }
    if (names.empty()) {
        return "";
    }
    std::string oldest = OldestName(names);
    VortaLogI("[%s] need delete old dir = %s", "DumpFindOldDir", oldest.c_str());
    return oldest;
}

void RainbowHandle::DumpSizeCheck() {
    const int32_t size = GetFolderSize(kDumplogRoot);
    VortaLogI("[%s] dumplog folderSize %d", "DumpSizeCheck", size);
    if (size <= DumplogLimit(isCommercial)) {
        VortaLogD("[%s] dumplog less than the size limit", "DumpSizeCheck");
        return;
    }
    VortaLogI("[%s] dumplog too big, need delete old file", "DumpSizeCheck");
    uint32_t count = 0;
    const std::string name = DumpFindOldDir(kDumpTypeMini, count);
    if (!name.empty()) {
        // One entry a boot. The trailing "/" keeps a file, such as the history, from being removed.
        DirOrFileRemove(kDumplogRoot + "/" + name + "/");
    }
}

void RainbowHandle::DirOrFileRemove(const std::string& path) {
    if (path.empty()) {
        return;
    }
    struct stat status;
    if (memset_s(&status, sizeof(status), 0, sizeof(status)) != 0) {
        VortaLogE("[%s] dirStat memset_s fail", "DirOrFileRemove");
    }
    if (stat(path.c_str(), &status) != 0) {
        VortaLogE("[%s] stat %s error or not exist", "DirOrFileRemove", path.c_str());
        return;
    }
    if (S_ISREG(status.st_mode)) {
        (void)remove(path.c_str());
        return;
    }
    if (!S_ISDIR(status.st_mode)) {
        VortaLogE("[%s] unknow file type", "DirOrFileRemove");
        return;
    }
    UniqueDir dir(opendir(path.c_str()));
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "DirOrFileRemove");
        return;
    }
    while (const dirent* const entry = NextEntry(dir)) {
        DirOrFileRemove(path + "/" + entry->d_name);
    }
    dir.reset();
    (void)rmdir(path.c_str());
}

void RainbowHandle::DirOrFileSetPerm(int fd, int mode, int user, int group) {
    if (fd < 0) {
        return;
    }
    if (fchmod(fd, static_cast<mode_t>(mode)) != 0) {
        VortaLogE("[%s] fchmod file errno = %d", "DirOrFileSetPerm", errno);
    }
    if (fchown(fd, static_cast<uid_t>(user), static_cast<gid_t>(group)) != 0) {
        VortaLogE("[%s] fchown file errno = %d", "DirOrFileSetPerm", errno);
    }
}

int RainbowHandle::DumpFileCompress() {
    FILE* const in = fopen(tmpDumpPath.c_str(), "rb");
    if (in == nullptr) {
        return -1;
    }
    const gzFile out = gzopen(rawdumpPath.c_str(), "wb");
    if (out == nullptr) {
        (void)fclose(in);
        return -1;
    }
    char gathered[kPackGather];
    (void)setvbuf(in, gathered, _IOFBF, sizeof(gathered));
    (void)gzbuffer(out, kPackGather);
    const bool packed = PackStream(in, out);
    (void)fclose(in);
    (void)gzclose(out);
    if (!packed) {
        return -1;
    }
    VortaLogE("[%s] gzwrite file succ", "DumpFileCompress");  // wanted in the error log
    DirOrFileRemove(tmpDumpPath);
    return 0;
}
