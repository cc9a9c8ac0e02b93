// Fuzzes the bounded functions against a second statement of their contract: result code, effect on
// the destination, and not a byte beside it.
#include <stdio.h>
#include <wchar.h>

#include <algorithm>
#include <vector>

#include "common/BoundedFunctions.h"
#include "fuzz/Phone.h"

namespace {

constexpr size_t kHalf = 64;  // offsets and small sizes are below it, so that a sum stays inside
constexpr size_t kLargest = 0x7FFFFFFF;

// A call on an arena that holds source and destination, so that they may overlap.
struct Call {
    std::string arena = std::string(2 * kHalf, 'g');
    size_t dest, src, destMax, count;
    bool noDest, noSource;

    explicit Call(fuzz::Input& input) {
        const uint8_t flags = input.Byte();
        noDest = (flags & 1) != 0;
        noSource = (flags & 2) != 0;
        dest = input.Byte() % kHalf;
        src = input.Byte() % kHalf;
        destMax = Size(input.Byte(), /*isDestination=*/true);
        count = Size(input.Byte(), /*isDestination=*/false);
        const std::string text = input.Bytes(2 * kHalf - 1);
        arena.replace(0, text.size(), text);
        arena.back() = '\0';
    }

    // Small, or one of the sizes around the largest that is accepted. A destination is never said
    // to be larger than it is, unless that has to be refused.
    static size_t Size(uint8_t byte, bool isDestination) {
        const size_t odd[] = {isDestination ? kLargest + 1 : kLargest, kLargest + 1, SIZE_MAX,
                              isDestination ? 0 : kLargest - 1};
        return byte < 0xF0 ? byte % kHalf : odd[byte % 4];
    }

    char* Dest(std::string& in) const { return noDest ? nullptr : &in[dest]; }
    const char* Source(std::string& in) const { return noSource ? nullptr : &in[src]; }
    bool SizeRefused() const { return destMax == 0 || destMax > kLargest; }
    // Whether a byte among `read` from the source is one of the `written` at the destination.
    bool Overlap(size_t written, size_t read) const {
        for (size_t i = 0; i < read; ++i) {
            if (src + i >= dest && src + i < dest + written) {
                return true;
            }
        }
        return false;
    }
};

// The expected result; `arena` receives the expected effect.
int Copied(const Call& call, std::string& arena) {
    if (call.SizeRefused()) {
        return 34;
    }
    if (call.noDest) {
        return 22;
    }
    const int code = call.noSource                          ? 150
                     : call.count > call.destMax            ? 162
                     : call.Overlap(call.count, call.count) ? 182
                                                            : 0;
    const std::string bytes =
        code == 0 ? arena.substr(call.src, call.count) : std::string(call.destMax, '\0');
    arena.replace(call.dest, bytes.size(), bytes);
    return code;
}

int Filled(const Call& call, char with, std::string& arena) {
    if (call.destMax > kLargest || (call.destMax == 0 && call.count > 0)) {
        return 34;
    }
    if (call.noDest) {
        return 22;
    }
    const size_t bytes = std::min(call.count, call.destMax);
    arena.replace(call.dest, bytes, bytes, with);
    return call.count > call.destMax ? 162 : 0;
}

int TextCopied(const Call& call, std::string& arena) {
    if (call.SizeRefused()) {
        return 34;
    }
    if (call.noDest) {
        return 22;
    }
    const std::string whole(arena.c_str() + call.src);
    const std::string text = call.count > kLargest ? "" : whole.substr(0, call.count);
    const size_t read = std::min(text.size() + 1, call.count);
    int code = 0;
    if (call.noSource) {
        code = 150;
    } else if (call.count > kLargest) {
        code = 162;
    } else if (call.count > 0 && text.size() >= call.destMax) {
        code = 162;
    } else if (call.count > 0 && call.Overlap(text.size() + 1, read)) {
        code = 182;
    }
    const std::string stored = code == 0 ? text + '\0' : std::string(1, '\0');
    arena.replace(call.dest, stored.size(), stored);
    return code;
}

void CheckCopying(const Call& call, char with) {
    std::string got = call.arena, expected = call.arena;
    fuzz::Require(memcpy_s(call.Dest(got), call.destMax, call.Source(got), call.count) ==
                      Copied(call, expected),
                  "memcpy_s: result");
    fuzz::Require(got == expected, "memcpy_s: effect");
    got = expected = call.arena;
    fuzz::Require(
        memset_s(call.Dest(got), call.destMax, with, call.count) == Filled(call, with, expected),
        "memset_s: result");
    fuzz::Require(got == expected, "memset_s: effect");
    got = expected = call.arena;
    fuzz::Require(strncpy_s(call.Dest(got), call.destMax, call.Source(got), call.count) ==
                      TextCopied(call, expected),
                  "strncpy_s: result");
    fuzz::Require(got == expected, "strncpy_s: effect");
}

int Format(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return result;
}

void CheckFormatting(const Call& call, bool wide) {
    std::string got = call.arena;
    const std::string text(call.arena.c_str() + call.src);
    const std::string output = "[" + text + "] " + std::to_string(text.size());
    constexpr wint_t kNoCharacter = 0x110000;  // cannot be converted
    const char* const format = call.noSource ? nullptr : wide ? "%lc" : "[%s] %d";
    const int result = wide ? Format(call.Dest(got), call.destMax, call.count, format, kNoCharacter)
                            : Format(call.Dest(got), call.destMax, call.count, format, text.c_str(),
                                     static_cast<int>(text.size()));
    std::string expected = call.arena;
    if (call.noDest || call.SizeRefused()) {
        fuzz::Require(result == -1 && got == expected, "vsnprintf_s: unusable destination");
        return;
    }
    const bool refused = call.noSource || call.count > kLargest - 1 || wide;
    const bool fits = output.size() < call.destMax && output.size() <= call.count;
    const bool cut = call.destMax > call.count;
    const std::string kept = refused || (!fits && !cut) ? "" : output.substr(0, call.count);
    fuzz::Require(result == (refused || !fits ? -1 : static_cast<int>(output.size())),
                  "vsnprintf_s: result");
    fuzz::Require(got.compare(call.dest, kept.size() + 1, kept + '\0') == 0, "vsnprintf_s: text");
    got.replace(call.dest, call.destMax, call.destMax, 'x');  // behind the text: anything
    expected.replace(call.dest, call.destMax, call.destMax, 'x');
    fuzz::Require(got == expected, "vsnprintf_s: only the destination");
}

// What a directive takes: no argument, a number, a position, or a text of at least `room` bytes.
struct Directive {
    const char* text;
    enum { kNothing, kNumber, kPosition, kText, kCharacters } takes;
};
const Directive kDirectives[] = {{"%d", Directive::kNumber},      {"%llx", Directive::kNumber},
                                 {"%s", Directive::kText},        {"%3s", Directive::kText},
                                 {"%c", Directive::kCharacters},  {"%2c", Directive::kCharacters},
                                 {"%[a-c]", Directive::kText},    {"%[^,]", Directive::kText},
                                 {"%5[^ ]", Directive::kText},    {"%[]x]", Directive::kText},
                                 {"%*s", Directive::kNothing},    {"%*d", Directive::kNothing},
                                 {"%*[ab]", Directive::kNothing}, {"%n", Directive::kPosition},
                                 {" ", Directive::kNothing},      {"x=", Directive::kNothing},
                                 {"%%", Directive::kNothing}};

constexpr size_t kMostDirectives = 4;
constexpr size_t kRoom = 512;

// Scans with the C library into ample room, and holds sscanf_s with its small rooms against that:
// it ends before the first text that does not fit.
void CheckScanning(fuzz::Input& input) {
    std::vector<const Directive*> directives;
    std::vector<std::string> ample(kMostDirectives, std::string(kRoom, 'g')), bounded = ample;
    std::vector<size_t> rooms;
    uintptr_t words[2 * kMostDirectives] = {};
    char* pointers[kMostDirectives] = {};
    std::string format;
    size_t word = 0;
    for (size_t i = 0, taking = 0; i < kMostDirectives; ++i) {
        const Directive& directive = kDirectives[input.Byte() % std::size(kDirectives)];
        rooms.push_back(2 + input.Byte() % 8);
        format += directive.text;
        if (directive.takes != Directive::kNothing) {
            directives.push_back(&directive);
            pointers[taking] = &ample[taking][0];
            words[word++] = reinterpret_cast<uintptr_t>(&bounded[taking++][0]);
        }
        if (directive.takes >= Directive::kText) {
            rooms[directives.size() - 1] = rooms.back();
            words[word++] = rooms.back();
        }
    }
    const std::string text = input.Line().substr(0, kRoom / 2);
    const int result = sscanf_s(text.c_str(), format.c_str(), words[0], words[1], words[2],
                                words[3], words[4], words[5], words[6], words[7]);
    if (text.empty()) {
        return fuzz::Require(result == -1, "sscanf_s: nothing to scan");
    }
    int expected =
        sscanf(text.c_str(), format.c_str(), pointers[0], pointers[1], pointers[2], pointers[3]);
    int assigned = 0;
    for (size_t i = 0; i < directives.size(); ++i) {
        if (directives[i]->takes == Directive::kText && assigned < expected &&
            strlen(ample[i].c_str()) >= rooms[i]) {
            expected = assigned;
            fuzz::Require(bounded[i][0] == '\0', "sscanf_s: a text that does not fit is emptied");
            fuzz::Require(bounded[i].find_first_not_of('g', rooms[i]) == std::string::npos,
                          "sscanf_s: only its room");
            break;
        }
        fuzz::Require(bounded[i] == ample[i], "sscanf_s: fields");
        assigned += directives[i]->takes == Directive::kPosition ? 0 : 1;
    }
    fuzz::Require(result == expected, "sscanf_s: result");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const uint8_t choice = input.Byte();
    if (choice % 2 == 0) {
        CheckScanning(input);
        return 0;
    }
    const Call call(input);
    CheckCopying(call, static_cast<char>(choice));
    CheckFormatting(call, choice % 8 == 7);
    return 0;
}
