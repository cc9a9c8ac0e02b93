// The minidump: a raw copy of its region, which is then packed into a gzip file.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <stdio.h>
#include <zlib.h>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

using android::base::unique_fd;

namespace {

constexpr size_t kPackChunk = 128;
// What the streams on both sides of that chunk gather. With their defaults, a page and 8 KiB,
// packing takes forty times as many system calls.
constexpr size_t kPackGather = 131072;

// Packs all of `in`. A read error ends it like the end of the file. Only a negative result is a
// failure, and zlib answers 0 even when the disk is full: see docs/hazards.md.
bool PackStream(FILE* in, gzFile out) {
    char buffer[kPackChunk] = {};
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof(buffer), in)) > 0) {
        if (gzwrite(out, buffer, static_cast<unsigned>(n)) < 0) {
            const int error = errno;
            VortaLogE("[%s] gzwrite file errno = %d", "DumpFileCompress", error);
            return false;
        }
        if (memset_s(buffer, sizeof(buffer), 0, sizeof(buffer)) != 0) {
            VortaLogE("[%s] buf memset_s fail", "DumpFileCompress");
        }
    }
    return true;
}

}  // namespace

void RainbowHandle::SaveMiniDump(uint8_t mode) {
    unique_fd tmpFd(DumpFileCreate(tmpDumpPath, recordTime + "/" + kTmpDumpName, mode));
    if (!tmpFd.ok() ||
        PartToEmmc(tmpFd.get(), kMinidumpRegion.offset, kMinidumpRegion.size, mode) < 0) {
        return;
    }
    const unique_fd rawFd(DumpFileCreate(rawdumpPath, recordTime + "/" + kRawdumpName, mode));
    if (!rawFd.ok()) {
        return;
    }
    if (DumpFileCompress() >= 0) {
        ClearHeaderOnceStored(rawFd.get(), mode, "SaveMiniDump");
    }
    tmpFd.reset();  // the raw copy first
}

int RainbowHandle::DumpFileCompress() {
    FILE* const in = fopen(tmpDumpPath.c_str(), "rb");
    if (in == nullptr) {
        return -1;
    }
    const gzFile out = gzopen(rawdumpPath.c_str(), "wb");
    if (out == nullptr) {
        (void)fclose(in);
        return -1;
    }
    char gathered[kPackGather];
    (void)setvbuf(in, gathered, _IOFBF, sizeof(gathered));
    (void)gzbuffer(out, kPackGather);
    const bool packed = PackStream(in, out);
    // Closed by hand: the input first, and before the raw copy is removed. The end of the packed
    // file is written here; a failure of that is not looked at.
    (void)fclose(in);
    (void)gzclose(out);
    if (!packed) {
        return -1;
    }
    // No error: whoever reads only the errors is to see that a dump was packed.
    VortaLogE("[%s] gzwrite file succ", "DumpFileCompress");
    DirOrFileRemove(tmpDumpPath);
    return 0;
}
