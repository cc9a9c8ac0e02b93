// ReadFileToString on a Linux host.
#include "android-base/file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "android-base/unique_fd.h"

namespace android::base {

bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks) {
    content->clear();
    const int flags = O_RDONLY | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    const unique_fd fd(TEMP_FAILURE_RETRY(open(path.c_str(), flags)));
    if (!fd.ok()) {
        return false;
    }
    char chunk[4096];
    ssize_t n = 0;
    while ((n = TEMP_FAILURE_RETRY(read(fd.get(), chunk, sizeof(chunk)))) > 0) {
        content->append(chunk, static_cast<size_t>(n));
    }
    return n == 0;
}

}  // namespace android::base
