// What the operations answer where there is nothing to work on: before the record is read, without
// an open file, or to an argument that stands for nothing. None of them may touch a partition then.
#include <gtest/gtest.h>

#include <functional>

#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

TEST(Contract, NothingToWorkOn) {
    RainbowHandle handle;
    std::string reason = "XVDD";
    const struct {
        const char* operation;
        std::function<bool()> answersAsStated;
        const char* log;
    } cases[] = {
        {"IsReasonPartValid", [&] { return !handle.IsReasonPartValid(); }, ""},
        {"RainbowReasonSet",
         [&] {
             handle.RainbowReasonSet(2, reason);
             return reason == "XVDD";
         },
         ""},
        {"HistoryFileRecord, empty line", [&] { return handle.HistoryFileRecord("") == -1; },
         "[vorta] invalid input parameter\n"},
        {"HistoryFileRecord, no file", [&] { return handle.HistoryFileRecord("line\n") == -1; },
         "[vorta] [HistoryFileRecord] historyFd is not valid\n"},
        {"DirOrFileSetPerm",
         [&] {
             handle.DirOrFileSetPerm(-1, kFileMode, kOwner, kGroup);
             return true;
         },
         ""},
        {"IsPartValid",
         [&] {
             handle.IsPartValid("", kModeRawdump);
             return true;
         },
         ""},
        {"DumpFileUpdate",
         [&] {
             handle.DumpFileUpdate(2);
             return true;
         },
         "[vorta] [DumpFileUpdate] updateType or dumppart is invalid\n"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(c.answersAsStated()) << c.operation;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.log) << c.operation;
    }
}

}  // namespace
