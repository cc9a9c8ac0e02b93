// Bounded scanning: the C library scans, one conversion at a time, with the width of each text
// conversion cut to the room of its buffer.
#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "common/BoundedFunctions.h"

namespace {

// One conversion of a scan format with the literal text in front of it.
struct Directive {
    std::string text;        // the piece of the format, as written
    std::string prefix;      // its literal text
    std::string kind;        // "s", "c", "[...]": what follows the width, length modifier included
    size_t width = 0;        // 0: none given
    char conversion = '\0';  // '\0': literal text only
    bool suppressed = false;

    bool TakesPointer() const { return conversion != '\0' && !suppressed; }
    bool IsText() const { return conversion != '\0' && strchr("sc[", conversion) != nullptr; }
    bool TakesSize() const { return TakesPointer() && IsText(); }
    // Wide text is refused: the size of wchar_t differs between platforms.
    bool IsKnown() const {
        return IsText() ? kind[0] == conversion : strchr("diouxXaAeEfFgGpn", conversion) != nullptr;
    }
};

// The position after the "]" that closes the set opened at `at`, or the end of the text.
const char* SkipSet(const char* at) {
    ++at;
    if (*at == '^') {
        ++at;
    }
    if (*at == ']') {  // a bracket in first place belongs to the set
        ++at;
    }
    while (*at != '\0' && *at != ']') {
        ++at;
    }
    return *at == '\0' ? at : at + 1;
}

// Takes the text up to and including the next conversion off `format`.
Directive NextDirective(const char** format) {
    Directive directive;
    const char* const start = *format;
    const char* at = start;
    while (*at != '\0' && (at[0] != '%' || at[1] == '%')) {
        at += at[0] == '%' ? 2 : 1;
    }
    directive.prefix.assign(start, at);
    if (*at == '%') {
        ++at;
        if (*at == '*') {
            directive.suppressed = true;
            ++at;
        }
        while (isdigit(static_cast<unsigned char>(*at)) != 0) {
            if (directive.width <= kBoundedMax) {  // a larger one bounds nothing
                directive.width = directive.width * 10 + static_cast<size_t>(*at - '0');
            }
            ++at;
        }
        const char* const kind = at;
        at += strspn(at, "hlLjzt");
        directive.conversion = *at;
        if (*at == '[') {
            at = SkipSet(at);
        } else if (*at != '\0') {
            ++at;
        }
        directive.kind.assign(kind, at);
    }
    directive.text.assign(start, at);
    *format = at;
    return directive;
}

// A scan in progress: what is left of the buffer is scanned one directive at a time.
class Scan {
  public:
    explicit Scan(const char* text) : buffer(text) {}

    // Runs one directive into `target`; for text conversions `size` bounds it. False ends the scan.
    bool Run(const Directive& directive, void* target, size_t size) {
        if (!directive.IsKnown()) {
            return false;
        }
        if (directive.TakesSize()) {
            return RunText(directive, static_cast<char*>(target), size);
        }
        const bool assigns = directive.TakesPointer() && directive.conversion != 'n';
        const int fields = Step(directive.text, target, !directive.TakesPointer());
        return Count(fields, assigns) && advanced;
    }

    int Fields() const { return assigned; }

  private:
    // Scans `piece` from the current position and moves past what it took. What was taken before is
    // skipped by a leading conversion, so that %n counts from the start of the buffer.
    int Step(const std::string& piece, void* target, bool noTarget) {
        std::string format = used == 0 ? "" : "%*" + std::to_string(used) + "c";
        format += piece + "%n";
        int end = -1;
        const int fields = noTarget ? sscanf(buffer, format.c_str(), &end)
                                    : sscanf(buffer, format.c_str(), target, &end);
        advanced = end >= 0;
        used = advanced ? end : used;
        return fields;
    }

    bool Count(int fields, bool assigns) {
        if (fields == EOF && assigned == 0) {
            assigned = -1;
        }
        if (assigns && fields > 0) {
            ++assigned;
        }
        return fields > 0 || (!assigns && fields == 0);
    }

    bool RunText(const Directive& directive, char* target, size_t size) {
        const bool isText = directive.conversion != 'c';
        const size_t wanted = directive.width != 0 ? directive.width : (isText ? SIZE_MAX : 1);
        const size_t room = isText && size > 0 ? size - 1 : size;
        // One byte holds only the terminator, and a matched field is never empty.
        if (target == nullptr || room == 0 || size > kBoundedMax || (!isText && wanted > room)) {
            // The end of the input takes precedence over a field that does not fit.
            (void)Count(Step(directive.prefix + "%*1" + directive.kind, nullptr, true), false);
            return Reject(target, size);
        }
        const size_t width = wanted < room ? wanted : room;
        const std::string piece = directive.prefix + "%" + std::to_string(width) + directive.kind;
        if (!Count(Step(piece, target, false), true)) {
            return false;
        }
        if (isText && width < wanted && GoesOn(directive)) {
            --assigned;
            return Reject(target, size);
        }
        return true;
    }

    // Whether the field that was just cut at its room has more characters.
    bool GoesOn(const Directive& directive) const {
        const char next[2] = {buffer[used], '\0'};
        if (directive.conversion == 's') {
            return next[0] != '\0' && isspace(static_cast<unsigned char>(next[0])) == 0;
        }
        int end = 0;
        const std::string probe = "%*1" + directive.kind + "%n";
        (void)sscanf(next, probe.c_str(), &end);
        return end > 0;
    }

    static bool Reject(char* target, size_t size) {
        if (target != nullptr && size > 0) {
            target[0] = '\0';
        }
        return false;
    }

    const char* buffer;
    int used = 0;
    int assigned = 0;  // -1: the input ended before the first field
    bool advanced = false;
};

}  // namespace

int sscanf_s(const char* buffer, const char* format, ...) {
    if (buffer == nullptr || format == nullptr || buffer[0] == '\0' ||
        strnlen(buffer, kBoundedMax + 1) > kBoundedMax) {
        return -1;
    }
    Scan scan(buffer);
    va_list args;
    va_start(args, format);
    bool goesOn = true;
    while (goesOn && *format != '\0') {
        const Directive directive = NextDirective(&format);
        void* const target = directive.TakesPointer() ? va_arg(args, void*) : nullptr;
        const size_t size = directive.TakesSize() ? va_arg(args, size_t) : 0;
        goesOn = scan.Run(directive, target, size);
    }
    va_end(args);
    return scan.Fields();
}
