// Holds a run against what its scenario promises: every partition byte, the files of the new dump
// folder with their content, the history, the log.
#pragma once

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "device/DeviceFolder.h"
#include "device/Sandbox.h"
#include "device/Scenario.h"

namespace vortadev {

// What a run may change, read before and after it.
struct DeviceState {
    PartitionImages partitions;
    std::set<std::string> dumps;      // names of the folders in dumplog
    std::set<std::string> fulldumps;  // names of all entries of fulldumplog
    std::string history;
};
DeviceState ReadState(const std::filesystem::path& device);

// The broken promises, a line each; none if the run kept all of them. The run's output need not
// have been captured.
//
// Log files must hold exactly the text of their region, rawdump.bin must unpack to exactly the
// minidump region, a full dump must hold exactly the range of userdata in whole chunks of 512 KiB,
// and no partition byte may differ but those that the scenario names.
std::vector<std::string> CheckExpectations(const Scenario& scenario, const DeviceState& before,
                                           const std::filesystem::path& device,
                                           const RunResult& result);

// Makes the scenario's device in the folder, runs the daemon on it as the scenario says, with
// `options` for all else, and checks. Throws DeviceError if it cannot be made or run.
std::vector<std::string> CheckScenario(const Scenario& scenario,
                                       const std::filesystem::path& device, RunOptions options);

// Printable sequences of at least four characters, a line each, as the `strings` tool finds them.
std::string TextOf(const std::string& bytes);

}  // namespace vortadev
