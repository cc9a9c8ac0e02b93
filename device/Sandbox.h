// Runs the unmodified daemon on a simulated device: a bubblewrap sandbox whose root is the device
// folder. Works as root and, where the host allows user namespaces, as an ordinary user (for whom
// ownership on disk stays their own).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vortadev {

// Where the daemon lies on the device.
inline const std::string kDaemonPath = "/vendor/bin/vorta";

struct RunOptions {
    std::filesystem::path daemon;       // host path; empty: DefaultDaemon()
    std::vector<std::string> args;      // of the daemon
    std::string program = kDaemonPath;  // started in the sandbox

    bool loop = false;                 // loop devices under the partition names; root only
    std::optional<uint64_t> dataSize;  // /data is a file system of that many bytes
    bool readOnlyData = false;         // /data is mounted read-only
    mode_t umask = 0;                  // 077 is what init gives to its services

    std::filesystem::path emulator;    // host program that runs a foreign daemon, as /qemu
    std::vector<std::string> wrapper;  // host program and arguments in front, e.g. strace -f
    std::vector<std::pair<std::filesystem::path, std::string>> binds;  // host, sandbox; writable
    std::map<std::string, std::string> environment;
    std::vector<std::string> dropCapabilities;  // "CAP_DAC_OVERRIDE"; root only

    std::chrono::milliseconds timeout{0};  // 0: none
    bool capture = false;                  // out and err are returned; else they are the caller's
};

struct RunResult {
    int status = 0;         // exit status, or 128 + number of the signal that killed the daemon
    bool timedOut = false;  // killed at the time limit; status is then 137
    std::string out;        // standard output and error, if captured
    std::string err;
    std::string log;  // what this run added to logcat.txt
};

// Runs the daemon to its end. Every message of its Android log is in the device's logcat.txt on
// return. Of the caller's environment it sees only TZ and the options of sanitizers and gcov.
// SIGINT, SIGTERM and SIGHUP end the run and are raised again once everything is put back.
//
// Throws DeviceError when nothing could be run: no device, the device is in use by another run, no
// daemon, or a host that forbids sandboxes.
RunResult RunDaemon(const std::filesystem::path& device, const RunOptions& options);

// `vorta` beside the running program, else where the build puts it.
std::filesystem::path DefaultDaemon();

}  // namespace vortadev
