// The corvel service.
#include "corvel/CorvelHandle.h"

#include <stdlib.h>
#include <sys/system_properties.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"

namespace {

const std::string kCorvelKey = "CORVEL";

constexpr uint64_t kInitialValue = 0x4A0040000;
constexpr uint64_t kFactoryPayload = 0x1C85F6FE00;
constexpr uint64_t kUserPayload = 0x485B6FE00;

}  // namespace

uint64_t CorvelHandle::corvelValue = 0;
uint8_t CorvelHandle::valueSet = 0;

VortaParse* NewCorvelService() {
    return new CorvelHandle();
}

CorvelHandle::CorvelHandle() {
    corvelValue = kInitialValue;
    valueSet = 0;
    VortaLogD("CorvelHandle begin");
}

CorvelHandle::~CorvelHandle() {
    free(rbHeader);
    rbHeader = nullptr;
    valueSet = 0;
    VortaLogD("CorvelHandle end");
}

void CorvelHandle::HandleFlow(std::string srvName) {
    VortaLogI("corvel handle begin", srvName.c_str());
    GetCorvelFromCmdline();
    CorrectCorvelData();
    VortaLogI("corvel handle end");
}

void CorvelHandle::GetCorvelFromCmdline() {
    const std::string text = KeyValueFromCmdline(kCorvelKey);
    if (text.empty()) {
        VortaLogE("there is no corvel in cmdline");
        return;
    }
    unsigned long long number = 0;
    if (sscanf_s(text.c_str(), "%llx", &number) < 1) {
        VortaLogE("sscanf_s corvel data fail");
    } else {
        VortaLogI("cmdline convert to number 0x%llx", number);
        corvelValue = number;
    }
    valueSet = 1;
}

bool CorvelHandle::IsFirstBoot() {
    if ((corvelValue & kCorvelCorrected) != 0) {
        VortaLogI("partition has been correct");
        return false;
    }
    VortaLogI("device first boot");
    return true;
}

void CorvelHandle::CorrectCorvelData() {
    if (IsCommcialVer() || !IsFirstBoot()) {
        VortaLogD("dont need to correct corvel");
        return;
    }
    CorvelPartInit();
    char runMode[PROP_VALUE_MAX] = {};
    (void)property_get(kRunModeProperty.c_str(), runMode, "");
    CorvelPartWrite(runMode == kFactoryRunMode ? kFactoryPayload : kUserPayload);
}

void CorvelHandle::CorvelPartInit() {
    rbHeader = static_cast<ReasonHeader*>(malloc(sizeof(ReasonHeader)));
    if (rbHeader == nullptr) {
        VortaLogE("[%s] rbHeader malloc fail", "CorvelPartInit");
        return;
    }
    (void)memset_s(rbHeader, sizeof(ReasonHeader), 0, sizeof(ReasonHeader));
}

void CorvelHandle::CorvelPartWrite(uint64_t value) {
    corvelValue = value;
    valueSet = 1;
    if (rbHeader == nullptr) {
        return;
    }
    if (PartCommonRW(kReasonHeaderRegion.offset, rbHeader, sizeof(ReasonHeader), kRead,
                     kModeRawdump) < 0) {
        return;
    }
    rbHeader->corvel = value | kCorvelTag | kCorvelCorrected;
    VortaLogD("ready to write corvel data %llx", static_cast<unsigned long long>(rbHeader->corvel));
    if (PartCommonRW(kReasonHeaderRegion.offset, rbHeader, sizeof(ReasonHeader), kWrite,
                     kModeRawdump) < 0) {
        VortaLogE("[%s] update corvel part fail", "CorvelPartWrite");
    } else {
        VortaLogD("[%s] update corvel part succ", "CorvelPartWrite");
    }
}
