// What must hold before a full dump is copied: its place is known, and there is room for it.
#include <sys/vfs.h>

#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

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
