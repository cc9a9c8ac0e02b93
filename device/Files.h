// Small owners and helpers for files, shared by the whole tool. Every failure is a DeviceError
// whose text is one line for a person.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

namespace vortadev {

// The one error of this library; what() is one line that names the file and what is wrong with it.
class DeviceError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// "cannot ACTION PATH: reason", with the reason taken from errno.
DeviceError SystemError(const std::string& action, const std::filesystem::path& path);

// Owns a file descriptor; -1 is none.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept;
    ~Fd() { Reset(); }

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void Reset();

  private:
    int fd_;
};

// Opens with O_CLOEXEC; throws DeviceError.
Fd OpenFile(const std::filesystem::path& path, int flags, mode_t mode = 0644);

// Up to `limit` bytes of a file or block device from `offset`; shorter only at its end.
std::string ReadFile(const std::filesystem::path& path, uint64_t offset = 0,
                     uint64_t limit = UINT64_MAX);

// Replaces the content of a file; makes it and its folders where they are missing.
void WriteFile(const std::filesystem::path& path, const std::string& bytes);

// Writes all bytes at the offset; `path` is for the error only.
void WriteAt(const Fd& fd, uint64_t offset, const std::string& bytes,
             const std::filesystem::path& path);

// Folder of the running program, where the daemon and the factory libraries lie as well.
std::filesystem::path ProgramFolder();

// An executable file: the name itself if it holds a slash, else looked up in PATH and the usual
// folders; empty if there is none.
std::filesystem::path FindProgram(const std::string& name);

// The text with every byte that a terminal would not print as \n, \t or \xNN.
std::string Printable(const std::string& bytes);

// "512 B", "28.0 MiB".
std::string SizeText(uint64_t bytes);

}  // namespace vortadev
