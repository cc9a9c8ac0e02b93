// The receiving end of the Android log: a system log socket in the device folder, bound into the
// sandbox as /dev/log.
#pragma once

#include <filesystem>
#include <string>

#include "device/Files.h"

namespace vortadev {

class LogSocket {
  public:
    // Listens at Path(); lines are appended to the device's logcat.txt.
    explicit LogSocket(const std::filesystem::path& device);
    ~LogSocket();
    LogSocket(const LogSocket&) = delete;
    LogSocket& operator=(const LogSocket&) = delete;

    int Get() const { return socket_.Get(); }
    const std::filesystem::path& Path() const { return path_; }

    // Takes one message that has arrived; false if there is none. Senders wait while the queue is
    // full, so that none is lost as long as this is called.
    bool Receive();

    // The lines so far.
    const std::string& Lines() const { return lines_; }

  private:
    std::filesystem::path path_;
    Fd socket_;
    Fd logcat_;
    std::string lines_;
};

// "<14>Mmm dd hh:mm:ss vorta: text\n" as "I vorta: text": the letter of the severity (I, W or E),
// tag and text, without closing newlines, others as \n.
std::string LogLine(const std::string& datagram);

}  // namespace vortadev
