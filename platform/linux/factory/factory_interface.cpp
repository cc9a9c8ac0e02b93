// The factory interface library of a simulated device: keeps each call as a line in a file.
#include <cstdio>

extern "C" int HalSetDeviceInfo(int item, const char* value) {
    FILE* events = fopen("/data/vendor/factory/events.txt", "ae");
    if (events == nullptr) {
        return -1;
    }
    const bool written = fprintf(events, "%d %s\n", item, value) > 0;
    return fclose(events) == 0 && written ? 0 : -1;
}
