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

// Each step logs its own failures; only a failed RainbowInit ends the flow.
void RainbowHandle::HandleFlow(std::string srvName) {
    VortaLogD("rainbow handle begin");
    if (!RainbowInit()) {
        return;
    }

    // Before a warm reset its reason was written to the header. For any other reset it is derived
    // here, from the over-current item first, because the power-on log does not tell of that.
    if (rbHeader->reasonNode.resetType != kResetWarm) {
        BootInfo info;
        GetOcpFromCmdline(info);
        CheckPmicPonLogs(info);
        RainbowReasonSet(info.category, info.reason);
    }

    // Evidence before bookkeeping. Once the dump folder exists this step clears the reason node, so
    // that an abnormal boot's history line takes its reason from the kernel command line.
    DumpFileUpdate(kModeRawdump);

    if (IsFactoryVer() && abnormalBootFlag == 1) {
        UpdateRtDeviceInfo();
    }
    if (srvName != kNoHistoryService) {
        HistoryFileUpdate();
    }

    // The user type, by which the boot chain decides whether to reserve a dump area. A write stores
    // the whole header, and with it a reason derived above.
    SetIsNeedReserveFlag();

    fulldump_header meta = {};
    if (InitFullDumpMetaInfo(meta) && IsFulldumpReserved(meta)) {
        fulldumpMeta = meta;
        DumpFileUpdate(kModeUserdata);
    }
    if (isCommercial) {  // keeps no full dump, not even an earlier build's
        FullDumpSizeCheck();
    }
    SetBoardID();

    // A minidump that is still waiting after a normal boot. After an abnormal one this run's folder
    // exists already, so that DumpDirOpen fails and nothing is saved twice.
    if (isRemoteValid && IsDumpPartValid(kModeRawdump) && DumpDirOpen(kModeRawdump) >= 0) {
        DumpSizeCheck();
        SaveMiniDump(kModeRawdump);
    }
    VortaLogD("rainbow handle end");
}
