// The rainbow service object and the order of its steps.
#include "rainbow/RainbowHandle.h"

#include <stdlib.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/BootReason.h"

namespace {

constexpr char kNoHistoryService[] = "minidump";

}  // namespace

VortaParse* NewRainbowService() {
    return new RainbowHandle();
}

RainbowHandle::RainbowHandle() {
    VortaLogD("RainbowHandle begin");
}

RainbowHandle::~RainbowHandle() {
    free(rbHeader);
    rbHeader = nullptr;
    free(dumpHeader);
    dumpHeader = nullptr;
    VortaLogD("RainbowHandle end");
}

bool RainbowHandle::RainbowInit() {
    rbHeader = static_cast<ReasonHeader*>(malloc(sizeof(ReasonHeader)));
    if (rbHeader == nullptr) {
        VortaLogE("[%s] rbHeader malloc fail", "RainbowInit");
        return false;
    }
    (void)memset_s(rbHeader, sizeof(ReasonHeader), 0, sizeof(ReasonHeader));
    dumpHeader = static_cast<DumpHeader*>(malloc(sizeof(DumpHeader)));
    if (dumpHeader == nullptr) {
        VortaLogE("[%s] dumpHeader malloc fail", "RainbowInit");
        return false;
    }
    (void)memset_s(dumpHeader, sizeof(DumpHeader), 0, sizeof(DumpHeader));
    isCommercial = IsCommcialVer();
    isRemoteValid = IsRemoteValid();
    recordTime = GetRecordTime();
    return PartCommonRW(kReasonHeaderRegion.offset, rbHeader, sizeof(ReasonHeader), kRead,
                        kModeRawdump) >= 0;
}

// Each step logs its own failures; none but the first stops the flow.
void RainbowHandle::HandleFlow(std::string srvName) {
    VortaLogD("rainbow handle begin");
    if (!RainbowInit()) {
        return;
    }

    // A warm reset's reason was written before it happened. For any other it is derived here, the
    // over-current item first, because the power-on log cannot tell what that one knows.
    if (rbHeader->reasonNode.resetType != kResetWarm) {
        BootInfo info;
        GetOcpFromCmdline(info);
        CheckPmicPonLogs(info);
        RainbowReasonSet(info.category, info.reason);
    }

    // Evidence before bookkeeping. Once the dump folder is made the reason node is cleared in here,
    // so that an abnormal boot's history line below comes from the kernel command line.
    DumpFileUpdate(kModeRawdump);

    if (IsFactoryVer() && abnormalBootFlag == 1) {
        UpdateRtDeviceInfo();
    }
    if (srvName != kNoHistoryService) {
        HistoryFileUpdate();
    }

    // The boot chain decides by this field whether to reserve a dump area. The write, if there is
    // one, carries a derived reason to the partition as well.
    SetIsNeedReserveFlag();

    fulldump_header meta = {};
    if (InitFullDumpMetaInfo(meta) && IsFulldumpReserved(meta)) {
        fulldumpMeta = meta;
        DumpFileUpdate(kModeUserdata);
    }
    if (isCommercial) {  // a customer's phone keeps no full dump, also none from before
        FullDumpSizeCheck();
    }
    SetBoardID();

    // A minidump that is still waiting, because the boot was a normal one. After an abnormal boot
    // the folder exists, DumpDirOpen says so, and nothing is done twice.
    if (isRemoteValid && IsDumpPartValid(kModeRawdump) && DumpDirOpen(kModeRawdump) >= 0) {
        DumpSizeCheck();
        SaveMiniDump(kModeRawdump);
    }
    VortaLogD("rainbow handle end");
}
