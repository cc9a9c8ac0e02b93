// The result codes of the bounded functions and what each does to its destination.
#include "common/BoundedFunctions.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

constexpr size_t kTooMuch = kBoundedMax + 1;

// Runs against an 8-byte destination holding "dddddddd" inside a guarded buffer.
struct Destination {
    char bytes[17];
    char* const dest = bytes + 4;

    Destination() {
        memset(bytes, 'g', sizeof(bytes));
        memset(dest, 'd', 8);
        bytes[16] = '\0';
    }
    std::string content() const {
        const bool guardsHold = memcmp(bytes, "gggg", 4) == 0 && memcmp(dest + 8, "gggg", 4) == 0;
        return guardsHold ? std::string(dest, 8) : "written outside";
    }
};

const std::string kUntouched = "dddddddd";
const std::string kCleared(8, '\0');

// One signature for the three: `source` is the text to copy, or to fill with its first character.
using Call = int (*)(char* dest, size_t destMax, const char* source, size_t count);
int Copy(char* dest, size_t destMax, const char* source, size_t count) {
    return memcpy_s(dest, destMax, source, count);
}
int Fill(char* dest, size_t destMax, const char* source, size_t count) {
    return memset_s(dest, destMax, source[0], count);
}

TEST(BoundedCopies, CodesAndEffects) {
    const char source[] = "abcdefghijkl";
    const std::string text("abc\0dddd", 8);
    const std::string emptied = std::string(1, '\0') + "ddddddd";
    const struct {
        Call call;
        size_t destMax;
        const char* source;
        size_t count;
        int code;
        std::string content;
    } cases[] = {
        {Copy, 8, source, 8, 0, "abcdefgh"},
        {Copy, 8, source, 0, 0, kUntouched},
        {Copy, kBoundedMax, source, 8, 0, "abcdefgh"},
        {Copy, 0, source, 1, 34, kUntouched},
        {Copy, kTooMuch, source, 1, 34, kUntouched},
        {Copy, 8, nullptr, 1, 150, kCleared},
        {Copy, 8, source, 9, 162, kCleared},
        {Fill, 8, "x", 3, 0, "xxxddddd"},
        {Fill, kBoundedMax, "x", 3, 0, "xxxddddd"},
        {Fill, 0, "x", 0, 0, kUntouched},
        {Fill, 0, "x", 1, 34, kUntouched},
        {Fill, kTooMuch, "x", 1, 34, kUntouched},
        {Fill, 8, "x", 9, 162, "xxxxxxxx"},
        {strncpy_s, 8, "abc", 3, 0, text},
        {strncpy_s, 8, "abc", 100, 0, text},
        {strncpy_s, kBoundedMax, "abc", kBoundedMax, 0, text},
        {strncpy_s, 8, "abcdef", 2, 0, std::string("ab\0ddddd", 8)},
        {strncpy_s, 8, "abcdefgh", 7, 0, std::string("abcdefg\0", 8)},
        {strncpy_s, 8, "abcdefgh", 8, 162, emptied},
        {strncpy_s, 0, "abc", 3, 34, kUntouched},
        {strncpy_s, kTooMuch, "abc", 3, 34, kUntouched},
        {strncpy_s, 8, nullptr, 3, 150, emptied},
        {strncpy_s, 8, "abc", 0, 0, emptied},
        {strncpy_s, 8, "abc", kTooMuch, 162, emptied},
    };
    for (const auto& c : cases) {
        Destination d;
        EXPECT_EQ(c.call(d.dest, c.destMax, c.source, c.count), c.code) << &c - cases;
        EXPECT_EQ(d.content(), c.content) << &c - cases;
    }
    for (const Call call : {Copy, Fill, Call{strncpy_s}}) {
        EXPECT_EQ(call(nullptr, 8, source, 1), 22);
    }
}

TEST(BoundedCopies, OverlapInEitherDirectionClears) {
    for (const int shift : {-1, 0, 1, 3}) {
        Destination d;
        EXPECT_EQ(memcpy_s(d.dest, 8, d.dest + shift, 4), 182) << shift;
        EXPECT_EQ(d.content(), kCleared) << shift;
    }
    Destination adjacent;
    memcpy(adjacent.dest + 4, "abcd", 4);
    EXPECT_EQ(memcpy_s(adjacent.dest, 4, adjacent.dest + 4, 4), 0);
    EXPECT_EQ(adjacent.content(), "abcdabcd");
    char text[16] = "abcdef";
    EXPECT_EQ(strncpy_s(text + 2, 8, text, 6), 182);
    EXPECT_STREQ(text, "ab");
}

int Format(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return result;
}

TEST(VsnprintfS, CodesAndEffects) {
    const struct {
        size_t destMax, count;
        const char* text;
        int result;
        std::string kept;
    } cases[] = {
        {8, 7, "1234567", 7, "1234567"},  // fits to the last character
        {8, 7, "12345678", -1, "1234567"},
        {8, 3, "12345", -1, "123"},  // cut at the count, far from the buffer's end
        {8, 8, "1234567", 7, "1234567"},
        {8, 8, "12345678", -1, ""},  // the count leaves no room: emptied
        {0, 3, "12", -1, "dddddddd"},
        {8, kBoundedMax, "12", -1, ""},
        {8, kBoundedMax - 1, "12", 2, "12"},
        {kBoundedMax, 3, "12", 2, "12"},
        {kTooMuch, 3, "12", -1, "dddddddd"},
    };
    for (const auto& c : cases) {
        Destination d;
        EXPECT_EQ(Format(d.dest, c.destMax, c.count, "%s", c.text), c.result) << c.text;
        EXPECT_EQ(d.content().substr(0, c.kept.size()), c.kept) << c.text;
        EXPECT_TRUE(c.kept.size() == 8 || d.dest[c.kept.size()] == '\0') << c.text;
    }
    Destination d;
    EXPECT_EQ(Format(d.dest, 8, 7, "%lc", wint_t{0x200000}), -1);  // no such character
    EXPECT_EQ(d.dest[0], '\0');
    EXPECT_EQ(Format(nullptr, 8, 7, "x"), -1);
    EXPECT_EQ(Format(d.dest, 8, 7, nullptr), -1);
    EXPECT_EQ(d.dest[0], '\0');
}

TEST(SscanfS, TextFieldsStayInTheirRoom) {
    const struct {
        const char* input;
        const char* format;
        size_t room;
        int fields;
        std::string content;
    } cases[] = {
        {"abc", "%s", 4, 1, "abc"},      {"abcd", "%s", 4, 0, ""},
        {"abcd", "%3s", 8, 1, "abc"},    {"abcd", "%c", 1, 1, "a"},
        {"abcd", "%3s", 4, 1, "abc"},    {"abc def", "%s", 4, 1, "abc"},
        {"abcx", "%[abc]", 4, 1, "abc"}, {"abca", "%[abc]", 4, 0, ""},
        {"]a-", "%[]a]", 4, 1, "]a"},    {"xyz]", "%[^]]", 4, 1, "xyz"},
        {"k=v", "k=%s", 2, 1, "v"},      {"ab", "%s", 0, 0, "dddddddd"},
        {"ab", "%s", 1, 0, ""},          {"100%ab", "100%%%s", 3, 1, "ab"},
        {"x", "k=%s", 4, 0, "dddddddd"}, {"ab", "%99999999999999999999s", 3, 1, "ab"},
        {"ab", "%ls", 8, 0, "dddddddd"},  // wide text is refused
    };
    for (const auto& c : cases) {
        Destination d;
        EXPECT_EQ(sscanf_s(c.input, c.format, d.dest, c.room), c.fields) << c.input << c.format;
        EXPECT_EQ(d.content().substr(0, c.content.size()), c.content) << c.input << c.format;
    }
    Destination d;
    EXPECT_EQ(sscanf_s("abcd", "%4c", d.dest, size_t{4}), 1);
    EXPECT_EQ(d.content(), "abcddddd");
    EXPECT_EQ(sscanf_s("abcde", "%5c", d.dest, size_t{4}), 0);
    EXPECT_EQ(sscanf_s("ab", "%s", nullptr, size_t{4}), 0);
    EXPECT_EQ(sscanf_s("ab", "%s", d.dest, kTooMuch), 0);
#ifndef __SANITIZE_ADDRESS__  // which takes the width of a field for what is written
    EXPECT_EQ(sscanf_s("ab", "%s", d.dest, kBoundedMax), 1);
#endif
}

// As with the C library, a scan ends at the first piece of the format that does not match, or with
// the input.
TEST(SscanfS, EndsWhereTheFormatEnds) {
    const struct {
        const char* input;
        const char* format;
        int fields, number;
    } cases[] = {
        {nullptr, "%d", -1, -1},     {"1", nullptr, -1, -1},
        {"", "%d", -1, -1},          {"   ", "%d", -1, -1},
        {"x", "%d", 0, -1},          {"x 12", "y %d", 0, -1},
        {"12 end", "%d end", 1, 12}, {"12 other", "%d end", 1, 12},
        {"12 34", "%*d %d", 1, 34},  {"ab12", "%*[a-z]%d", 1, 12},
        {"12", "%*d%d", -1, -1},     {"12", "%d%", 1, 12},
        {"12", "%d%*[0-", 1, 12},    {"12", "%k%d", 0, -1},
    };
    for (const auto& c : cases) {
        int number = -1;
        EXPECT_EQ(sscanf_s(c.input, c.format, &number), c.fields) << c.input << " " << c.format;
        EXPECT_EQ(number, c.number) << c.input << " " << c.format;
    }
}

TEST(SscanfS, MixedConversionsAndPositions) {
    unsigned long long number = 0;
    char word[8], other[8];
    int end = 0, last = -1;
    // The second text does not fit: that ends the scan, and what came before it counts.
    EXPECT_EQ(sscanf_s(" 0x1F key:rest toolongword 34", "%llx %[a-z]:%*s%n %s%n", &number, word,
                       sizeof(word), &end, other, sizeof(other), &last),
              2);
    EXPECT_EQ(number, 0x1Fu);
    EXPECT_STREQ(word, "key");
    EXPECT_EQ(end, 14);
    EXPECT_STREQ(other, "");
    EXPECT_EQ(last, -1);
}

}  // namespace
