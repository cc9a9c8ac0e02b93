// Child processes.
#include "device/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern "C" {  // glibc 2.36 forgot it in this header
#include <sys/pidfd.h>
}

namespace vortadev {

namespace {

// Runs in the forked child; only async-signal-safe calls. Reports errno through `report`.
[[noreturn]] void ExecChild(char* const argv[], const SpawnOptions& options, int report) {
    sigset_t none;
    (void)sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    (void)umask(options.umask);
    const int standard[] = {options.in, options.out, options.err};
    for (int fd = 0; fd < 3; ++fd) {
        if (standard[fd] >= 0) {
            (void)dup2(standard[fd], fd);
        }
    }
    if (options.inherited >= 0) {
        (void)fcntl(options.inherited, F_SETFD, 0);
    }
    (void)execvp(argv[0], argv);
    const int error = errno;
    (void)!write(report, &error, sizeof(error));
    _exit(127);
}

}  // namespace

Pipe MakePipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw SystemError("make", "a pipe");
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

Child::~Child() {
    if (pid > 0) {
        (void)kill(pid, SIGKILL);
        (void)Wait();
    }
}

int Child::Wait() {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Child Spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
    std::vector<char*> pointers;
    pointers.reserve(argv.size() + 1);
    for (const std::string& argument : argv) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    Pipe report = MakePipe();
    Child child;
    child.pid = fork();
    if (child.pid == 0) {
        ExecChild(pointers.data(), options, report.writer.Get());
    }
    if (child.pid < 0) {
        throw SystemError("start", argv[0]);
    }
    child.ended = Fd(pidfd_open(child.pid, 0));
    report.writer.Reset();
    int error = 0;
    if (read(report.reader.Get(), &error, sizeof(error)) == sizeof(error)) {
        (void)child.Wait();
        errno = error;
        throw SystemError("start", argv[0]);
    }
    return child;
}

bool ReadAvailable(int fd, std::string& text) {
    char chunk[65536];
    const ssize_t n = read(fd, chunk, sizeof(chunk));
    text.append(chunk, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return n > 0 || (n < 0 && errno == EINTR);
}

Ending Supervise(const Child& child, std::vector<Source> sources, int signals,
                 std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + timeout;
    for (;;) {
        std::vector<pollfd> polled = {{child.ended.Get(), POLLIN, 0}, {signals, POLLIN, 0}};
        for (const Source& source : sources) {
            polled.push_back({source.fd, POLLIN, 0});
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (timeout.count() > 0 && left.count() <= 0) {
            return Ending::kTimedOut;
        }
        (void)poll(polled.data(), polled.size(),
                   timeout.count() > 0 ? static_cast<int>(left.count()) : -1);
        for (size_t i = 0; i < sources.size(); ++i) {
            if (polled[i + 2].revents != 0 && !sources[i].ready()) {
                sources[i].fd = -1;
            }
        }
        if (polled[1].revents != 0) {
            return Ending::kSignalled;
        }
        if (polled[0].revents != 0) {
            return Ending::kEnded;
        }
    }
}

HeldSignals::HeldSignals() {
    sigset_t held;
    (void)sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaddset(&held, signal);
    }
    (void)pthread_sigmask(SIG_BLOCK, &held, &before_);
    fd_ = Fd(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
}

HeldSignals::~HeldSignals() {
    (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace vortadev
