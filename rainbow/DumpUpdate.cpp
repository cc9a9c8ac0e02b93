// Turns what the previous run left in the raw partitions into files: which dumps are saved after
// which kind of boot, and in which order.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "common/VortaUtils.h"
#include "rainbow/DumpFolders.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

uint8_t abnormalBootFlag = 0;

namespace {

// The descriptor 0 is left open: the test is for 1 or more.
void CloseFile(int fd) {
    if (fd >= 1) {
        (void)close(fd);
    }
}

// Puts the names in a folder on storage: 0, or -1 with errno.
int FlushFolder(const std::string& folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const int result = fsync(fd);
    (void)close(fd);
    return result;
}

}  // namespace

bool RainbowHandle::IsNormalBoot() {
    if (rbHeader->reasonNode.bootLevel >= kAbnormalBootLevel) {
        VortaLogI("[%s] is abnormal boot", "IsNormalBoot");
        abnormalBootFlag = 1;
        return false;
    }
    VortaLogI("[%s] is normal boot", "IsNormalBoot");
    return true;
}

void RainbowHandle::DumpFileUpdate(uint8_t kind) {
    VortaLogD("------dump log file update beginning...");
    if (kind == kDumpTypeMini) {
        CollectAbnormalBoot();
    } else if (kind == kDumpTypeFull && !isCommercial) {
        CollectFullDump();
    } else {
        VortaLogE("[%s] updateType or dumppart is invalid", "DumpFileUpdate");
    }
    VortaLogD("------dump log file update end...");
}

void RainbowHandle::CollectAbnormalBoot() {
    if (IsNormalBoot()) {
        return;
    }
    DumpSizeCheck();  // make room first
    if (DumpDirOpen(kDumpTypeMini) < 0) {
        return;
    }
    XblAblLogUpdate();
    // From here on the same reboot is not reported twice. The price: a run that is cut off below
    // loses the kernel and TrustZone logs.
    UpdatePartReasonHeader();
    LastkmsgUpdate();
    TzLogUpdate();

    // A commercial build keeps a minidump only with the remote permission.
    if ((isRemoteValid || !isCommercial) && IsDumpPartValid(kDumpTypeMini)) {
        SaveMiniDump(kDumpTypeMini);
    }
    // Last: the run came this far. It does not say that each copy succeeded.
    std::string markerPath;
    CloseFile(DumpFileCreate(markerPath, recordTime + "/" + kDoneName, kDumpTypeMini));
}

void RainbowHandle::CollectFullDump() {
    if (!IsFulldumpOffsetValid()) {
        VortaLogE("[%s] get fulldump offset failed", "DumpFileUpdate");
        return;
    }
    if (!IsDumpPartValid(kDumpTypeFull)) {
        VortaLogE("[%s] fulldump part is invalid", "DumpFileUpdate");
        return;
    }
    // At most one full dump is ever kept. Size and room come later: a dump that then cannot be
    // saved costs the one before.
    FullDumpSizeCheck();
    fulldumpSize = static_cast<int64_t>(fulldumpMeta.dumpSize);
    if (fulldumpSize == 0) {
        VortaLogE("[%s] get ddrSize failed", "DumpFileUpdate");
        return;
    }
    if (!IsDataPartEnough()) {
        VortaLogE("[%s] Data Part Is Not Enough", "DumpFileUpdate");
        return;
    }
    const int fd = DumpFileCreate(fulldumpPath, recordTime + "-" + kFulldumpName, kDumpTypeFull);
    if (fd < 0) {
        VortaLogE("[%s] DumpFileCreate return fail", "DumpFileUpdate");
        return;
    }
    if (PartToEmmc(fd, fulldumpOffset, fulldumpSize, kDumpTypeFull) < 0) {
        VortaLogE("[%s] PartToEmmc return fail", "DumpFileUpdate");
    } else {
        ClearHeaderOnceStored(fd, kDumpTypeFull, "DumpFileUpdate");
        // Unlike the other marker, this one lies directly in the root folder, and its path replaces
        // the dump's.
        CloseFile(DumpFileCreate(fulldumpPath, kDoneName, kDumpTypeFull));
    }
    CloseFile(fd);
}

void RainbowHandle::SaveMiniDump(uint8_t kind) {
    const int tmpFd = DumpFileCreate(tmpDumpPath, recordTime + "/" + kTmpDumpName, kind);
    if (tmpFd < 0) {
        return;
    }
    if (PartToEmmc(tmpFd, kMinidumpRegion.offset, kMinidumpRegion.size, kind) < 0) {
        (void)close(tmpFd);
        return;
    }
    const int rawFd = DumpFileCreate(rawdumpPath, recordTime + "/" + kRawdumpName, kind);
    if (rawFd < 0) {
        (void)close(tmpFd);
        return;
    }
    if (DumpFileCompress() >= 0) {
        ClearHeaderOnceStored(rawFd, kind, "SaveMiniDump");
    }
    (void)close(tmpFd);
    (void)close(rawFd);
}

// The dump in the partition is the only copy until the file that replaces it is on storage. Without
// that the header stays, for the next run that looks at it: the next boot, or for a minidump
// without remote debugging the next abnormal one. The file's flush covers its content and its name;
// the name of the folder that this run made for it stands in the root folder and is flushed there.
void RainbowHandle::ClearHeaderOnceStored(int fd, uint8_t kind, const char* operation) {
    if (fsync(fd) != 0 || FlushFolder(DumpRoot(kind)) != 0) {
        VortaLogE("[%s] fsync errno = %d", operation, errno);
        return;
    }
    UpdatePartDumpHeader(kind);
}
