// The dump folders: how sizes add up, how trees are removed.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

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

TEST_F(TemporaryFolder, WhatCannotBeRemovedStays) {
    testing::internal::CaptureStderr();
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    handle.DirOrFileRemove(fifo);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);  // no folder can be opened
    handle.DirOrFileRemove(folder);
    EXPECT_EQ(handle.GetFolderSize(folder), 0);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[vorta] [DirOrFileRemove] unknow file type\n"
              "[vorta] [DirOrFileRemove] opendir failed\n");
    EXPECT_TRUE(fs::exists(fifo));
}

}  // namespace
