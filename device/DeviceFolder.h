// A simulated device: a folder in which every input and output of the daemon is a plain file.
//
//     dev/block/by-name/{rawdump,userdata,bootfail_info}   the partitions, sparse files
//     proc/{cmdline,pmic_pon_log}  proc/device-tree/rootparam/qcom,boardid
//     vendor/build.prop  vendor/bin/vorta (where the daemon appears)  vendor/lib64
//     data/vendor/log/reliability/{dumplog,fulldumplog}
//     system/bin: mksh as sh, toybox with cat and strings; bin -> system/bin
//     scenario.json, from which it was made; logcat.txt, the Android log of all runs
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "device/Scenario.h"

namespace vortadev {

inline const std::string kPartitionFolder = "dev/block/by-name";
inline const std::string kRawdumpPartition = "rawdump";
inline const std::string kUserdataPartition = "userdata";
inline const std::string kBootfailPartition = "bootfail_info";
inline const std::string kScenarioFile = "scenario.json";
inline const std::string kLogcatFile = "logcat.txt";

// The place below a device folder that the daemon sees under an absolute path.
std::filesystem::path OnDevice(const std::filesystem::path& device, const std::string& path);

// Whether the folder was made by CreateDevice.
bool IsDevice(const std::filesystem::path& folder);

// Makes the device. The folder may be missing or empty, or with `replace` an earlier device, which
// is removed first; any other folder is refused. As root the log folders belong to 0:1000, as on a
// phone, otherwise to the caller. Throws DeviceError.
void CreateDevice(const std::filesystem::path& device, const Scenario& scenario,
                  bool replace = false);

// The partitions' content at one moment: for each existing partition its size and its non-zero
// blocks of 4 KiB by their offset. Holes cost nothing.
struct PartitionImage {
    static constexpr uint64_t kBlock = 4096;

    uint64_t size = 0;
    std::map<uint64_t, std::string> blocks;

    // The bytes of a range; what lies behind the end of the partition is missing.
    std::string Range(uint64_t offset, uint64_t length) const;

    // Sets the bytes at the offset, as far as the partition reaches.
    void Replace(uint64_t offset, const std::string& bytes);
};
using PartitionImages = std::map<std::string, PartitionImage>;

PartitionImages ReadPartitions(const std::filesystem::path& device);

}  // namespace vortadev
