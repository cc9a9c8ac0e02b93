// Fixed paths, names, modes and limits of the rainbow service. The texts are process-wide strings,
// built once before main; RainbowPaths.cpp spells them out.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>

// Root folders of what is collected, and the mount point of the data partition. All exist before
// the daemon starts; it makes only the folder of each boot below them.
extern const std::string kDumplogRoot;
extern const std::string kFulldumplogRoot;
extern const std::string kDataMount;

// Files below them.
extern const std::string kHistoryName;
extern const std::string kTmpDumpName;  // raw minidump, while it is packed
extern const std::string kRawdumpName;  // packed minidump
extern const std::string kFulldumpName;
extern const std::string kDoneName;  // the collection ran to its end
extern const std::string kXblAblName;
extern const std::string kLastXblAblName;
extern const std::string kLastKmsgName;
extern const std::string kTzLogName;
extern const std::string kTmpSuffix;  // raw copy of a log, while it is converted

// Inputs: files and keys of the kernel command line.
extern const std::string kPmicPonLogPath;
extern const std::string kShipmodePath;
extern const std::string kBoardIdPath;
extern const std::string kOcpKey;
extern const std::string kSreasonKey;
extern const std::string kRebootReasonKey;

// Defined with the others, read by no step.
extern const std::string kVendorDeviceProperty;

extern const std::string kUnknownSreason;  // the detail reason of a header that holds none
extern const std::string kFactoryLibrary;

// Format of one history line: reason, time of this run, category.
inline constexpr char kHistoryFormat[] =
    "system exception core [NA], reason [%s], time [%s], sysreboot [true], bootup_keypoint [NA], "
    "category [%s]\n";

// Ownership and modes of what the daemon makes.
constexpr uid_t kOwner = 0;
constexpr gid_t kGroup = 1000;          // system
constexpr mode_t kCreationMode = 0640;  // of a file, until kFileMode is set
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0775;

// Limits, in bytes.
constexpr int64_t kHistoryLimit = 1048576;
constexpr int32_t kDumplogLimitCommercial = 5242880;  // 5 MiB
constexpr int32_t kDumplogLimit = 83886080;           // 80 MiB
