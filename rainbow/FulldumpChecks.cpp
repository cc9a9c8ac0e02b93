// Guards of the full dump collection, and the two fields of the reason header that the boot chain
// reads at the next boot: user type and board identifier.
#include <android-base/file.h>
#include <dirent.h>
#include <sys/system_properties.h>
#include <sys/vfs.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/DirEntries.h"
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

bool RainbowHandle::IsFulldumpOffsetValid() {
    fulldumpOffset = static_cast<int64_t>(fulldumpMeta.dumpOffset);
    if (fulldumpOffset != 0) {
        VortaLogI("[%s] FulldumpOffset = %lu", "IsFulldumpOffsetValid",
                  static_cast<unsigned long>(fulldumpOffset));
        return true;
    }
    VortaLogE("[%s] fulldump addr is invalid", "IsFulldumpOffsetValid");
    return false;
}

bool RainbowHandle::IsDataPartEnough() {
    struct statfs status = {};
    if (statfs(kDataMount.c_str(), &status) != 0) {
        return false;
    }
    const uint64_t available = static_cast<uint64_t>(status.f_bsize) * status.f_bavail;
    VortaLogD("[%s] available_size is: %ld", "IsDataPartEnough", available);
    return available >= 2 * static_cast<uint64_t>(fulldumpSize);
}

void RainbowHandle::FullDumpSizeCheck() {
    const UniqueDir dir(opendir(kFulldumplogRoot.c_str()));
    if (dir == nullptr) {
        VortaLogE("[%s] opendir failed", "FullDumpSizeCheck");
        return;
    }
    while (const dirent* const entry = NextEntry(dir)) {
        if (entry->d_type == DT_REG || entry->d_type == DT_DIR) {
            const std::string path = kFulldumplogRoot + "/" + entry->d_name;
            VortaLogE("[%s] remove FileName: %s", "FullDumpSizeCheck", path.c_str());
            DirOrFileRemove(path);
        }
    }
}

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
    constexpr size_t kFieldSize = sizeof(rbHeader->userType);  // a longer value loses its NUL
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
