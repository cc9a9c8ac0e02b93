// Decisions about the dump folders, as pure functions of names and sizes. DumpFolders.cpp walks,
// measures and prunes the folders.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "handle/PartitionRecords.h"
#include "rainbow/RainbowPaths.h"

// The root folder of what is collected from the partition of `mode`; the full dump folder for any
// mode but kModeRawdump.
inline const std::string& DumpRoot(uint8_t mode) {
    return mode == kModeRawdump ? kDumplogRoot : kFulldumplogRoot;
}

// The folder of the boot that `recordTime` names.
inline std::string BootFolder(uint8_t mode, const std::string& recordTime) {
    return DumpRoot(mode) + "/" + recordTime;
}

// The limit of the dumplog folder, in bytes.
constexpr int32_t DumplogLimit(bool isCommercial) {
    return isCommercial ? kDumplogLimitCommercial : kDumplogLimit;
}

// Joins a folder and an entry's name. Adds no "/" if `folder` is empty or ends in one.
std::string EntryPath(const std::string& folder, const std::string& name);

// The name that sorts first byte by byte, or empty. Folders are named by their time, in a fixed
// width, so that is the oldest one; the history file sorts behind them.
std::string OldestName(const std::vector<std::string>& names);

// Adds a file's size to a sum that wraps at 32 bits.
int32_t AddSize(int32_t sum, int64_t size);
