// Small owners and helpers for files.
#include "device/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace fs = std::filesystem;

namespace vortadev {

DeviceError SystemError(const std::string& action, const fs::path& path) {
    const std::string reason = strerror(errno);
    return DeviceError("cannot " + action + " " + path.string() + ": " + reason);
}

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        Reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void Fd::Reset() {
    if (fd_ >= 0) {
        (void)close(fd_);
        fd_ = -1;
    }
}

Fd OpenFile(const fs::path& path, int flags, mode_t mode) {
    Fd fd(open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!fd) {
        throw SystemError((flags & O_ACCMODE) == O_RDONLY ? "read" : "write", path);
    }
    return fd;
}

std::string ReadFile(const fs::path& path, uint64_t offset, uint64_t limit) {
    constexpr uint64_t kChunk = 1 << 20;
    const Fd fd = OpenFile(path, O_RDONLY);
    std::string bytes;
    while (bytes.size() < limit) {
        const size_t done = bytes.size();
        bytes.resize(done + std::min(kChunk, limit - done));
        // Files of /proc can only be read from where they stand.
        const ssize_t n = offset == 0 ? read(fd.Get(), &bytes[done], bytes.size() - done)
                                      : pread(fd.Get(), &bytes[done], bytes.size() - done,
                                              static_cast<off_t>(offset + done));
        if (n < 0 && errno != EINTR) {
            throw SystemError("read", path);
        }
        bytes.resize(done + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n == 0) {
            break;
        }
    }
    return bytes;
}

void WriteFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    WriteAt(OpenFile(path, O_WRONLY | O_CREAT | O_TRUNC), 0, bytes, path);
}

void WriteAt(const Fd& fd, uint64_t offset, const std::string& bytes, const fs::path& path) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n =
            pwrite(fd.Get(), &bytes[done], bytes.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno != EINTR) {
            throw SystemError("write", path);
        }
        done += static_cast<size_t>(std::max<ssize_t>(n, 0));
    }
}

fs::path ProgramFolder() {
    return fs::read_symlink("/proc/self/exe").parent_path();
}

fs::path FindProgram(const std::string& name) {
    const char* path = getenv("PATH");
    std::istringstream folders((path == nullptr ? "" : std::string(path)) + ":/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        fs::path program =
            name.find('/') == std::string::npos ? folder / fs::path(name) : fs::path(name);
        std::error_code error;
        if (fs::is_regular_file(program, error) && access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return {};
}

std::string Printable(const std::string& bytes) {
    std::string text;
    for (const unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7f) {
            text += static_cast<char>(c);
        } else if (c == '\n' || c == '\t') {
            text += c == '\n' ? "\\n" : "\\t";
        } else {
            char escape[8];
            (void)snprintf(escape, sizeof(escape), "\\x%02x", c);
            text += escape;
        }
    }
    return text;
}

std::string SizeText(uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double size = static_cast<double>(bytes);
    size_t unit = 0;
    for (; size >= 1024 && unit < 6; ++unit) {
        size /= 1024;
    }
    char text[32];
    (void)snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", size, kUnits[unit]);
    return text;
}

}  // namespace vortadev
