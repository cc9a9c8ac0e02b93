// Host stand-in for the Android base library's owner of a file descriptor.
#pragma once

#include <errno.h>
#include <unistd.h>

namespace android::base {

// Closes its descriptor when it is destroyed or takes another one; -1 is none. The phone's can also
// be moved and converted to int: what compiles here compiles there.
class unique_fd {
  public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }

    // Keeps errno, so that it can be looked at behind reset(open(...)).
    void reset(int fd = -1) {
        const int error = errno;
        if (ok()) {
            (void)close(fd_);
        }
        fd_ = fd;
        errno = error;
    }

    // Gives the descriptor away, still open.
    [[nodiscard]] int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

}  // namespace android::base
