// Making a simulated device, and reading its partitions.
#include "device/DeviceFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "device/Content.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr uint64_t kBlock = PartitionImage::kBlock;
constexpr mode_t kLogFolderMode = 0770;

fs::path PartitionPath(const fs::path& device, const std::string& name) {
    return device / kPartitionFolder / name;
}

// A sparse file of that size, or nothing for a missing partition.
Fd MakePartition(const fs::path& path, std::optional<uint64_t> size) {
    if (!size) {
        return Fd();
    }
    Fd fd = OpenFile(path, O_WRONLY | O_CREAT | O_EXCL);
    if (ftruncate(fd.Get(), static_cast<off_t>(*size)) != 0) {
        throw SystemError("make a partition of that size,", path);
    }
    return fd;
}

// Writes what fits into the partition, leaving blocks of zeros as holes.
void Put(const Fd& fd, uint64_t size, uint64_t offset, const std::string& bytes,
         const fs::path& path) {
    static const std::string zeros(kBlock, '\0');
    const uint64_t end = std::min<uint64_t>(bytes.size(), size - std::min(size, offset));
    for (uint64_t at = 0; at < end; at += kBlock) {
        const std::string block = bytes.substr(at, std::min(kBlock, end - at));
        if (zeros.compare(0, block.size(), block) != 0) {
            WriteAt(fd, offset + at, block, path);
        }
    }
}

void MakeRawdump(const fs::path& device, const Scenario& scenario) {
    const fs::path path = PartitionPath(device, kRawdumpPartition);
    const Fd fd = MakePartition(path, scenario.rawdump);
    if (!fd) {
        return;
    }
    const auto put = [&](const Region& region, const std::string& bytes) {
        Put(fd, *scenario.rawdump, static_cast<uint64_t>(region.offset), bytes, path);
    };
    for (const LogRegion& log : LogRegions()) {
        put(log.region, Render(scenario.logs.at(log.name), log.name));
    }
    std::string dump = Render(scenario.minidump, "minidump");
    dump.resize(std::max(dump.size(), scenario.minidumpHeader.size()));
    dump.replace(0, scenario.minidumpHeader.size(), scenario.minidumpHeader);
    put(kMinidumpRegion, dump);
    put(kReasonHeaderRegion, scenario.reasonHeader);
}

void MakeOtherPartitions(const fs::path& device, const Scenario& scenario) {
    const fs::path bootfailPath = PartitionPath(device, kBootfailPartition);
    const Fd bootfail = MakePartition(bootfailPath, scenario.bootfailInfo);
    if (bootfail) {
        Put(bootfail, *scenario.bootfailInfo, kFulldumpMetaRegion.offset, scenario.meta,
            bootfailPath);
    }
    const fs::path userdataPath = PartitionPath(device, kUserdataPartition);
    const Fd userdata = MakePartition(userdataPath, scenario.userdata);
    if (userdata && scenario.fulldump) {
        std::string dump = Render(scenario.fulldump->content, "minidump");
        dump.resize(std::max(dump.size(), scenario.fulldump->header.size()));
        dump.replace(0, scenario.fulldump->header.size(), scenario.fulldump->header);
        Put(userdata, *scenario.userdata, scenario.fulldump->offset, dump, userdataPath);
    }
}

void MakeProc(const fs::path& device, const Scenario& scenario) {
    WriteFile(OnDevice(device, "/proc/cmdline"), scenario.cmdline);
    if (scenario.ponLog) {
        WriteFile(OnDevice(device, kPmicPonLogPath), *scenario.ponLog);
    }
    if (scenario.boardId) {
        WriteFile(OnDevice(device, kBoardIdPath), *scenario.boardId);
    }
    // The leak checker of a sanitizer build looks at its own threads; the sandbox keeps the real
    // /proc aside for it. The daemon is one of the first processes there.
    for (const std::string name : {"self", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        fs::create_symlink("/.proc/" + name, device / "proc" / name);
    }
}

// A program that the device gets from the host; `package` is the Debian package that brings it.
fs::path HostProgram(const std::string& name, const std::string& package) {
    fs::path program = FindProgram(name);
    if (program.empty()) {
        throw DeviceError(name + " is missing on this machine; install the package " + package);
    }
    return program;
}

void MakeSystem(const fs::path& device) {
    const fs::path bin = device / "system/bin";
    fs::create_directories(bin);
    fs::copy_file(HostProgram("mksh", "mksh"), bin / "sh");
    fs::copy_file(HostProgram("toybox", "toybox"), bin / "toybox");
    for (const std::string name : {"cat", "strings", "ls", "head", "tail", "xxd", "stat"}) {
        fs::create_symlink("toybox", bin / name);
    }
    fs::create_directory_symlink("system/bin", device / "bin");
}

fs::path FactoryLibraryPath(FactoryLibrary kind) {
    const std::string name = kind == FactoryLibrary::kPresent ? "lib_factory_interface.so"
                                                              : "lib_factory_without_symbol.so";
    const fs::path built = fs::path(VORTADEV_LIBRARIES) / name;
    return fs::exists(built) ? built : ProgramFolder() / name;
}

void MakeVendor(const fs::path& device, const Scenario& scenario) {
    std::string properties;
    for (const auto& [name, value] : scenario.properties) {
        properties.append(name).append("=").append(value).append("\n");
    }
    WriteFile(OnDevice(device, "/vendor/build.prop"), properties);
    WriteFile(OnDevice(device, "/vendor/bin/vorta"), "");
    fs::create_directories(device / "vendor/lib64");
    if (scenario.factoryLibrary != FactoryLibrary::kAbsent) {
        fs::copy_file(FactoryLibraryPath(scenario.factoryLibrary),
                      device / "vendor/lib64" / kFactoryLibrary);
        fs::create_directories(device / "data/vendor/factory");
    }
}

void MakeData(const fs::path& device, const Scenario& scenario) {
    for (const std::string& root : {kDumplogRoot, kFulldumplogRoot}) {
        fs::create_directories(OnDevice(device, root));
    }
    for (const DataEntry& entry : scenario.data) {
        const fs::path path = device / "data" / entry.path;
        fs::create_directories(entry.kind == DataEntry::kFolder ? path : path.parent_path());
        if (entry.kind == DataEntry::kFile) {
            WriteFile(path, Render(entry.content, path.filename()));
        }
    }
    // Links come last: nothing is written through one.
    for (const DataEntry& entry : scenario.data) {
        if (entry.kind == DataEntry::kLink) {
            fs::create_symlink(entry.target, device / "data" / entry.path);
        }
    }
    for (const fs::path& folder :
         {OnDevice(device, kDumplogRoot), OnDevice(device, kFulldumplogRoot),
          OnDevice(device, kDumplogRoot).parent_path()}) {
        (void)chmod(folder.c_str(), kLogFolderMode);
        (void)chown(folder.c_str(), kOwner, kGroup);  // as root only
    }
}

void MakeRoom(const fs::path& device, bool replace) {
    if (!fs::exists(device) || (fs::is_directory(device) && fs::is_empty(device))) {
        return;
    }
    if (!IsDevice(device)) {
        throw DeviceError(device.string() +
                          " exists and is no simulated device; choose another folder");
    }
    if (!replace) {
        throw DeviceError(device.string() + " is a simulated device already; --force replaces it");
    }
    fs::remove_all(device);
}

}  // namespace

fs::path OnDevice(const fs::path& device, const std::string& path) {
    return device / path.substr(1);
}

bool IsDevice(const fs::path& folder) {
    std::error_code error;
    return fs::is_directory(folder / kPartitionFolder, error) &&
           fs::exists(folder / kScenarioFile, error);
}

void CreateDevice(const fs::path& device, const Scenario& scenario, bool replace) {
    const mode_t mask = umask(022);
    try {
        MakeRoom(device, replace);
        fs::create_directories(device / kPartitionFolder);
        WriteFile(device / kScenarioFile, scenario.source);
        MakeRawdump(device, scenario);
        MakeOtherPartitions(device, scenario);
        MakeProc(device, scenario);
        MakeSystem(device);
        MakeVendor(device, scenario);
        MakeData(device, scenario);
    } catch (const fs::filesystem_error& error) {
        (void)umask(mask);
        throw DeviceError("cannot make " + error.path1().string() + ": " + error.code().message());
    } catch (...) {
        (void)umask(mask);
        throw;
    }
    (void)umask(mask);
}

std::string PartitionImage::Range(uint64_t offset, uint64_t length) const {
    length = std::min(length, size - std::min(size, offset));
    std::string bytes(length, '\0');
    auto block = blocks.lower_bound(offset - offset % kBlock);
    for (; block != blocks.end() && block->first < offset + length; ++block) {
        const uint64_t from = std::max(offset, block->first);
        const uint64_t to = std::min(offset + length, block->first + block->second.size());
        if (to > from) {
            bytes.replace(from - offset, to - from, block->second, from - block->first, to - from);
        }
    }
    return bytes;
}

void PartitionImage::Replace(uint64_t offset, const std::string& bytes) {
    const uint64_t end = std::min(size, offset + bytes.size());
    for (uint64_t at = offset; at < end; ++at) {
        std::string& block = blocks[at - at % kBlock];
        block.resize(std::min(kBlock, size - (at - at % kBlock)));
        block[at % kBlock] = bytes[at - offset];
    }
}

PartitionImages ReadPartitions(const fs::path& device) {
    PartitionImages images;
    static const std::string zeros(kBlock, '\0');
    for (const std::string& name : {kRawdumpPartition, kUserdataPartition, kBootfailPartition}) {
        const fs::path path = PartitionPath(device, name);
        if (!fs::exists(path)) {
            continue;
        }
        PartitionImage& image = images[name];
        image.size = fs::file_size(path);
        const Fd fd = OpenFile(path, O_RDONLY);
        std::string block(kBlock, '\0');
        for (off_t data = 0; (data = lseek(fd.Get(), data, SEEK_DATA)) >= 0;) {
            const off_t hole = lseek(fd.Get(), data, SEEK_HOLE);
            for (data -= data % kBlock; data < hole; data += kBlock) {
                block.resize(kBlock);
                const ssize_t n = pread(fd.Get(), block.data(), kBlock, data);
                if (n < 0) {
                    throw SystemError("read", path);
                }
                block.resize(static_cast<size_t>(n));
                if (zeros.compare(0, block.size(), block) != 0) {
                    image.blocks[static_cast<uint64_t>(data)] = block;
                }
            }
        }
    }
    return images;
}

}  // namespace vortadev
