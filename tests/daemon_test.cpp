// What a run leaves besides its promise: output and exit status, modes and owners, and how it meets
// storage that is full, read-only or missing.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>

#include "device/LoopDevice.h"
#include "device/Report.h"
#include "phone.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr char kUsage[] =
    "Usage: /vendor/bin/vorta [options] \n"
    "options include:\n"
    "  -r <rainbow>     Trigger a pre-defined rainbow service <rainbow>\n"
    "  -h <corvel>      Trigger a pre-defined corvel service <corvel>\n";

struct stat StatusOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
}

void ExpectModeAndOwner(const fs::path& path, mode_t mode) {
    const struct stat status = StatusOf(path);
    EXPECT_EQ(status.st_mode & 07777, mode) << path;
    if (geteuid() == 0) {
        EXPECT_EQ(status.st_uid, kOwner) << path;
        EXPECT_EQ(status.st_gid, kGroup) << path;
    }
}

TEST(CommandLine, OptionsChooseTheService) {
    const std::string unknown = std::string("Main:Unrecognized Option\n") + kUsage;
    const std::string name = "/vendor/bin/vorta: ";
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string out, err;
    } cases[] = {
        {{}, 0, "StartVorta\n", "[vorta] input srvName is invalid\n"},
        {{"operand"}, 0, "StartVorta\n", "[vorta] input srvName is invalid\n"},
        {{"operand", "-x"}, 0, "StartVorta\n", "[vorta] input srvName is invalid\n"},
        {{"--help"}, 0, "", kUsage},
        {{"--helpme", "-r", "x"}, 0, "", kUsage},
        {{"--hel"}, 255, "", name + "invalid option -- '-'\n" + unknown},
        {{"-r", "x", "--help"}, 255, "", name + "invalid option -- '-'\n" + unknown},
        {{"-r"}, 255, "", name + "option requires an argument -- 'r'\n" + unknown},
        {{"-x"}, 255, "", name + "invalid option -- 'x'\n" + unknown},
    };
    const Phone phone("normal-restart");
    const DeviceState before = ReadState(phone.device);
    for (const auto& c : cases) {
        const RunResult result = phone.Boot(c.arguments);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.out, c.out);
        EXPECT_EQ(result.err, c.err);
    }
    EXPECT_EQ(ReadState(phone.device).history, before.history);
}

// A partition that got the number of a closed standard descriptor would have the log's echo, or
// "StartVorta", written into it.
TEST(CommandLine, ClosedStandardDescriptorsAreOccupied) {
    const Phone phone("normal-restart");
    RunOptions options = Options();
    options.wrapper = {"/bin/sh", "-c", R"(exec "$0" "$@" <&- >&- 2>&-)"};
    const DeviceState before = ReadState(phone.device);
    const RunResult result = phone.Boot({"-r", "boot"}, options);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_EQ(CheckExpectations(phone.scenario, before, phone.device, result),
              std::vector<std::string>());
}

// The log has each line of standard error, with its level; nothing else is written to either.
TEST(Log, EchoAndLogAgree) {
    const Phone phone("kernel-panic", kQuick);
    const RunResult result = phone.Boot();
    EXPECT_EQ(result.out, "StartVorta\n");
    std::istringstream log(result.log);
    std::string echoed;
    for (std::string line; std::getline(log, line);) {
        EXPECT_TRUE(line.rfind("I vorta: ", 0) == 0 || line.rfind("E vorta: ", 0) == 0) << line;
        const bool ownNewline = line.find("[HistoryFileUpdate] history = ") != std::string::npos;
        echoed += "[vorta] " + line.substr(9) + (ownNewline ? "\n\n" : "\n");
    }
    EXPECT_EQ(result.err, echoed);
}

TEST(Files, HaveTheirModesAndOwners) {
    for (const mode_t mask : {0, 077}) {
        const Phone phone("kernel-panic", kQuick);
        const fs::path history = phone / (kDumplogRoot + "/" + kHistoryName);
        WriteFile(history, "earlier\n");
        ASSERT_EQ(chmod(history.c_str(), 0600), 0);
        RunOptions options = Options();
        options.umask = mask;
        (void)phone.Boot({"-r", "boot"}, options);
        ExpectModeAndOwner(history, kFileMode);
        ExpectModeAndOwner(phone.Folder(), kFolderMode);
        ExpectModeAndOwner(phone.Folder() / kDoneName, kFileMode);
        ExpectModeAndOwner(phone.Folder() / kRawdumpName, kFileMode);
        // The shell makes the text logs: the caller's mask decides.
        EXPECT_EQ(StatusOf(phone.Folder() / kLastKmsgName).st_mode & 0777, 0666 & ~mask);
    }
}

TEST(SecondBoot, CollectsNothingAgain) {
    const Phone phone("kernel-panic", kQuick);
    (void)phone.Boot();
    const auto collected = phone.Folders();
    const PartitionImages partitions = ReadPartitions(phone.device);
    (void)phone.Boot();
    EXPECT_EQ(phone.Folders(), collected);
    EXPECT_EQ(ParseHistory(phone.History()).entries.size(), 2u);
    for (const auto& [name, image] : ReadPartitions(phone.device)) {
        EXPECT_EQ(image.blocks, partitions.at(name).blocks) << name;
    }
}

// No room for the raw copy, no folder, no permission to write: the minidump keeps waiting, the run
// goes on to its end, and a later boot of the same kind with room collects it.
TEST(Storage, AFailedCollectionKeepsTheMinidump) {
    const struct {
        const char* name;
        void (*arrange)(const Phone&, RunOptions&);
        const char* log;
    } cases[] = {
        {"full", [](const Phone&, RunOptions& o) { o.dataSize = 8 << 20; },
         "E vorta: [WriteRetry] dump write error: 28"},
        {"read-only", [](const Phone&, RunOptions& o) { o.readOnlyData = true; },
         "E vorta: [HistoryFileOpen] open file /data/vendor/log/reliability/dumplog/history.log "
         "errno = 30"},
        {"missing", [](const Phone& p, RunOptions&) { fs::remove_all(p / kDumplogRoot); },
         "E vorta: [HistoryFileOpen] open file /data/vendor/log/reliability/dumplog/history.log "
         "errno = 2"},
    };
    for (const auto& c : cases) {
        const Phone phone("kernel-panic", kQuick);
        const std::string header = ReadFile(phone.Partition(kRawdumpPartition), 0, 472);
        RunOptions options = Options();
        c.arrange(phone, options);
        const RunResult result = phone.Boot({"-r", "boot"}, options);
        EXPECT_EQ(result.status, 0) << c.name;
        EXPECT_NE(result.log.find(c.log), std::string::npos) << c.name << "\n" << result.log;
        EXPECT_TRUE(phone.MinidumpWaits()) << c.name;
        fs::create_directories(phone / kDumplogRoot);
        for (const std::string& name : phone.Folders()) {
            fs::remove_all(phone / (kDumplogRoot + "/" + name));
        }
        std::fstream(phone.Partition(kRawdumpPartition)).write(header.data(), 472);
        (void)phone.Boot();
        EXPECT_TRUE(fs::exists(phone.Folder() / kDoneName)) << c.name;
        EXPECT_FALSE(phone.MinidumpWaits()) << c.name;
    }
}

TEST(Storage, WithoutRawdumpNothingHappens) {
    Scenario scenario = Patched("kernel-panic", {kQuick});
    scenario.rawdump.reset();
    const Phone phone(scenario);
    const RunResult result = phone.Boot();
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(
        result.log.find("E vorta: [IsPartValid] open /dev/block/by-name/rawdump fail, errno = 2"),
        std::string::npos);
    EXPECT_TRUE(phone.Folders().empty());
    EXPECT_EQ(phone.History(), "");
}

// What is neither a file nor a folder is no old dump; its size counts all the same.
TEST(Storage, OnlyFilesAndFoldersArePruned) {
    const Phone phone("kernel-panic", kQuick);
    const fs::path large = phone / (kFulldumplogRoot + "/large");
    WriteFile(large, "");
    fs::resize_file(large, 81 << 20);
    const fs::path link = phone / (kDumplogRoot + "/0");
    fs::create_symlink(kFulldumplogRoot + "/large", link);
    const RunResult result = phone.Boot();
    EXPECT_NE(result.log.find("[DumpSizeCheck] dumplog too big"), std::string::npos) << result.log;
    EXPECT_TRUE(fs::is_symlink(fs::symlink_status(link)));
    EXPECT_FALSE(phone.MinidumpWaits());
}

// On a block device the end is where it is: a chunk that meets it is dropped, nothing grows.
TEST(Storage, EndOfAPartition) {
    try {
        const Phone probe("normal-restart");
        const LoopDevice loop(probe.Partition(kBootfailPartition));
    } catch (const DeviceError& error) {
        GTEST_SKIP() << "no loop devices here: " << error.what();
    }
    constexpr uint64_t kEnd = 64 << 20;
    constexpr uint64_t kChunk = 512 << 10;
    const struct {
        uint64_t fromEnd, copied;  // of a dump of three chunks
    } cases[] = {
        {4 * kChunk, 3 * kChunk},
        {2 * kChunk, 2 * kChunk},
        {2 * kChunk - 512, kChunk},
        {512, 0},
    };
    for (const auto& c : cases) {
        const uint64_t offset = kEnd - c.fromEnd;
        const Phone phone("full-dump", R"({"meta": {"dumpSize": 1572864, "dumpOffset": )" +
                                           std::to_string(offset) + "}}");
        std::fstream userdata(phone.Partition(kUserdataPartition));
        userdata.seekp(static_cast<std::streamoff>(offset + offsetof(DumpHeader, flag)));
        userdata.put(char{kDumpPresent});
        userdata.close();
        RunOptions options = Options();
        options.loop = true;
        EXPECT_EQ(phone.Boot({"-r", "boot"}, options).status, 0);
        uint64_t copied = 0;
        for (const auto& entry : fs::directory_iterator(phone / kFulldumplogRoot)) {
            copied += entry.file_size();  // DONE is empty
        }
        EXPECT_EQ(copied, c.copied) << c.fromEnd;
        EXPECT_EQ(ReadFile(phone.Partition(kUserdataPartition), offset, sizeof(DumpHeader)),
                  std::string(sizeof(DumpHeader), '\0'))
            << c.fromEnd;
    }
}

// Every input is random bytes: the daemon ends by itself, without a signal or a sanitizer's report,
// and writes only its own fields.
TEST(RandomDevice, SurvivesAndStaysInItsFields) {
    const char* const wanted = getenv("VORTA_RANDOM_BOOTS");
    const int boots = wanted == nullptr ? 8 : atoi(wanted);
    for (int seed = 1; seed <= boots; ++seed) {
        std::mt19937_64 random(seed);
        const auto bytes = [&](size_t most) {
            std::string text(random() % (most + 1), '\0');
            for (char& c : text) {
                c = static_cast<char>(random());
            }
            return text;
        };
        const Phone phone("damaged-records", "{\"seed\": " + std::to_string(seed * 1000) + "}");
        for (const char* path :
             {"/proc/cmdline", "/proc/pmic_pon_log", "/proc/device-tree/rootparam/qcom,boardid"}) {
            WriteFile(phone / path, bytes(random() % 2 == 0 ? 16 : 4096));
        }
        std::string properties;
        for (const char* name : {"ro.logsystem.usertype", "msc.sys.country", "ro.runmode",
                                 "persist.log.remotedebug"}) {
            const char* const usual[] = {"3", "cn", "factory", "true"};
            properties += std::string(name) + "=" +
                          (random() % 2 == 0 ? usual[random() % 4] : bytes(91)) + "\n";
        }
        WriteFile(phone / "/vendor/build.prop", properties);
        std::fstream rawdump(phone.Partition(kRawdumpPartition));
        rawdump.seekp(20).put(static_cast<char>(random() % 4));  // boot level: about half abnormal
        rawdump.seekp(kMinidumpRegion.offset + 12).put(static_cast<char>(random()));
        rawdump.close();

        const PartitionImages before = ReadPartitions(phone.device);
        const RunResult result = phone.Boot({random() % 4 == 0 ? "-h" : "-r", bytes(12) + "x"});
        EXPECT_EQ(result.status, 0) << "seed " << seed << "\n" << result.err;
        for (const auto& [name, image] : ReadPartitions(phone.device)) {
            PartitionImage expected = before.at(name);
            if (name == kRawdumpPartition) {
                expected.Replace(0, image.Range(0, 328));
                expected.Replace(404, image.Range(404, 8));
                expected.Replace(456, image.Range(456, 4));
                expected.Replace(464, image.Range(464, 4));
                expected.Replace(kMinidumpRegion.offset, image.Range(kMinidumpRegion.offset, 56));
            }
            EXPECT_TRUE(image.blocks == expected.blocks) << name << ", seed " << seed;
        }
    }
}

}  // namespace

}  // namespace vortadev
