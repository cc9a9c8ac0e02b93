// Bounded copying, clearing and formatting; scanning is in BoundedScan.cpp.
#include "common/BoundedFunctions.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

bool Overlap(const void* a, size_t aSize, const void* b, size_t bSize) {
    const uintptr_t aStart = reinterpret_cast<uintptr_t>(a);
    const uintptr_t bStart = reinterpret_cast<uintptr_t>(b);
    return aStart < bStart + bSize && bStart < aStart + aSize;
}

bool IsDestinationSize(size_t destMax) {
    return destMax != 0 && destMax <= kBoundedMax;
}

int EmptyText(char* dest, int code) {
    dest[0] = '\0';
    return code;
}

}  // namespace

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (!IsDestinationSize(destMax)) {
        return kBoundedRange;
    }
    if (dest == nullptr) {
        return kBoundedInvalid;
    }
    int failure = kBoundedOk;
    if (src == nullptr) {
        failure = kBoundedInvalidReset;
    } else if (count > destMax) {
        failure = kBoundedRangeReset;
    } else if (Overlap(dest, count, src, count)) {
        failure = kBoundedOverlapReset;
    }
    if (failure != kBoundedOk) {
        memset(dest, 0, destMax);
        return failure;
    }
    memcpy(dest, src, count);
    return kBoundedOk;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (destMax > kBoundedMax || (destMax == 0 && count > 0)) {
        return kBoundedRange;
    }
    if (dest == nullptr) {
        return kBoundedInvalid;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return kBoundedRangeReset;
    }
    memset(dest, c, count);
    return kBoundedOk;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (!IsDestinationSize(destMax)) {
        return kBoundedRange;
    }
    if (dest == nullptr) {
        return kBoundedInvalid;
    }
    if (src == nullptr) {
        return EmptyText(dest, kBoundedInvalidReset);
    }
    if (count == 0) {
        return EmptyText(dest, kBoundedOk);
    }
    if (count > kBoundedMax) {
        return EmptyText(dest, kBoundedRangeReset);
    }
    const size_t length = strnlen(src, count < destMax ? count : destMax);
    if (length == destMax) {  // no room for the terminator
        return EmptyText(dest, kBoundedRangeReset);
    }
    const size_t taken =
        length < count ? length + 1 : length;  // with the terminator, if it was read
    if (Overlap(dest, length + 1, src, taken)) {
        return EmptyText(dest, kBoundedOverlapReset);
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return kBoundedOk;
}

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args) {
    const bool usable = dest != nullptr && IsDestinationSize(destMax);
    if (!usable || format == nullptr || count > kBoundedMax - 1) {
        return usable ? EmptyText(dest, -1) : -1;
    }
    const bool keepsTruncated = destMax > count;
    const size_t room = keepsTruncated ? count : destMax - 1;
    const int length = vsnprintf(dest, room + 1, format, args);
    if (length < 0) {
        return EmptyText(dest, -1);
    }
    if (static_cast<size_t>(length) > room) {
        return keepsTruncated ? -1 : EmptyText(dest, -1);
    }
    return length;
}
