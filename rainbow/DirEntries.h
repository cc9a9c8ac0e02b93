// Walking a folder: an owner for the stream, and its entries without the two that every folder has.
#pragma once

#include <dirent.h>
#include <string.h>

#include <memory>

struct CloseDir {
    void operator()(DIR* dir) const { (void)closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, CloseDir>;

// The next entry but "." and "..", or null at the end. The stream owns it, until the next call.
inline const dirent* NextEntry(const UniqueDir& dir) {
    const dirent* entry = nullptr;
    do {
        entry = readdir(dir.get());
    } while (entry != nullptr &&
             (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0));
    return entry;
}
