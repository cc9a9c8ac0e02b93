// The dump folders: what is the oldest, how sizes add up, how trees are listed and removed.
#include "rainbow/DumpFolders.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "rainbow/RainbowHandle.h"

namespace fs = std::filesystem;

namespace {

class TemporaryFolder : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "vorta_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override { fs::remove_all(folder); }

    std::string File(const std::string& name, uintmax_t size) {
        const fs::path path = folder / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path).put('x');
        fs::resize_file(path, size);
        return path;
    }

    fs::path folder;
    RainbowHandle handle;
};

TEST(EntryPath, HasOneSlashBetween) {
    EXPECT_EQ(EntryPath("/a", "b"), "/a/b");
    EXPECT_EQ(EntryPath("/a/", "b"), "/a/b");
    EXPECT_EQ(EntryPath("", "b"), "b");
}

TEST(OldestName, SortsByteByByte) {
    EXPECT_EQ(OldestName({}), "");
    EXPECT_EQ(OldestName({"history.log"}), "history.log");
    EXPECT_EQ(OldestName({"history.log", "20240101000000-00000001", "20231231235959-99999999"}),
              "20231231235959-99999999");
    EXPECT_EQ(OldestName({"20240101000000-00000001", "\xC3", "!"}), "!");
}

TEST(DumplogLimit, DependsOnTheBuild) {
    EXPECT_EQ(DumplogLimit(true), 5 << 20);
    EXPECT_EQ(DumplogLimit(false), 80 << 20);
}

TEST(AddSize, WrapsAt32Bits) {
    EXPECT_EQ(AddSize(1, 2), 3);
    EXPECT_EQ(AddSize(INT32_MAX, 1), INT32_MIN);
    EXPECT_EQ(AddSize(5, int64_t{1} << 32), 5);
    EXPECT_EQ(AddSize(0, int64_t{3} << 30), -1073741824);
}

TEST_F(TemporaryFolder, ListsFilesOfATree) {
    const std::string deep = File("a/b/deep", 1);
    const std::string top = File("top", 1);
    fs::create_directory(folder / "empty");
    fs::create_symlink("nowhere", folder / "link");
    for (const std::string& start : {folder.string(), folder.string() + "/"}) {
        std::vector<std::string> files = {"kept"};
        handle.GetDirFiles(start, files);
        std::sort(files.begin(), files.end());
        EXPECT_EQ(files, (std::vector<std::string>{deep, folder / "link", top, "kept"}));
    }
    std::vector<std::string> files;
    handle.GetDirFiles(folder / "missing", files);
    EXPECT_TRUE(files.empty());
}

TEST_F(TemporaryFolder, SizeFollowsLinksAndWraps) {
    const std::string file = File("a/file", 1000);
    fs::create_symlink(file, folder / "link");
    fs::create_symlink("nowhere", folder / "dangling");
    EXPECT_EQ(handle.GetFolderSize(folder), 2000);
    File("sparse", uintmax_t{1} << 31);
    EXPECT_LT(handle.GetFolderSize(folder), 0);
    EXPECT_EQ(handle.GetFolderSize(folder / "missing"), 0);
}

TEST_F(TemporaryFolder, RemovesTreesThroughLinks) {
    File("tree/a/b", 1);
    File("target/inside", 1);
    fs::create_directory_symlink(folder / "target", folder / "tree/link");
    handle.DirOrFileRemove(folder / "tree");
    // The link is followed: its target is emptied but stands; the link itself cannot be removed,
    // and so neither can the tree.
    EXPECT_TRUE(fs::is_empty(folder / "target"));
    EXPECT_TRUE(fs::is_symlink(folder / "tree/link"));
    EXPECT_FALSE(fs::exists(folder / "tree/a"));
    fs::remove(folder / "tree/link");
    handle.DirOrFileRemove(folder.string() + "/tree/");
    EXPECT_FALSE(fs::exists(folder / "tree"));
}

TEST_F(TemporaryFolder, RemovalSaysWhatItCannotDo) {
    const std::string file = File("history.log", 1);
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        std::string path;
        std::string message;
    } cases[] = {
        {"", ""},
        {file + "/", "[vorta] [DirOrFileRemove] stat " + file + "/ error or not exist\n"},
        {fifo, "[vorta] [DirOrFileRemove] unknow file type\n"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        handle.DirOrFileRemove(c.path);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    }
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(fs::exists(fifo));
}

}  // namespace
