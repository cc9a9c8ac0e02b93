// The receiving end of the Android log.
#include "device/LogSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "device/DeviceFolder.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr size_t kMaxDatagram = 8192;
constexpr size_t kStampLength = 16;  // "Mmm dd hh:mm:ss "

}  // namespace

LogSocket::LogSocket(const fs::path& device)
    : path_(device / ".log"),
      socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      logcat_(OpenFile(device / kLogcatFile, O_WRONLY | O_CREAT | O_APPEND)) {
    (void)unlink(path_.c_str());
    // A socket's address holds 107 characters; the folder's own descriptor makes any path short.
    const Fd folder = OpenFile(device, O_RDONLY | O_DIRECTORY);
    sockaddr_un address = {AF_UNIX, ""};
    (void)snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/.log",
                   folder.Get());
    if (!socket_ ||
        bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw SystemError("listen at", path_);
    }
}

LogSocket::~LogSocket() {
    (void)unlink(path_.c_str());
}

bool LogSocket::Receive() {
    char datagram[kMaxDatagram];
    const ssize_t n = TEMP_FAILURE_RETRY(recv(socket_.Get(), datagram, sizeof(datagram), 0));
    if (n < 0) {
        return false;
    }
    const std::string line = LogLine(std::string(datagram, static_cast<size_t>(n))) + "\n";
    lines_ += line;
    if (write(logcat_.Get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        throw SystemError("write", path_.parent_path() / kLogcatFile);
    }
    return true;
}

std::string LogLine(const std::string& datagram) {
    const size_t close = datagram.find('>');
    if (datagram.empty() || datagram[0] != '<' || close == std::string::npos ||
        datagram.size() < close + 1 + kStampLength) {
        return "? " + Printable(datagram);
    }
    const int severity = LOG_PRI(static_cast<int>(strtol(&datagram[1], nullptr, 10)));
    std::string line = severity <= LOG_ERR ? "E " : severity == LOG_WARNING ? "W " : "I ";
    const size_t last = datagram.find_last_not_of('\n');
    for (const char c : datagram.substr(0, last + 1).substr(close + 1 + kStampLength)) {
        line += c == '\n' ? "\\n" : std::string(1, c);
    }
    return line;
}

}  // namespace vortadev
