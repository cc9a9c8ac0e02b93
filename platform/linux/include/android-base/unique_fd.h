// Host stand-in for the Android base library's owner of a file descriptor.
#pragma once

#include <unistd.h>

namespace android::base {

// Closes its descriptor when it is destroyed or takes another one; -1 is none.
class unique_fd {
  public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }

    void reset(int fd = -1) {
        if (ok()) {
            (void)close(fd_);
        }
        fd_ = fd;
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
