// Kernel command line items, texts of records, and messages of the log that do not fit.
#include "common/VortaUtils.h"

#include <gtest/gtest.h>
#include <string.h>

#include "rainbow/HeaderText.h"

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

TEST(HeaderText, EndsWithItsNulOrWithTheRecord) {
    struct {
        ReasonHeader header;
        char behind[8];
    } memory;
    memset(&memory, 'x', sizeof(memory));
    EXPECT_EQ(HeaderText(memory.header, memory.header.userType), std::string(68, 'x'));
    memory.header.reserved3[3] = 0;
    EXPECT_EQ(HeaderText(memory.header, memory.header.userType), std::string(67, 'x'));
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
