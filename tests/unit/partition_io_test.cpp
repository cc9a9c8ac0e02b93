// Whole-buffer transfers, copying a partition range, the bounds of both.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <numeric>
#include <vector>

#include "handle/PartitionRecords.h"
#include "rainbow/RainbowHandle.h"

namespace {

constexpr int64_t kChunk = 524288;

// A file that stands for a partition: the slot of a mode takes whatever path is opened into it.
class PartitionIo : public testing::Test {
  protected:
    void SetUp() override {
        part = Open(&partPath);
        file = Open(&filePath);
        std::vector<uint8_t> bytes(3 * kChunk + 100);
        std::iota(bytes.begin(), bytes.end(), uint8_t{1});
        ASSERT_EQ(write(part, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        handle.IsPartValid(partPath, kModeRawdump);
    }
    void TearDown() override {
        for (const auto& [fd, path] : {std::pair(part, partPath), std::pair(file, filePath)}) {
            close(fd);
            unlink(path.c_str());
        }
    }
    static int Open(std::string* path) {
        *path = testing::TempDir() + "vorta_XXXXXX";
        return mkstemp(path->data());
    }
    int64_t Copied() const {
        struct stat status = {};
        fstat(file, &status);
        return status.st_size;
    }
    std::string Stderr(const std::function<void()>& action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }

    RainbowHandle handle;
    int part = -1;
    int file = -1;
    std::string partPath, filePath;
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
        {4 * kChunk, kChunk, 0, "finish"},
        {4 * kChunk, 100, 100, "succ"},  // a small copy behind the end writes its zeroed buffer
    };
    for (const auto& c : cases) {
        ASSERT_EQ(ftruncate(file, 0), 0);
        const std::string log =
            Stderr([&] { EXPECT_EQ(handle.PartToEmmc(file, c.offset, c.size, kModeRawdump), 0); });
        EXPECT_EQ(Copied(), c.copied) << c.offset << " " << c.size;
        EXPECT_NE(log.find(std::string("[PartToEmmc] get log from part to emmc ") + c.end + "\n"),
                  std::string::npos)
            << log;
        std::vector<uint8_t> expected(c.copied), got(c.copied);
        EXPECT_GE(pread(part, expected.data(), expected.size(), c.offset), 0);
        EXPECT_EQ(pread(file, got.data(), got.size(), 0), c.copied);
        EXPECT_EQ(got, expected) << c.offset << " " << c.size;
    }
}

TEST_F(PartitionIo, BoundsOfACopy) {
    constexpr int64_t kMost = 17716740096;
    EXPECT_EQ(handle.PartToEmmc(file, 4 * kChunk, kMost, kModeRawdump), 0);
    for (const auto& range : {std::pair(int64_t{0}, kMost + 1), {0, -1}, {-1, 1}}) {
        const std::string log = Stderr([&] {
            EXPECT_EQ(handle.PartToEmmc(file, range.first, range.second, kModeRawdump), -1);
        });
        EXPECT_EQ(log, "[vorta] [PartToEmmc] input parm fail\n");
    }
}

TEST_F(PartitionIo, BoundsOfATransfer) {
    std::vector<uint8_t> buffer(VortaHandle::kMaxTransfer);
    EXPECT_EQ(handle.PartCommonRW(0, buffer.data(), VortaHandle::kMaxTransfer, 0, 0), 0);
    const struct {
        int64_t offset;
        void* buffer;
        int size, rw;
    } refused[] = {
        {0, buffer.data(), VortaHandle::kMaxTransfer + 1, 0},
        {0, buffer.data(), -1, 0},
        {-1, buffer.data(), 1, 0},
        {0, nullptr, 1, 0},
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
    EXPECT_EQ(handle.ReadRetry(-1, buffer, 1), -1);
    EXPECT_EQ(handle.WriteRetry(-1, buffer, 1), -1);
    EXPECT_EQ(handle.WriteRetry(-1, buffer, 0), 0);
}

TEST_F(PartitionIo, AFailedSmallCopyFails) {
    const int readOnly = open(filePath.c_str(), O_RDONLY);
    std::string log = Stderr([&] { EXPECT_EQ(handle.PartToEmmc(readOnly, 0, 100, 0), -1); });
    EXPECT_NE(log.find("[vorta] [WriteRetry] dump write error: 9\n"), std::string::npos) << log;
    close(readOnly);
    // The process's own memory can be opened and positioned like a partition; at 0 is nothing.
    handle.IsPartValid("/proc/self/mem", kModeUserdata);
    log = Stderr([&] { EXPECT_EQ(handle.PartToEmmc(file, 0, 100, kModeUserdata), -1); });
    EXPECT_NE(log.find("[vorta] [ReadRetry] dump read error: 5\n"), std::string::npos) << log;
}

TEST(Transfer, AShortReadAsksForTheRestOnly) {
    RainbowHandle handle;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);  // a read takes one packet
    const std::string packet(300, 'x');
    ASSERT_EQ(write(ends[1], packet.data(), 100), 100);
    ASSERT_EQ(write(ends[1], packet.data(), 300), 300);
    std::string received(600, 'g');
    EXPECT_EQ(handle.ReadRetry(ends[0], received.data(), 200), 200);
    EXPECT_EQ(received, std::string(200, 'x') + std::string(400, 'g'));
    close(ends[0]);
    close(ends[1]);
}

// A child takes what is written and sends it back, each time after many signals struck the waiting
// transfer.
TEST(Transfer, OutlastsSignals) {
    RainbowHandle handle;
    std::string sent(4 * kChunk, 'x');  // far more than the socket takes at once
    std::iota(sent.begin(), sent.end(), 'a');
    std::string received(sent.size(), '-');
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    if (fork() == 0) {
        close(ends[0]);
        usleep(20000);
        const ssize_t taken = recv(ends[1], received.data(), received.size(), MSG_WAITALL);
        usleep(20000);
        _exit(write(ends[1], received.data(), static_cast<size_t>(taken)) == taken ? 0 : 1);
    }
    close(ends[1]);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);  // no SA_RESTART
    const itimerval often = {{0, 1000}, {0, 1000}}, never = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const int64_t size = static_cast<int64_t>(sent.size());
    EXPECT_EQ(handle.WriteRetry(ends[0], sent.data(), size), 0);
    EXPECT_EQ(shutdown(ends[0], SHUT_WR), 0);  // the child never waits for ever
    EXPECT_EQ(handle.ReadRetry(ends[0], received.data(), size), size);
    EXPECT_TRUE(received == sent);
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    close(ends[0]);
}

}  // namespace
