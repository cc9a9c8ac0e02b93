// A loop device over a file.
#include "device/LoopDevice.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace vortadev {

LoopDevice::LoopDevice(const std::filesystem::path& file) {
    constexpr int kAttempts = 20;
    const Fd backing = OpenFile(file, O_RDWR);
    const Fd control = OpenFile("/dev/loop-control", O_RDWR);
    loop_config config = {};
    config.fd = static_cast<uint32_t>(backing.Get());
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    // Between asking for a free device and taking it another process may take the same one.
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            break;
        }
        path_ = "/dev/loop" + std::to_string(number);
        fd_ = OpenFile(path_, O_RDWR);
        if (ioctl(fd_.Get(), LOOP_CONFIGURE, &config) == 0) {
            return;
        }
        if (errno != EBUSY) {
            break;
        }
    }
    throw SystemError("attach a loop device to", file);
}

}  // namespace vortadev
