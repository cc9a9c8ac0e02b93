// Fixed paths, names, modes and limits of the rainbow service. Texts are process-wide strings,
// built once before main.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>

// Folders on the data partition. They exist before the daemon starts; it makes only the folders
// of single boots below them.
inline const std::string kDumplogRoot = "/data/vendor/log/reliability/dumplog";
inline const std::string kFulldumplogRoot = "/data/vendor/log/reliability/fulldumplog";
inline const std::string kDataMount = "/data";

// Files below them.
inline const std::string kHistoryName = "history.log";
inline const std::string kTmpDumpName = "tmp.bin";      // raw minidump, while it is packed
inline const std::string kRawdumpName = "rawdump.bin";  // packed minidump
inline const std::string kFulldumpName = "fulldump.bin";
inline const std::string kDoneName = "DONE";  // closes a finished collection
inline const std::string kXblAblName = "xbl_abl";
inline const std::string kLastXblAblName = "last_xbl_abl";
inline const std::string kLastKmsgName = "last_kmsg";
inline const std::string kTzLogName = "tz_log";
inline const std::string kTmpSuffix = "_tmp";  // raw copy of a log, while it is converted

// Inputs.
inline const std::string kPmicPonLogPath = "/proc/pmic_pon_log";
inline const std::string kShipmodePath = "/data/vendor/log/reliability/shipmode_shutdown";
inline const std::string kBoardIdPath = "/proc/device-tree/rootparam/qcom,boardid";
inline const std::string kOcpKey = "zenta_pmic_ocp_debug.OCP";
inline const std::string kSreasonKey = "sreason";
inline const std::string kRebootReasonKey = "reboot_reason";
inline const std::string kVendorDeviceProperty = "ro.product.vendor.device";  // no step reads it

inline const std::string kUnknownSreason = "unknown_sreason";
inline const std::string kFactoryLibrary = "lib_factory_interface.so";

// Ownership and modes of what the daemon makes.
constexpr uid_t kOwner = 0;
constexpr gid_t kGroup = 1000;  // system
constexpr mode_t kCreationMode = 0640;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0775;

// Limits, in bytes.
constexpr int64_t kHistoryLimit = 1048576;
constexpr int32_t kDumplogLimitCommercial = 5242880;  // 5 MiB
constexpr int32_t kDumplogLimit = 83886080;           // 80 MiB

// History line: reason, time of this run, category.
inline const std::string kHistoryFormat =
    "system exception core [NA], reason [%s], time [%s], sysreboot [true], bootup_keypoint [NA], "
    "category [%s]\n";
