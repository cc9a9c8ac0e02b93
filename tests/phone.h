// A simulated phone in a scratch folder: what the system tests run the unmodified daemon on.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "device/Expectations.h"

// A shipped scenario with changes: JSON merge patches (RFC 7386), one after the other.
vortadev::Scenario Patched(const std::string& scenario, const std::vector<std::string>& patches);

// A small minidump packs quickly; what it holds is the same kind of bytes.
inline constexpr char kQuick[] = R"({"minidump": {"content": {"phone": true, "size": "128KiB"}}})";

// Options for every run: the daemon and the emulator that the environment variables VORTA_DAEMON
// and VORTA_EMULATOR name, and a place for coverage data below VORTA_GCOV.
vortadev::RunOptions Options();

class Phone {
  public:
    explicit Phone(const vortadev::Scenario& made);
    explicit Phone(const std::string& scenario, const std::string& patch = "{}")
        : Phone(Patched(scenario, {patch})) {}
    ~Phone() { std::filesystem::remove_all(device); }
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    // One boot. Its output is captured; a boot that does not end is stopped and fails.
    vortadev::RunResult Boot(const std::vector<std::string>& arguments = {"-r", "boot"},
                             vortadev::RunOptions options = Options()) const;

    // A path on the phone.
    std::filesystem::path operator/(const std::string& path) const {
        return vortadev::OnDevice(device, path);
    }
    std::filesystem::path Partition(const std::string& name) const {
        return device / vortadev::kPartitionFolder / name;
    }
    // Names of the collected folders, and of the files in the only one.
    std::vector<std::string> Folders() const;
    std::filesystem::path Folder() const;
    std::string History() const;
    bool MinidumpWaits() const;

    vortadev::Scenario scenario;
    std::filesystem::path device;
};
