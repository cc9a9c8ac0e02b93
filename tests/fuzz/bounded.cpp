// Fuzzes the bounded functions against a second statement of their contract: result, effect on the
// destination, and not a byte beside it.
#include <string.h>
#include <wchar.h>

#include <vector>

#include "common/BoundedFunctions.h"
#include "tests/fuzz/Phone.h"

using fuzz::Require;

namespace {

constexpr size_t kHalf = 64;  // offsets and usual sizes are below it, so that a sum stays inside
constexpr size_t kLargest = 0x7FFFFFFF;

// A call on an arena that holds both source and destination, so that they may overlap.
struct Call {
    std::string arena = std::string(2 * kHalf, 'g');
    uint8_t flags;
    size_t dest, src, destMax, count;

    explicit Call(fuzz::Input& input) : flags(input.Byte()) {
        dest = input.Byte() % kHalf;
        src = input.Byte() % kHalf;
        // Never a wrong size of the destination, unless it has to be refused.
        const uint8_t room = input.Byte(), amount = input.Byte();
        const size_t odd[] = {kLargest, kLargest + 1, SIZE_MAX, kLargest - 1};
        destMax = room < 0xF0 ? room % kHalf : odd[1 + room % 2];
        count = amount < 0xF0 ? amount % kHalf : odd[amount % 4];
        const std::string text = input.Bytes(2 * kHalf - 1);
        arena.replace(0, text.size(), text);
        arena.back() = '\0';
    }
    bool NoSource() const { return flags % 2 != 0; }
    bool NoDest() const { return flags / 2 % 4 == 3; }
    bool IsRefused() const { return destMax == 0 || destMax > kLargest; }
    char* Dest(std::string& in) const { return NoDest() ? nullptr : &in[dest]; }
    const char* Source(std::string& in) const { return NoSource() ? nullptr : &in[src]; }
};

enum Kind { kBytes, kFill, kText };

// The result that the function has to give; `arena` receives its effect.
int Expected(Kind kind, const Call& call, std::string& arena) {
    if (kind == kFill ? call.destMax > kLargest || (call.destMax == 0 && call.count > 0)
                      : call.IsRefused()) {
        return 34;
    }
    if (call.NoDest()) {
        return 22;
    }
    std::string stored = kind == kFill ? std::string(std::min(call.count, call.destMax), 'f')
                                       : arena.substr(call.src, call.count);
    size_t read = stored.size();
    if (kind == kText) {
        stored = stored.substr(0, stored.find('\0')) + '\0';
        read = std::min(stored.size(), call.count);
    }
    int code = 0;
    const size_t least = kind == kText && call.count <= kLargest ? stored.size() : call.count;
    if (kind != kFill && call.NoSource()) {
        code = 150;
    } else if (least > call.destMax && !(kind == kText && call.count == 0)) {
        code = 162;
    }
    for (size_t i = 0; code == 0 && kind != kFill && i < read; ++i) {
        const size_t at = call.src + i;
        code = at >= call.dest && at < call.dest + stored.size() ? 182 : 0;
    }
    if (code != 0 && kind != kFill) {
        stored.assign(kind == kText ? 1 : call.destMax, '\0');
    }
    arena.replace(call.dest, stored.size(), stored);
    return code;
}

void CheckCopying(const Call& call) {
    for (const Kind kind : {kBytes, kFill, kText}) {
        std::string got = call.arena, expected = call.arena;
        char* const dest = call.Dest(got);
        const char* const source = call.Source(got);
        const int result = kind == kBytes  ? memcpy_s(dest, call.destMax, source, call.count)
                           : kind == kFill ? memset_s(dest, call.destMax, 'f', call.count)
                                           : strncpy_s(dest, call.destMax, source, call.count);
        Require(result == Expected(kind, call, expected), "memcpy_s, memset_s, strncpy_s: result");
        Require(got == expected, "memcpy_s, memset_s, strncpy_s: effect");
    }
}

int Format(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return result;
}

void CheckFormatting(const Call& call) {
    std::string got = call.arena;
    const std::string text(call.arena.c_str() + call.src);
    const bool fails = call.flags / 16 == 15;  // a character that cannot be converted
    const char* const format = call.NoSource() ? nullptr : fails ? "%s%lc" : "%s";
    const int result =
        Format(call.Dest(got), call.destMax, call.count, format, text.c_str(), wint_t{0x200000});
    std::string expected = call.arena;
    if (!call.NoDest() && !call.IsRefused()) {
        const bool formats = format != nullptr && !fails && call.count < kLargest;
        const bool fits = text.size() < call.destMax && text.size() <= call.count;
        const bool isKept = formats && (fits || call.destMax > call.count);
        const std::string kept = isKept ? text.substr(0, call.count) : "";
        Require(result == (formats && fits ? static_cast<int>(text.size()) : -1),
                "vsnprintf_s: result");
        Require(got.compare(call.dest, kept.size() + 1, kept + '\0') == 0, "vsnprintf_s: text");
        got.replace(call.dest, call.destMax, call.destMax, 'x');  // anything behind the text
        expected.replace(call.dest, call.destMax, call.destMax, 'x');
    }
    Require(got == expected, "vsnprintf_s: only the destination");
}

// A text conversion takes a size besides its pointer; text in front of '%' and "%%" take nothing.
const char* const kTexts[] = {"%s", "%3s", "%[a-c]", "%[^,]", "%5[^ ]", "%[]x]"};
const char* const kOthers[] = {"%d", "%llx", "%n", "%c", "%*s", "%*d", "%*[ab]", " ", "x=", "%%"};
constexpr size_t kTaking = 3;  // that many of the others take a pointer; for "%c" see below

// Scans with the C library into ample room and holds sscanf_s, with its small rooms, against that:
// it ends before the first text that does not fit.
void CheckScanning(fuzz::Input& input) {
    constexpr size_t kMost = 4, kAmple = 512;
    std::vector<std::string> ample(kMost, std::string(kAmple, 'g')), bounded = ample;
    std::vector<size_t> rooms;  // of each field; 0: not bounded
    uintptr_t words[2 * kMost] = {};
    std::string format;
    for (size_t i = 0, word = 0; i < kMost; ++i) {
        const size_t choice = input.Byte(), which = choice / 16;
        const bool isText = choice % 2 == 0;
        format += isText ? kTexts[which % std::size(kTexts)] : kOthers[which % std::size(kOthers)];
        if (isText || which % std::size(kOthers) <= kTaking) {
            const bool isCharacter = !isText && which % std::size(kOthers) == kTaking;
            words[word++] = reinterpret_cast<uintptr_t>(&bounded[rooms.size()][0]);
            words[word] = isText ? 2 + choice / 2 % 8 : 1;
            rooms.push_back(isText ? words[word] : 0);
            word += isText || isCharacter ? 1 : 0;
        }
    }
    const std::string text = input.Line().substr(0, kAmple / 2);
    const int result = sscanf_s(text.c_str(), format.c_str(), words[0], words[1], words[2],
                                words[3], words[4], words[5], words[6], words[7]);
    const int fields = sscanf(text.c_str(), format.c_str(), &ample[0][0], &ample[1][0],
                              &ample[2][0], &ample[3][0]);
    for (size_t i = 0; i < rooms.size() && !text.empty(); ++i) {
        if (rooms[i] > 0 && ample[i].find('\0') != ample[i].npos &&
            strlen(ample[i].c_str()) >= rooms[i]) {
            Require(bounded[i][0] == '\0', "sscanf_s: a text that does not fit is emptied");
            Require(bounded[i].find_first_not_of('g', rooms[i]) == std::string::npos,
                    "sscanf_s: nothing beside the room");
            return Require(result < fields, "sscanf_s: a text that does not fit ends the scan");
        }
        Require(bounded[i] == ample[i], "sscanf_s: fields");
    }
    Require(result == (text.empty() ? -1 : fields), "sscanf_s: result");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    if (input.Byte() % 2 == 0) {
        CheckScanning(input);
        return 0;
    }
    const Call call(input);
    CheckCopying(call);
    CheckFormatting(call);
    return 0;
}
