// The reason node of the header at the start of rawdump: checked, read, set and cleared. The bytes
// outside the node are written back as they stand in memory.
#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/BootReason.h"
#include "rainbow/HeaderText.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

const std::string kUnknownName = "UNKNOWN";

std::string CategoryName(uint32_t category) {
    switch (category) {
        case kCategoryNormal:
            return "NORMALBOOT";
        case kCategoryFault:
            return "HARDWARE_FAULT";
        default:
            return kUnknownName;
    }
}

}  // namespace

bool RainbowHandle::IsReasonPartValid() {
    if (rbHeader == nullptr) {
        return false;
    }
    const ReasonNode& node = rbHeader->reasonNode;
    if (node.innerResetReason != kResetAbnormal && node.innerResetReason != kResetNormal) {
        VortaLogE("[%s] rainbow innerResetReason is error", "IsReasonPartValid");
        return false;
    }
    if (node.mreasonStrFlag != kTextValid) {
        VortaLogE("[%s] rainbow mreasonStrFlag is error", "IsReasonPartValid");
        return false;
    }
    VortaLogD("[%s] part init is succ", "IsReasonPartValid");
    return true;
}

std::string RainbowHandle::GetSreasonFromPart() {
    if (rbHeader->reasonNode.sreasonStrFlag != kTextValid) {
        return kUnknownSreason;
    }
    return HeaderText(*rbHeader, rbHeader->reasonNode.sreasonStr);
}

int RainbowHandle::WriteReasonHeader() {
    return PartCommonRW(kReasonHeaderRegion.offset, rbHeader, sizeof(ReasonHeader), kWrite,
                        kModeRawdump);
}

void RainbowHandle::UpdatePartReasonHeader() {
    if (memset_s(&rbHeader->reasonNode, sizeof(ReasonNode), 0, sizeof(ReasonNode)) != 0) {
        VortaLogE("[%s] reasonNode memset_s fail", "UpdatePartReasonHeader");
    }
    if (WriteReasonHeader() < 0) {
        VortaLogE("[%s] update reason header part fail", "UpdatePartReasonHeader");
    } else {
        VortaLogD("[%s] update reason header part succ", "UpdatePartReasonHeader");
    }
}

void RainbowHandle::RainbowReasonSet(uint32_t category, std::string& reason) {
    if (rbHeader == nullptr) {
        return;
    }
    ReasonNode& node = rbHeader->reasonNode;
    node.innerResetReason = kResetNormal;
    node.bootLevel = kNormalBootLevel;
    node.mreasonStrFlag = kTextValid;
    node.sreasonStrFlag = kTextValid;
    (void)memset_s(node.mreasonStr, sizeof(node.mreasonStr), 0, sizeof(node.mreasonStr));
    (void)memset_s(node.sreasonStr, sizeof(node.sreasonStr), 0, sizeof(node.sreasonStr));
    // A text that does not fit leaves its field empty: cut, it could name another reason.
    const std::string name = CategoryName(category);
    (void)strncpy_s(node.mreasonStr, sizeof(node.mreasonStr), name.c_str(), name.size());
    (void)strncpy_s(node.sreasonStr, sizeof(node.sreasonStr), reason.c_str(), reason.size());
    VortaLogE("RainbowReasonSet:rbHeader->reasonNode.sreasonStr = %s",
              static_cast<const char*>(node.sreasonStr));
    if (reason.empty()) {  // no source gave a reason: the category is UNKNOWN then as well
        (void)strncpy_s(node.sreasonStr, sizeof(node.sreasonStr), kUnknownName.c_str(),
                        kUnknownName.size());
        (void)strncpy_s(node.mreasonStr, sizeof(node.mreasonStr), kUnknownName.c_str(),
                        kUnknownName.size());
    }
}
