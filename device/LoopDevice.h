// A loop device over a file, so that the end of a partition behaves as on a phone. Root only.
#pragma once

#include <filesystem>
#include <string>

#include "device/Files.h"

namespace vortadev {

// Attached as long as it lives. The kernel detaches it when the last descriptor goes, so that not
// even a killed process leaves one behind.
class LoopDevice {
  public:
    explicit LoopDevice(const std::filesystem::path& file);

    // "/dev/loop3"
    const std::string& Path() const { return path_; }

  private:
    Fd fd_;
    std::string path_;
};

}  // namespace vortadev
