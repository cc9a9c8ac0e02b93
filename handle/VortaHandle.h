// Base of both services: the three raw partitions, positioned block I/O on them, and copying a
// partition range into a file.
#pragma once

#include <stdint.h>

#include <string>

#include "common/VortaParse.h"
#include "handle/PartitionRecords.h"

// Direction of a transfer.
constexpr int kRead = 0;
constexpr int kWrite = 1;

class VortaHandle : public VortaParse {
  public:
    // Largest size of one PartCommonRW transfer (32 MiB) and of one PartToEmmc copy (16.5 GiB).
    static constexpr uint32_t kMaxTransfer = 33554432;
    static constexpr int64_t kMaxCopy = 17716740096;
    static constexpr int64_t kCopyChunk = 524288;

    VortaHandle();
    ~VortaHandle() override;  // closes the partitions, which all objects share

    // Opens the partition of `mode` (kModeRawdump, kModeUserdata, else bootfail_info) at `path`,
    // unless its slot is open. A failure is logged and leaves the slot closed.
    void IsPartValid(const std::string& path, uint8_t mode);

    // One read (`rw` kRead) or write (kWrite) of `size` bytes at byte `offset` of the partition of
    // `mode`. Returns 0, or -1 after logging why. A short transfer counts as success.
    int PartCommonRW(int64_t offset, void* buffer, int size, int rw, uint8_t mode);

    // Reads `length` bytes, repeating interrupted and short reads. Returns `length`; 0 if the end
    // of the file comes first, even after some bytes; -1 on an error, which is logged.
    int ReadRetry(int fd, void* buffer, int64_t length);

    // Writes `length` bytes, repeating interrupted and short writes. Returns 0 when all was
    // written, -1 on an error, which is logged.
    int WriteRetry(int fd, const void* buffer, int64_t length);

    // Positions the partition and the file, both from their start. Returns 0, or -1 (logged).
    int PartOrEmmcSeek(int partFd, int64_t partOffset, int fileFd, int64_t fileOffset);

    // Copies `size` bytes at `offset` of rawdump or userdata (`mode`) to the start of the open file
    // `fd`. From 524288 bytes on, whole chunks of that size are copied: `size` is rounded up, and a
    // last chunk that the partition's end cuts short is dropped. Returns 0, or -1 (logged); the
    // file then keeps what was written.
    int PartToEmmc(int fd, int64_t offset, int64_t size, uint8_t mode);

    // CRC-32/MPEG-2 (polynomial 0x04C11DB7, all bits set initially, neither reflected nor
    // inverted). A null buffer gives 0.
    uint32_t FulldumpCrc32(const uint8_t* buffer, uint8_t length);

  private:
    int CopyChunks(int partFd, int fd, int64_t offset, int64_t size, uint8_t* buffer);

    static int dumpFd;    // rawdump
    static int dataFd;    // userdata
    static int reasonFd;  // bootfail_info
};
