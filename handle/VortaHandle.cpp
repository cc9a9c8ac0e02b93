// Partition slots, block I/O, copying and the CRC.
#include "handle/VortaHandle.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"

namespace {

const std::string kRawdumpPath = "/dev/block/by-name/rawdump";
const std::string kUserdataPath = "/dev/block/by-name/userdata";
const std::string kBootfailPath = "/dev/block/by-name/bootfail_info";

}  // namespace

// Process-wide: the destructor of any object closes them for all, so that no object owns them.
int VortaHandle::dumpFd = -1;
int VortaHandle::dataFd = -1;
int VortaHandle::reasonFd = -1;

VortaHandle::VortaHandle() {
    dumpFd = dataFd = reasonFd = -1;
    VortaLogD("VortaHandle begin");
}

VortaHandle::~VortaHandle() {
    for (int* const slot : {&dumpFd, &dataFd, &reasonFd}) {
        if (*slot >= 0) {
            (void)close(*slot);
            *slot = -1;
        }
    }
    VortaLogD("VortaHandle end");
}

void VortaHandle::IsPartValid(const std::string& path, uint8_t mode) {
    if (path.empty()) {
        return;
    }
    int& slot = mode == kModeUserdata ? dataFd : mode == kModeRawdump ? dumpFd : reasonFd;
    if (slot >= 0) {
        return;
    }
    slot = open(path.c_str(), O_RDWR | O_SYNC);
    if (slot < 0) {
        const int error = errno;
        VortaLogE("[%s] open %s fail, errno = %d", "IsPartValid", path.c_str(), error);
    }
}

int VortaHandle::PartCommonRW(int64_t offset, void* buffer, int size, int rw, uint8_t mode) {
    if (static_cast<uint32_t>(size) > kMaxTransfer || offset < 0 || buffer == nullptr ||
        (rw != kRead && rw != kWrite)) {
        VortaLogE("[%s] input parm fail", "PartCommonRW");
        return -1;
    }
    int fd = -1;
    if (mode == kModeUserdata) {
        IsPartValid(kUserdataPath, mode);
        fd = dataFd;
    } else if (mode == kModeRawdump) {
        IsPartValid(kRawdumpPath, mode);
        fd = dumpFd;
    } else {
        IsPartValid(kBootfailPath, mode);
        fd = reasonFd;
    }
    if (fd < 0) {
        return -1;
    }
    if (lseek(fd, offset, SEEK_SET) < 0) {
        const int error = errno;
        VortaLogE("[%s] lseek fail, errno = %d", "PartCommonRW", error);
        return -1;
    }
    const size_t bytes = static_cast<size_t>(size);
    const ssize_t done = rw == kRead ? read(fd, buffer, bytes) : write(fd, buffer, bytes);
    if (done < 0) {
        const int error = errno;
        VortaLogE(rw == kRead ? "[%s] read fail, errno = %d" : "[%s] write fail, errno = %d",
                  "PartCommonRW", error);
        return -1;
    }
    return 0;
}

int VortaHandle::ReadRetry(int fd, void* buffer, int64_t length) {
    if (length < 1) {
        return 0;
    }
    int64_t done = 0;
    while (done < length) {
        const ssize_t n = TEMP_FAILURE_RETRY(
            read(fd, static_cast<uint8_t*>(buffer) + done, static_cast<size_t>(length - done)));
        if (n < 0) {
            const int error = errno;
            VortaLogE("[%s] dump read error: %d", "ReadRetry", error);
            return -1;
        }
        if (n == 0) {
            VortaLogI("[%s] end of file", "ReadRetry");
            return 0;
        }
        done += n;
    }
    return static_cast<int>(done);
}

int VortaHandle::WriteRetry(int fd, const void* buffer, int64_t length) {
    int64_t done = 0;
    while (done < length) {
        const ssize_t n = TEMP_FAILURE_RETRY(write(fd, static_cast<const uint8_t*>(buffer) + done,
                                                   static_cast<size_t>(length - done)));
        if (n < 0) {
            const int error = errno;
            VortaLogE("[%s] dump write error: %d", "WriteRetry", error);
            return -1;
        }
        done += n;
    }
    return 0;
}

int VortaHandle::PartOrEmmcSeek(int partFd, int64_t partOffset, int fileFd, int64_t fileOffset) {
    if (lseek(partFd, partOffset, SEEK_SET) < 0) {
        const int error = errno;
        VortaLogE("[%s] lseek part errno = %d", "PartOrEmmcSeek", error);
        return -1;
    }
    if (lseek(fileFd, fileOffset, SEEK_SET) < 0) {
        const int error = errno;
        VortaLogE("[%s] lseek emmc errno = %d", "PartOrEmmcSeek", error);
        return -1;
    }
    return 0;
}

int VortaHandle::PartToEmmc(int fd, int64_t offset, int64_t size, uint8_t mode) {
    uint8_t buffer[kCopyChunk] = {};
    if (size > kMaxCopy || size < 0 || offset < 0) {
        VortaLogE("[%s] input parm fail", "PartToEmmc");
        return -1;
    }
    VortaLogI("[%s] offset = %ld, size = %ld", "PartToEmmc", static_cast<long>(offset),
              static_cast<long>(size));
    // For a mode above 1 userdata is opened into the slot of bootfail_info, while the copy reads
    // the slot of userdata: it fails unless that one is open already. No caller passes such a mode.
    IsPartValid(mode == kModeRawdump ? kRawdumpPath : kUserdataPath, mode);
    const int partFd = mode == kModeRawdump ? dumpFd : dataFd;
    if (partFd < 0 || PartOrEmmcSeek(partFd, offset, fd, 0) < 0) {
        return -1;
    }
    if (size >= kCopyChunk) {
        return CopyChunks(partFd, fd, offset, size, buffer);
    }
    if (ReadRetry(partFd, buffer, size) < 0 || WriteRetry(fd, buffer, size) < 0) {
        return -1;
    }
    VortaLogI("[%s] get log from part to emmc succ", "PartToEmmc");
    return 0;
}

// PartToEmmc for sizes of one chunk and more; logs under that name. Copies whole chunks and
// positions both descriptors before each.
int VortaHandle::CopyChunks(int partFd, int fd, int64_t offset, int64_t size, uint8_t* buffer) {
    int n = ReadRetry(partFd, buffer, kCopyChunk);
    if (n < 0) {
        VortaLogE("[%s] ReadRetry failed.", "PartToEmmc");
        return -1;
    }
    int64_t done = kCopyChunk;
    while (n != 0) {
        if (WriteRetry(fd, buffer, n) < 0) {
            VortaLogE("[%s] WriteRetry failed.", "PartToEmmc");
            return -1;
        }
        if (done >= size) {
            VortaLogI("[%s] get log from part to emmc succ", "PartToEmmc");
            return 0;
        }
        if (PartOrEmmcSeek(partFd, offset + done, fd, done) < 0) {
            return -1;
        }
        if (memset_s(buffer, kCopyChunk, 0, kCopyChunk) != 0) {
            VortaLogE("[%s] buf memset_s fail", "PartToEmmc");
        }
        n = ReadRetry(partFd, buffer, kCopyChunk);
        done += kCopyChunk;
        if (n < 0) {
            VortaLogE("[%s] ReadRetry failed.", "PartToEmmc");
            return -1;
        }
    }
    VortaLogI("[%s] get log from part to emmc finish", "PartToEmmc");
    return 0;
}

uint32_t VortaHandle::FulldumpCrc32(const uint8_t* buffer, uint8_t length) {
    constexpr uint32_t kPolynomial = 0x04C11DB7;
    constexpr uint32_t kTopBit = 0x80000000;
    if (buffer == nullptr) {
        return 0;
    }
    uint32_t crc = UINT32_MAX;
    for (uint8_t i = 0; i < length; ++i) {
        crc ^= static_cast<uint32_t>(buffer[i]) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & kTopBit) != 0 ? (crc << 1) ^ kPolynomial : crc << 1;
        }
    }
    return crc;
}
