// The record time: when this run began. It names the run's dump folder and its history line.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"

namespace {

constexpr long kTickNanoseconds = 10;
constexpr char kTickFormat[] = "-%08lld";
constexpr char kStampFormat[] = "%Y%m%d%H%M%S";
constexpr size_t kStampSize = 15;  // 14 digits and the NUL

}  // namespace

std::string RainbowHandle::GetTimeTick() {
    timespec now;
    if (memset_s(&now, sizeof(now), 0, sizeof(now)) != 0) {
        VortaLogE("[%s] ts memset_s fail", "GetTimeTick");
    }
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    char* text = nullptr;
    if (asprintf(&text, kTickFormat, static_cast<long long>(now.tv_nsec / kTickNanoseconds)) < 0) {
        VortaLogE("[%s] asprintf fail", "GetTimeTick");
        return "";
    }
    std::string tick = text;
    free(text);
    return tick;
}

std::string RainbowHandle::GetTimeStamp() {
    time_t now;
    if (memset_s(&now, sizeof(now), 0, sizeof(now)) != 0) {
        VortaLogE("[%s] rawtime memset_s fail", "GetTimeStamp");
    }
    (void)time(&now);
    char stamp[kStampSize] = {};
    const tm* const local = localtime(&now);
    if (local != nullptr) {
        (void)strftime(stamp, sizeof(stamp), kStampFormat, local);
    }
    return stamp;
}

std::string RainbowHandle::GetRecordTime() {
    std::string stamp = GetTimeStamp() + GetTimeTick();
    VortaLogI("[%s] get time [%s]", "GetRecordTime", stamp.c_str());
    return stamp;
}
