// Turns what the previous run left in the raw partitions into files: which dumps are saved after
// which kind of boot, and in which order.
#include <unistd.h>

#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

uint8_t abnormalBootFlag = 0;

namespace {

// Closes `fd` unless it is 0, an exception that no owner makes. main() has taken 0, so that no file
// gets it.
void CloseFile(int fd) {
    if (fd >= 1) {
        (void)close(fd);
    }
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

void RainbowHandle::DumpFileUpdate(uint8_t mode) {
    VortaLogD("------dump log file update beginning...");
    if (mode == kModeRawdump) {
        CollectAbnormalBoot();
    } else if (mode == kModeUserdata && !isCommercial) {
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
    if (DumpDirOpen(kModeRawdump) < 0) {
        return;
    }
    XblAblLogUpdate();
    // From here on the same reboot is not reported twice. The price: a run that is cut off below
    // loses the kernel and TrustZone logs.
    UpdatePartReasonHeader();
    LastkmsgUpdate();
    TzLogUpdate();

    // A commercial build keeps a minidump only with the remote permission.
    if ((isRemoteValid || !isCommercial) && IsDumpPartValid(kModeRawdump)) {
        SaveMiniDump(kModeRawdump);
    }
    // The marker comes last. It says that the collection ran to its end, not that each copy
    // succeeded.
    std::string markerPath;
    CloseFile(DumpFileCreate(markerPath, recordTime + "/" + kDoneName, kModeRawdump));
}

void RainbowHandle::CollectFullDump() {
    if (!IsFulldumpOffsetValid()) {
        VortaLogE("[%s] get fulldump offset failed", "DumpFileUpdate");
        return;
    }
    if (!IsDumpPartValid(kModeUserdata)) {
        VortaLogE("[%s] fulldump part is invalid", "DumpFileUpdate");
        return;
    }
    // At most one full dump is kept. The earlier one goes before size and free space are checked,
    // so that it is lost even if the new one cannot be saved.
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
    const int fd = DumpFileCreate(fulldumpPath, recordTime + "-" + kFulldumpName, kModeUserdata);
    if (fd < 0) {
        VortaLogE("[%s] DumpFileCreate return fail", "DumpFileUpdate");
        return;
    }
    if (PartToEmmc(fd, fulldumpOffset, fulldumpSize, kModeUserdata) < 0) {
        VortaLogE("[%s] PartToEmmc return fail", "DumpFileUpdate");
    } else {
        ClearHeaderOnceStored(fd, kModeUserdata, "DumpFileUpdate");
        // Unlike the other marker, this one lies directly in the root folder, and its path replaces
        // the dump's.
        CloseFile(DumpFileCreate(fulldumpPath, kDoneName, kModeUserdata));
    }
    CloseFile(fd);
}
