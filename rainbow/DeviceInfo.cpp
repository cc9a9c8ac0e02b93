// Reports an abnormal reboot to the factory test environment of a device in factory mode.
#include <dlfcn.h>
#include <sys/system_properties.h>

#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

// int HalSetDeviceInfo(int item, const char* text) of the factory library; 0 means success.
using SetDeviceInfo = int (*)(int, const char*);
constexpr char kSetDeviceInfoName[] = "HalSetDeviceInfo";

constexpr int kStabilityItem = 43;
constexpr char kStabilityText[] = "901000004|Stability: Abnormal Reboot";

}  // namespace

bool RainbowHandle::IsFactoryVer() {
    char runMode[PROP_VALUE_MAX] = {};
    if (property_get(kRunModeProperty.c_str(), runMode, "") < 1) {
        VortaLogE("vorta runmode prop get fail");
        return false;
    }
    return runMode == kFactoryRunMode;
}

void RainbowHandle::UpdateRtDeviceInfo() {
    void* const library = dlopen(kFactoryLibrary.c_str(), RTLD_LAZY);
    if (library == nullptr) {
        VortaLogE("%s: dlopen fail!", "UpdateRtDeviceInfo");
        return;
    }
    const auto setDeviceInfo = reinterpret_cast<SetDeviceInfo>(dlsym(library, kSetDeviceInfoName));
    if (setDeviceInfo == nullptr) {
        const char* const error = dlerror();  // null for a symbol whose value is null
        VortaLogE("%s: dlsym fail, err:%s.", "UpdateRtDeviceInfo", error == nullptr ? "" : error);
    } else if (setDeviceInfo(kStabilityItem, kStabilityText) != 0) {
        VortaLogE("%s: set device info fail!", "UpdateRtDeviceInfo");
    }
    (void)dlclose(library);
}
