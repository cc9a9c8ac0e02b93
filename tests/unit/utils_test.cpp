// Kernel command line items and the log functions' handling of messages that do not fit.
#include "common/VortaUtils.h"

#include <gtest/gtest.h>

namespace {

TEST(KeyValueFromLine, FindsValues) {
    const struct {
        const char* line;
        const char* key;
        const char* value;
    } cases[] = {
        {"a=1 KEY=xyz b=2\n", "KEY", "xyz"},
        {"a=1 KEY=xyz\n", "KEY", "xyz\n"},  // the last value keeps the newline
        {"a=1 KEY=xyz", "KEY", "xyz"},
        {"MYKEY=1 KEY=2\n", "KEY", "1"},  // the first occurrence, also inside another name
        {"KEY b=2 c\n", "KEY", "b=2"},    // the separator is skipped unseen
        {"KEY= b\n", "KEY", ""},
        {"KEY=a\tb c\n", "KEY", "a\tb"},  // only a space ends a value
        {"KEY=\"a b\"\n", "KEY", "\"a"},  // no quoting
        {"x KEY\n", "KEY", ""},
        {"x KEY", "KEY", ""},  // nothing behind the key, not even a newline
        {"x\n", "KEY", ""},
        {"", "KEY", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(KeyValueFromLine(c.line, c.key), c.value) << c.line;
    }
    EXPECT_EQ(KeyValueFromCmdline(""), "");
}

TEST(VortaLog, EchoesToStandardError) {
    testing::internal::CaptureStderr();
    VortaLogD("[%s] unseen", "Op");
    VortaLogI("[%s] info %d", "Op", 1);
    VortaLogE("plain");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[vorta] [Op] info 1\n[vorta] plain\n");
}

TEST(VortaLog, KeepsTheHeadOfALongMessage) {
    const std::string longest(1023, 'x');
    testing::internal::CaptureStderr();
    VortaLogE("%s", longest.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[vorta] " + longest + "\n");
    testing::internal::CaptureStderr();
    VortaLogI("%sy", longest.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "VortaLogI vsnprintf_s fail\n[vorta] " + longest + "\n");
}

}  // namespace
