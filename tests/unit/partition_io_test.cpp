// Whole-buffer transfers, copying a partition range, the bounds of both.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <vector>

#include "handle/PartitionRecords.h"
#include "rainbow/RainbowHandle.h"

namespace {

constexpr int64_t kChunk = 524288;

std::map<long, std::vector<int>> failures;  // the errors of the next calls of a number
size_t most = SIZE_MAX;                     // bytes that one call moves

ssize_t Transfer(long number, int fd, void* buffer, size_t size) {
    std::vector<int>& errors = failures[number];
    if (!errors.empty()) {
        errno = errors.back();
        errors.pop_back();
        return -1;
    }
    return syscall(number, fd, buffer, std::min(size, most));
}

}  // namespace

// What read and write are to the daemon's sources in this program. Labelled, as the C library's
// headers may define the plain names.
ssize_t Read(int fd, void* buffer, size_t size) __asm__("read");
ssize_t Read(int fd, void* buffer, size_t size) {
    return Transfer(SYS_read, fd, buffer, size);
}
ssize_t Write(int fd, const void* buffer, size_t size) __asm__("write");
ssize_t Write(int fd, const void* buffer, size_t size) {
    return Transfer(SYS_write, fd, const_cast<void*>(buffer), size);
}

namespace {

// A file that stands for a partition: the slot of a mode takes whatever path is opened into it.
class PartitionIo : public testing::Test {
  protected:
    void SetUp() override {
        std::iota(bytes.begin(), bytes.end(), 1);
        ASSERT_EQ(write(part, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        handle.IsPartValid("/proc/self/fd/" + std::to_string(part), kModeRawdump);
        ASSERT_EQ(lseek(part, 0, SEEK_SET), 0);
    }
    void TearDown() override {
        failures.clear();
        most = SIZE_MAX;
        close(part);
        close(file);
    }
    std::string Copied() const {
        struct stat status = {};
        fstat(file, &status);
        std::string copied(static_cast<size_t>(status.st_size), '\0');
        EXPECT_EQ(pread(file, copied.data(), copied.size(), 0), status.st_size);
        return copied;
    }
    std::string Stderr(const std::function<void()>& action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

    RainbowHandle handle;
    std::string bytes = std::string(3 * kChunk + 100, '\0');
    const int part = memfd_create("part", 0), file = memfd_create("file", 0);
};

TEST_F(PartitionIo, CopyMovesWholeChunks) {
    const struct {
        int64_t offset, size, copied;
        const char* end;
    } cases[] = {
        {0, 0, 0, "succ"},
        {7, kChunk - 1, kChunk - 1, "succ"},
        {7, kChunk, kChunk, "succ"},
        {7, kChunk + 1, 2 * kChunk, "succ"},
        {100, 3 * kChunk, 3 * kChunk, "succ"},
        {101, 3 * kChunk, 2 * kChunk, "finish"},  // the chunk that the end cuts is dropped
        {3 * kChunk + 100, kChunk, 0, "finish"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(ftruncate(file, 0), 0);
        const std::string log =
            Stderr([&] { EXPECT_EQ(handle.PartToEmmc(file, c.offset, c.size, kModeRawdump), 0); });
        EXPECT_NE(log.find(std::string("[PartToEmmc] get log from part to emmc ") + c.end + "\n"),
                  std::string::npos)
            << log;
        EXPECT_TRUE(Copied() == bytes.substr(c.offset, c.copied)) << c.offset << " " << c.size;
    }
    // A small copy behind the end writes its zeroed buffer.
    ASSERT_EQ(ftruncate(file, 0), 0);
    EXPECT_EQ(handle.PartToEmmc(file, 4 * kChunk, 100, kModeRawdump), 0);
    EXPECT_EQ(Copied(), std::string(100, '\0'));
}

TEST_F(PartitionIo, Bounds) {
    constexpr int64_t kMostCopied = 17716740096;
    constexpr int kMostMoved = 33554432;
    std::vector<uint8_t> buffer(kMostMoved);
    EXPECT_EQ(handle.PartToEmmc(file, 4 * kChunk, kMostCopied, kModeRawdump), 0);
    EXPECT_EQ(handle.PartCommonRW(0, buffer.data(), kMostMoved, kRead, kModeRawdump), 0);
    for (const auto& [offset, size] : {std::pair(int64_t{0}, kMostCopied + 1), {0, -1}, {-1, 1}}) {
        const std::string log = Stderr(
            [&, at = offset, n = size] { EXPECT_EQ(handle.PartToEmmc(file, at, n, 0), -1); });
        EXPECT_EQ(log, "[vorta] [PartToEmmc] input parm fail\n");
    }
    const struct {
        int64_t offset;
        void* buffer;
        int size, rw;
    } refused[] = {
        {0, buffer.data(), kMostMoved + 1, kRead},
        {0, buffer.data(), -1, kRead},
        {-1, buffer.data(), 1, kRead},
        {0, nullptr, 1, kRead},
        {0, buffer.data(), 1, 2},
    };
    for (const auto& c : refused) {
        const std::string log = Stderr(
            [&] { EXPECT_EQ(handle.PartCommonRW(c.offset, c.buffer, c.size, c.rw, 0), -1); });
        EXPECT_EQ(log, "[vorta] [PartCommonRW] input parm fail\n");
    }
}

TEST_F(PartitionIo, ReadRetryIsAllOrNothingAtTheEnd) {
    uint8_t buffer[200];
    EXPECT_EQ(handle.ReadRetry(part, buffer, 0), 0);
    lseek(part, 3 * kChunk, SEEK_SET);
    const std::string log = Stderr([&] { EXPECT_EQ(handle.ReadRetry(part, buffer, 200), 0); });
    EXPECT_EQ(log, "[vorta] [ReadRetry] end of file\n");
    lseek(part, 3 * kChunk, SEEK_SET);
    EXPECT_EQ(handle.ReadRetry(part, buffer, 100), 100);
}

TEST_F(PartitionIo, AFailedSmallCopyFails) {
    for (const auto& [number, told] : {std::pair(SYS_read, "[ReadRetry] dump read error: 5\n"),
                                       {SYS_write, "[WriteRetry] dump write error: 5\n"}}) {
        failures[number] = {EIO};
        const std::string log = Stderr([&] { EXPECT_EQ(handle.PartToEmmc(file, 0, 100, 0), -1); });
        EXPECT_NE(log.find(told), std::string::npos) << log;
    }
}

TEST_F(PartitionIo, ShortAndInterruptedTransfersGoOn) {
    most = 100;
    failures = {{SYS_read, {EINTR, EINTR}}, {SYS_write, {EINTR, EINTR}}};
    std::string received(600, 'g');
    EXPECT_EQ(handle.ReadRetry(part, received.data(), 250), 250);
    EXPECT_EQ(received, bytes.substr(0, 250) + std::string(350, 'g'));
    EXPECT_EQ(handle.WriteRetry(file, received.data(), 250), 0);
    EXPECT_EQ(Copied(), bytes.substr(0, 250));
    EXPECT_EQ(failures[SYS_read].size() + failures[SYS_write].size(), 0u);
}

}  // namespace
