// Child processes: starting them with exactly the descriptors they are given, and waiting for them
// while their output, the device's log, a time limit and the terminal's signals are looked after.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "device/Files.h"

namespace vortadev {

struct Pipe {
    Fd reader;
    Fd writer;
};
Pipe MakePipe();

struct SpawnOptions {
    int in = -1, out = -1, err = -1;  // -1: the caller's
    int inherited = -1;               // one more descriptor that the child keeps at its number
    mode_t umask = 0;
};

// Owns a running child; one that was not waited for is killed.
struct Child {
    pid_t pid = -1;
    Fd ended;  // readable at the child's end

    Child() = default;
    Child(Child&& other) noexcept
        : pid(std::exchange(other.pid, -1)), ended(std::move(other.ended)) {}
    Child& operator=(Child&&) = delete;
    ~Child();

    // Waits for the end; exit status, or 128 + signal.
    int Wait();
};

// Starts argv[0] from PATH. Throws DeviceError if that cannot be executed.
Child Spawn(const std::vector<std::string>& argv, const SpawnOptions& options);

// Something to do when a descriptor is readable; false if there is nothing more to read for now.
struct Source {
    int fd;
    std::function<bool()> ready;
};

// Appends what a readable descriptor holds; false at its end.
bool ReadAvailable(int fd, std::string& text);

enum class Ending { kEnded, kTimedOut, kSignalled };

// Serves the sources until the child ends, the time is up (0: no limit) or `signals` is readable.
Ending Supervise(const Child& child, std::vector<Source> sources, int signals,
                 std::chrono::milliseconds timeout);

// Keeps SIGINT, SIGTERM and SIGHUP from the calling thread while it lives; one that came is then
// delivered.
class HeldSignals {
  public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // Readable when one of them waits.
    int Get() const { return fd_.Get(); }

  private:
    sigset_t before_ = {};
    Fd fd_;
};

}  // namespace vortadev
