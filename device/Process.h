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

// A running child, known by a descriptor that becomes readable at its end.
struct Child {
    pid_t pid = -1;
    Fd ended;

    // Waits for the end; exit status, or 128 + signal.
    int Wait();
};

// Starts argv[0] from PATH. Throws DeviceError if that cannot be executed.
Child Spawn(const std::vector<std::string>& argv, const SpawnOptions& options);

// Something to do when a descriptor is readable; gives false when it has nothing more to tell.
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

// Keeps SIGINT, SIGTERM and SIGHUP (interactive: SIGINT and SIGQUIT, ignored) from the calling
// thread while it lives.
class HeldSignals {
  public:
    explicit HeldSignals(bool interactive);
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    // Readable when one of them waits; -1 when interactive.
    int Get() const { return fd_.Get(); }

  private:
    sigset_t before_ = {};
    Fd fd_;
};

}  // namespace vortadev
