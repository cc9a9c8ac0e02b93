// The dump folders: name, make, walk, measure, prune and remove them.
#include "rainbow/DumpFolders.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"

std::string EntryPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string OldestName(const std::vector<std::string>& names) {
    const auto oldest = std::min_element(names.begin(), names.end());
    return oldest == names.end() ? "" : *oldest;
}

int32_t AddSize(int32_t sum, int64_t size) {
    return static_cast<int32_t>(static_cast<uint32_t>(sum) + static_cast<uint32_t>(size));
}

namespace {

struct CloseDir {
    void operator()(DIR* dir) const { (void)closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, CloseDir>;

UniqueDir OpenDir(const std::string& folder) {
    return UniqueDir(opendir(folder.c_str()));
}

// The next entry except "." and "..", or null at the end. Valid until the next call.
const dirent* NextEntry(const UniqueDir& dir) {
    const dirent* entry = nullptr;
    do {
        entry = readdir(dir.get());
    } while (entry != nullptr &&
             (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0));
    return entry;
}

// The service makes only files and folders; links and special files of others are left alone.
bool IsFileOrFolder(const dirent& entry) {
    return entry.d_type == DT_REG || entry.d_type == DT_DIR;
}

// Calls `visit` with the path of each entry below `folder` that is not a folder, depth first. Paths
// are not collected first: other software writes here too, so their number has no bound.
template <typename Visit>
void WalkFiles(const std::string& folder, const Visit& visit) {
    const UniqueDir dir = OpenDir(folder);
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
    VortaLogE("[%s] readdir is null", "GetDirFiles");  // no error: ends every complete listing
}

}  // namespace

int RainbowHandle::DumpDirOpen(uint8_t mode) {
    const std::string folder = BootFolder(mode, recordTime);
    if (mkdir(folder.c_str(), kFolderMode) != 0) {
        VortaLogE("[%s] mkdir %s err\n", "DumpDirOpen", folder.c_str());
        return -1;
    }
    if (chmod(folder.c_str(), kFolderMode) != 0) {  // mkdir's mode went through the umask
        const int error = errno;
        VortaLogE("[%s] chmod dir %s errno = %d", "DumpDirOpen", folder.c_str(), error);
    }
    if (chown(folder.c_str(), kOwner, kGroup) != 0) {
        const int error = errno;
        VortaLogE("[%s] chown dir %s errno = %d", "DumpDirOpen", folder.c_str(), error);
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

std::string RainbowHandle::DumpFindOldDir(uint8_t mode, uint32_t& count) {
    const UniqueDir dir = OpenDir(DumpRoot(mode));
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "DumpFindOldDir");
        return "";
    }
    std::vector<std::string> names;
    while (const dirent* const entry = NextEntry(dir)) {
        if (IsFileOrFolder(*entry)) {
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
    const std::string name = DumpFindOldDir(kModeRawdump, count);
    if (!name.empty()) {
        // One entry a boot. The trailing "/" makes stat fail for a file, so that the history is
        // never removed here.
        DirOrFileRemove(kDumplogRoot + "/" + name + "/");
    }
}

void RainbowHandle::FullDumpSizeCheck() {
    const UniqueDir dir = OpenDir(kFulldumplogRoot);
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "FullDumpSizeCheck");
        return;
    }
    while (const dirent* const entry = NextEntry(dir)) {
        if (IsFileOrFolder(*entry)) {
            const std::string path = EntryPath(kFulldumplogRoot, entry->d_name);
            VortaLogE("[%s] remove FileName: %s", "FullDumpSizeCheck", path.c_str());
            DirOrFileRemove(path);
        }
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
    UniqueDir dir = OpenDir(path);
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "DirOrFileRemove");
        return;
    }
    while (const dirent* const entry = NextEntry(dir)) {
        DirOrFileRemove(path + "/" + entry->d_name);
    }
    dir.reset();  // closed before it is removed
    (void)rmdir(path.c_str());
}
