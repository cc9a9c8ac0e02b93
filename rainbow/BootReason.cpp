// The reason analysis: substring searches only, because the layout of the kernel's power-on log is
// not fixed beyond the words looked for.
#include "rainbow/BootReason.h"

#include <android-base/file.h>
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "common/VortaUtils.h"
#include "rainbow/RainbowPaths.h"

namespace {

const std::string kOcpTypes[] = {"OCP_TYPE_LDO_LSB", "OCP_TYPE_LDO_MSB", "OCP_TYPE_SMPS_LSB",
                                 "OCP_TYPE_SMPS_MSB"};
constexpr char kOcpNotTriggered = '0';
constexpr size_t kOcpTypeFromEnd = 3;

// Every power-on record ends in this separator.
const std::string kRecordEnd = "PON Successful";

// The line that names the reset cause: the cause starts two characters behind the word.
const std::string kResetTrigger = "Reset Trigger";
constexpr size_t kCauseGap = 2;

const std::string kBootloaderDumpMark = "Warm Reset Count: 3";

const std::string kXvdd = "XVDD";
const std::string kXvlo = "XVLO";
const std::string kLongKey = "KPDPWR_N_AND_RESIN_N_S2";

// In order of precedence, wherever they stand in the record.
const std::string kPrimaryFaults[] = {kXvdd, kXvlo, "PMIC_WATCHDOG_S2", kLongKey};

// In order of output.
const std::string kXvloFaults[] = {"GP_FAULT2", "GP_FAULT3", "OVLO",
                                   "UVLO",      "PBS_NACK",  "GP_FAULT7"};

bool Contains(const std::string& text, const std::string& word) {
    return text.find(word) != std::string::npos;
}

void SetReason(BootInfo& info, uint32_t category, const std::string& reason) {
    info.category = category;
    info.reason = reason;
}

// No fault keyword: the cause is what the "Reset Trigger" line says, unless the record before
// shows that the boot loader took a dump.
void SetReasonFromTrigger(std::string& log, const std::string& block, BootInfo& info) {
    const size_t trigger = block.rfind(kResetTrigger);
    if (trigger == std::string::npos) {
        SetReason(info, kCategoryUnknown, "unknown");
        return;
    }
    const size_t start = trigger + kResetTrigger.size() + kCauseGap;
    const size_t end = block.find('\n', start);
    if (end == std::string::npos) {
        SetReason(info, kCategoryUnknown, "unknown");
        return;
    }
    SetReason(info, kCategoryNormal, block.substr(start, end - start));
    std::string before;
    if (GetLatestPmicBlock(log, before) && Contains(before, kBootloaderDumpMark)) {
        SetReason(info, kCategoryUnknown, "XBL_DUMP_EXCEPTION");
    }
}

}  // namespace

void GetOcpFromCmdline(BootInfo& info) {
    SetOcpFromValue(KeyValueFromCmdline(kOcpKey), info);
}

void SetOcpFromValue(const std::string& value, BootInfo& info) {
    if (value.empty()) {
        VortaLogE("there is no ocp in cmdline");
        return;
    }
    if (value.back() == kOcpNotTriggered) {
        VortaLogE("Ocp not triggered");
        return;
    }
    if (value.size() >= kOcpTypeFromEnd) {  // a shorter value names no type
        SetOcpType(value[value.size() - kOcpTypeFromEnd], info);
    }
}

void SetOcpType(char type, BootInfo& info) {
    const uint8_t index = static_cast<uint8_t>(type - '0');
    if (index < sizeof(kOcpTypes) / sizeof(kOcpTypes[0])) {
        SetReason(info, kCategoryFault, kOcpTypes[index]);
    }
}

void CheckPmicPonLogs(BootInfo& info) {
    if (info.category != kCategoryNormal) {  // an over-current reason takes precedence
        return;
    }
    std::string log;
    if (!android::base::ReadFileToString(kPmicPonLogPath, &log, true)) {
        return;
    }
    std::string block;
    if (GetLatestPmicBlock(log, block)) {
        GetAbnormalBootReason(log, block, info);
    }
}

bool GetLatestPmicBlock(std::string& log, std::string& block) {
    const size_t end = log.rfind(kRecordEnd);
    if (end == std::string::npos) {
        return false;
    }
    log.resize(end);
    const size_t previous = log.rfind(kRecordEnd);
    if (previous == std::string::npos) {
        block = std::move(log);
        log.clear();
        return true;
    }
    block = log.substr(previous + kRecordEnd.size());
    log.resize(previous + kRecordEnd.size());
    VortaLogD("content after clipping:\n%s", log.c_str());
    return true;
}

void GetAbnormalBootReason(std::string log, std::string block, BootInfo& info) {
    std::string fault;
    for (const std::string& keyword : kPrimaryFaults) {
        if (Contains(block, keyword)) {
            fault = keyword;
            break;
        }
    }
    if (fault.empty()) {
        SetReasonFromTrigger(log, block, info);
    } else if (fault == kLongKey) {
        SetReason(info, kCategoryNormal, "reboot_longkey");
    } else if (fault == kXvdd && IsShipmodeXvdd()) {
        SetReason(info, kCategoryNormal, "SHIPMODE");
    } else {
        if (fault == kXvlo) {
            XvloCheck(fault, block);
        }
        SetReason(info, kCategoryFault, fault);
    }
}

void XvloCheck(std::string& result, const std::string& block) {
    std::string faults;
    for (const std::string& keyword : kXvloFaults) {
        if (Contains(block, keyword)) {
            faults += keyword + "_";
        }
    }
    if (faults.empty()) {
        result = kXvlo;
        return;
    }
    faults.pop_back();
    result = std::move(faults);
}

bool IsShipmodeXvdd() {
    if (access(kShipmodePath.c_str(), F_OK) != 0) {
        VortaLogD("shipmode_shutdown file is not exist.");
        return false;
    }
    if (unlink(kShipmodePath.c_str()) != 0) {
        const int error = errno;
        VortaLogE("unlink shipmode_shutdown failed, errno:%s.", strerror(error));
    }
    return true;
}
