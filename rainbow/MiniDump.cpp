// The minidump: a raw copy of its region, which is then packed into a gzip file.
#include <android-base/unique_fd.h>
#include <errno.h>
#include <stdio.h>
#include <zlib.h>

#include <memory>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

using android::base::unique_fd;

namespace {

constexpr size_t kPackChunk = 128;
// Buffer size of the streams that chunks are read from and written to. With their defaults, a page
// and 8 KiB, packing takes forty times as many system calls.
constexpr size_t kPackGather = 131072;

struct CloseStream {
    void operator()(FILE* in) const { (void)fclose(in); }
    void operator()(gzFile out) const { (void)gzclose(out); }
};

// Packs all of `in`. A read error counts as the end of the file. Only a negative result of gzwrite
// is a failure; zlib returns 0 even when the disk is full: see docs/hazards.md.
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
    tmpFd.reset();  // first, as its file is removed by now: that frees the room
                    // last
}

int RainbowHandle::DumpFileCompress() {
    char gathered[kPackGather];  // must outlive the stream that uses it
    std::unique_ptr<FILE, CloseStream> in(fopen(tmpDumpPath.c_str(), "rb"));
    if (in == nullptr) {
        return -1;
    }
    std::unique_ptr<gzFile_s, CloseStream> out(gzopen(rawdumpPath.c_str(), "wb"));
    if (out == nullptr) {
        return -1;
    }
    (void)setvbuf(in.get(), gathered, _IOFBF, sizeof(gathered));
    (void)gzbuffer(out.get(), kPackGather);
    const bool packed = PackStream(in.get(), out.get());
    // The input first, then the packed file, whose end is written here: a failure of that is not
    // looked at. Only then may the raw copy go.
    in.reset();
    out.reset();
    if (!packed) {
        return -1;
    }
    // No error, but at this level also a log of errors alone shows that a dump was packed.
    VortaLogE("[%s] gzwrite file succ", "DumpFileCompress");
    DirOrFileRemove(tmpDumpPath);
    return 0;
}
