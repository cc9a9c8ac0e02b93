// What the fuzz targets share: the pieces of an input, the files of the simulated device, and the
// report of a broken rule. A target is started as the daemon of a device (see scripts/fuzz), so
// that the code under test opens its own fixed paths; it refuses to run anywhere else.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace fuzz {

inline const std::string kPartitions = "/dev/block/by-name/";
inline const std::string kCmdline = "/proc/cmdline";
inline const std::string kProperties = "/vendor/build.prop";

inline int reportFd = STDERR_FILENO;  // what the daemon itself writes goes to /dev/null

// Ends the run as a finding unless `holds`.
inline void Require(bool holds, const char* rule) {
    if (!holds) {
        (void)dprintf(reportFd, "broken rule: %s\n", rule);
        abort();
    }
}

// Takes an input apart: records of fixed sizes, and texts that end at the byte 0x1E, which the
// seeds put between them. What is missing is zero or empty.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    std::string Bytes(size_t most) {
        std::string piece = rest_.substr(0, most);
        rest_.erase(0, most);
        return piece;
    }
    uint8_t Byte() { return static_cast<uint8_t>((Bytes(1) + '\0')[0]); }
    std::string Text() {
        std::string piece = rest_.substr(0, rest_.find('\x1e'));
        rest_.erase(0, piece.size() + 1);
        return piece;
    }

  private:
    std::string rest_;
};

// Replaces a file, or removes it.
inline void Write(const std::string& path, const std::string& bytes, bool exists = true) {
    (void)unlink(path.c_str());
    if (exists) {
        Require((std::ofstream(path) << bytes).flush().good(), "the device can be written to");
    }
}

// A file's bytes; none if it is missing.
inline std::string Read(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    std::string bytes(file ? static_cast<size_t>(file.tellg()) : 0, '\0');
    (void)file.seekg(0).read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// Makes this process a new one for the code under test: closes what was left open, and lets the
// signal by which the fuzzer keeps time interrupt no call, as the daemon handles no signals.
inline void StartAnew() {
    struct sigaction action = {};
    (void)sigaction(SIGALRM, nullptr, &action);
    action.sa_flags |= SA_RESTART;
    (void)sigaction(SIGALRM, &action, nullptr);
    static const int firstFree = dup(STDIN_FILENO);
    (void)close_range(static_cast<unsigned>(firstFree), ~0U, 0);
}

template <typename Record>
std::string BytesOf(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}
template <typename Record>
Record RecordOf(const std::string& bytes) {  // missing bytes are zero
    Record record = {};
    bytes.copy(reinterpret_cast<char*>(&record), sizeof(record));
    return record;
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (access("/vendor/bin/vorta", F_OK) != 0 || access("/etc", F_OK) == 0) {
        (void)fputs("this writes to partitions: start it with scripts/fuzz\n", stderr);
        exit(2);
    }
    // The leak checker looks for itself in /proc, which on the device is a plain folder.
    for (const std::string& name : {std::string("self"), std::to_string(getpid())}) {
        (void)!symlink(("/.proc/" + name).c_str(), ("/proc/" + name).c_str());
    }
    fuzz::reportFd = dup(STDERR_FILENO);
    return 0;
}
