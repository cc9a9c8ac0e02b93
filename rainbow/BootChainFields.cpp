// The fields of the reason header that the boot chain reads at the next boot: user type and board
// identifier.
#include <android-base/file.h>
#include <sys/system_properties.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/HeaderText.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

// The board identifier property: four big-endian cells, each a decimal digit in its low byte.
constexpr size_t kBoardIdCells = 4;
constexpr size_t kCellSize = 4;

uint32_t BoardIdFromCells(const std::string& cells) {
    uint32_t id = 0;
    for (size_t cell = 0; cell < kBoardIdCells; ++cell) {
        id = id * 10 + static_cast<uint8_t>(cells[cell * kCellSize + kCellSize - 1]);
    }
    return id;
}

}  // namespace

void RainbowHandle::SetIsNeedReserveFlag() {
    char userType[PROP_VALUE_MAX] = {};
    if (property_get(kUserTypeProperty.c_str(), userType, "") < 1) {
        VortaLogE("vorta usertype prop get fail");
        return;
    }
    if (HeaderText(*rbHeader, rbHeader->userType) == userType) {
        VortaLogD("[%s] no need to rewrite usertype", "SetIsNeedReserveFlag");
        return;
    }
    constexpr size_t kFieldSize = sizeof(rbHeader->userType);  // a value of 8 or more has no NUL
    if (memcpy_s(rbHeader->userType, kFieldSize, userType, kFieldSize) != 0) {
        VortaLogE("[%s] copy reserve flag fail", "SetIsNeedReserveFlag");
        return;
    }
    if (WriteReasonHeader() < 0) {
        VortaLogE("[%s] update dump header part fail", "SetIsNeedReserveFlag");
    } else {
        VortaLogI("[%s] set complete usertype = %s", "SetIsNeedReserveFlag",
                  HeaderText(*rbHeader, rbHeader->userType).c_str());
    }
}

void RainbowHandle::SetBoardID() {
    std::string cells;
    if (!android::base::ReadFileToString(kBoardIdPath, &cells)) {
        VortaLogE("Read BoardID file failed");
        return;
    }
    if (cells.size() != kBoardIdCells * kCellSize) {
        VortaLogE("Invalid BoardID:%s", cells.c_str());
        return;
    }
    const uint32_t boardId = BoardIdFromCells(cells);
    if (boardId == rbHeader->boardId) {
        VortaLogD("[%s] no need to update BoardId", "SetBoardID");
        return;
    }
    rbHeader->boardIdMagic = kBoardIdMagic;
    rbHeader->boardId = boardId;
    if (WriteReasonHeader() < 0) {
        VortaLogE("[%s] update dump header part fail", "SetBoardID");
    } else {
        VortaLogI("[%s] set complete BoardId = %d", "SetBoardID", static_cast<int>(boardId));
    }
}
