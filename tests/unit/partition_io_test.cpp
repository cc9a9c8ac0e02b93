// Whole-buffer transfers, copying a partition range, the bounds of both, and the CRC.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <numeric>
#include <thread>
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

TEST_F(PartitionIo, AnOddModeReadsTheUserdataSlot) {
    // It opens the slot of bootfail_info but reads from the one of userdata, which is closed.
    EXPECT_EQ(handle.PartToEmmc(file, 0, 10, 7), -1);
    handle.IsPartValid(partPath, kModeUserdata);
    EXPECT_EQ(handle.PartToEmmc(file, 0, 10, 7), 0);
    EXPECT_EQ(Copied(), 10);
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

TEST_F(PartitionIo, EveryOtherModeIsBootfailInfo) {
    uint8_t byte = 0;
    handle.IsPartValid(partPath, 7);
    EXPECT_EQ(handle.PartCommonRW(0, &byte, 1, 0, kModeBootfail), 0);
    EXPECT_EQ(byte, 1);
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

// Until the thread's transfer, which waits for this one, has surely been interrupted.
void Interrupt(pthread_t thread) {
    for (int i = 0; i < 20; ++i) {
        usleep(1000);
        pthread_kill(thread, SIGUSR1);
    }
}

// Each side closes its end when it is done, so that the other one never waits for ever.
TEST(Transfer, OutlastsSignals) {
    RainbowHandle handle;
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);  // no SA_RESTART
    ASSERT_EQ(sigaction(SIGPIPE, &action, nullptr), 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::string sent(4 * kChunk, 'x');  // far more than the socket takes at once
    std::iota(sent.begin(), sent.end(), 'a');
    std::string received(sent.size(), '-');
    const int64_t size = static_cast<int64_t>(sent.size());
    std::thread reader([&, writer = pthread_self()] {
        Interrupt(writer);
        EXPECT_EQ(handle.ReadRetry(ends[0], received.data(), size), size);
        close(ends[0]);
    });
    EXPECT_EQ(handle.WriteRetry(ends[1], sent.data(), size - 1), 0);
    Interrupt(reader.native_handle());
    EXPECT_EQ(write(ends[1], &sent.back(), 1), 1);
    close(ends[1]);
    reader.join();
    EXPECT_TRUE(received == sent);
}

TEST(FulldumpCrc32, Values) {
    RainbowHandle handle;
    const auto* const text = reinterpret_cast<const uint8_t*>("123456789");
    EXPECT_EQ(handle.FulldumpCrc32(text, 9), 0x376E6E7u);  // the algorithm's check value
    EXPECT_EQ(handle.FulldumpCrc32(text, 0), 0xFFFFFFFFu);
    EXPECT_EQ(handle.FulldumpCrc32(nullptr, 9), 0u);
}

}  // namespace
