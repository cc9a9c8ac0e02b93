// Decisions about the dump folders.
#include "rainbow/DumpFolders.h"

#include <algorithm>

std::string EntryPath(const std::string& folder, const std::string& name) {
    return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

std::string OldestName(const std::vector<std::string>& names) {
    const auto oldest = std::min_element(names.begin(), names.end());
    return oldest == names.end() ? "" : *oldest;
}

int32_t AddSize(int32_t sum, int64_t size) {
    return static_cast<int32_t>(static_cast<uint32_t>(sum) + static_cast<uint32_t>(size));
}
