// Host stand-in for the Android base library's file functions.
#pragma once

#include <string>

namespace android::base {

// Replaces `content` with the whole file. The last component of `path` may be a symbolic link only
// with `follow_symlinks`. False on any error; `content` then holds what was read before it.
bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks = false);

}  // namespace android::base
