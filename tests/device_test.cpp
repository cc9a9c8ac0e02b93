// The host tool's library: scenario files that are wrong, and sources that are damaged.
#include <gtest/gtest.h>

#include "device/Report.h"
#include "phone.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

// One line that names the file, the key and what was expected.
TEST(ScenarioFile, ErrorsNameFileKeyAndExpectation) {
    const struct {
        const char* json;
        const char* key;
        const char* expected;
    } cases[] = {
        {"{", "", ""},
        {"[]", "", "object"},
        {R"({"bootlevel": 1})", "bootlevel", ""},
        {R"({"reasonHeader": {"bootlevel": 1}})", "reasonHeader", "bootLevel"},
        {R"({"reasonHeader": {"bootLevel": 4294967296}})", "reasonHeader.bootLevel", "expected"},
        {R"({"reasonHeader": {"bootLevel": -1}})", "reasonHeader.bootLevel", "expected"},
        {R"({"reasonHeader": {"resetType": "WARMER"}})", "reasonHeader.resetType", "four"},
        {R"({"reasonHeader": {"mreasonStr": "0123456789012345678901234567890123"}})",
         "reasonHeader.mreasonStr", "32"},
        {R"({"properties": {"ro.runmode": 1}})", "properties.ro.runmode", "text"},
        {R"({"partitions": {"rawdump": 1000}})", "partitions.rawdump", "multiple of 512"},
        {R"({"logs": {"tz_log": {"file": "missing.txt"}}})", "logs.tz_log", "missing.txt"},
        {R"({"logs": {"tz_log": {"text": "x", "size": "1GiB"}}})", "logs.tz_log", "1048576"},
        {R"({"boardId": "zz"})", "boardId", "hex"},
        {R"({"data": {"../outside": "folder"}})", "data", "below"},
        {R"({"fulldump": {"offset": 0, "size": "1GiB"}})", "fulldump", "userdata"},
        {R"({"expect": {"cleared": ["everything"]}})", "expect.cleared", "minidump"},
    };
    for (const auto& c : cases) {
        try {
            (void)ParseScenario(c.json, "phone.json");
            ADD_FAILURE() << "accepted: " << c.json;
        } catch (const DeviceError& error) {
            const std::string what = error.what();
            EXPECT_EQ(what.find('\n'), std::string::npos) << what;
            EXPECT_EQ(what.rfind("phone.json: ", 0), 0u) << what;
            EXPECT_NE(what.find(c.key), std::string::npos) << what;
            EXPECT_NE(what.find(c.expected), std::string::npos) << what;
        }
    }
}

TEST(DeviceFolder, ForeignFoldersAreLeftAlone) {
    const Phone phone("normal-restart");
    const fs::path foreign = phone.device / "data";
    EXPECT_THROW(CreateDevice(foreign, phone.scenario), DeviceError);
    EXPECT_THROW(CreateDevice(foreign, phone.scenario, true), DeviceError);
    EXPECT_THROW(CreateDevice(phone.device, phone.scenario), DeviceError);
    CreateDevice(phone.device, phone.scenario, true);
    EXPECT_TRUE(IsDevice(phone.device));
}

// Reports never fail on content: what is damaged is said, what is whole is still shown.
TEST(Report, DamageIsShownAsDamage) {
    const Phone phone("kernel-panic", kQuick);
    const struct {
        const char* name;
        void (*damage)(const Phone&);
        const char* said;
    } cases[] = {
        {"nothing", [](const Phone&) {}, "a dump waits at 0x400000"},
        {"checksum",
         [](const Phone& p) { WriteFile(p.Partition(kBootfailPartition), std::string(4096, 'Z')); },
         "checksum              broken"},
        {"short bootfail_info",
         [](const Phone& p) { WriteFile(p.Partition(kBootfailPartition), std::string(1040, 'Z')); },
         "cut off: 16 of 56 bytes"},
        {"binary history",
         [](const Phone& p) {
             WriteFile(p / (kDumplogRoot + "/" + kHistoryName), std::string("\0\xff\x1b[31m\n", 8));
         },
         "8 bytes damaged"},
        {"short rawdump",
         [](const Phone& p) { fs::resize_file(p.Partition(kRawdumpPartition), 300); },
         "cut off: 300 of 472 bytes"},
        {"no rawdump", [](const Phone& p) { fs::remove(p.Partition(kRawdumpPartition)); },
         "No such file"},
    };
    for (const auto& c : cases) {
        c.damage(phone);
        const DeviceReport report = ReadDevice(phone.device);
        const std::string text = ReportText(report);
        EXPECT_NE(text.find(c.said), std::string::npos) << c.name << "\n" << text;
        EXPECT_EQ(text.find('\x1b'), std::string::npos) << c.name;
        EXPECT_FALSE(ReportJson(report).dump(-1, ' ', true).empty()) << c.name;
    }
}

TEST(Report, ReadsImagesAndPulledFolders) {
    const Phone phone("kernel-panic", kQuick);
    (void)phone.Boot();
    const struct {
        fs::path source;
        const char* has;
    } cases[] = {
        {phone.Partition(kRawdumpPartition), "reasonHeader"},
        {phone.Partition(kBootfailPartition), "meta"},
        {(phone / kDumplogRoot).parent_path(), "history"},
        {phone / kDumplogRoot, "history"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(ReportJson(ReadDevice(c.source)).contains(c.has)) << c.source;
    }
    EXPECT_THROW((void)ReadDevice(phone.device / "missing"), DeviceError);
}

}  // namespace

}  // namespace vortadev
