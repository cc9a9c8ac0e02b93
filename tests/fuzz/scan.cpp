// Fuzzes sscanf_s, which takes formats and texts apart by itself: into small rooms it scans what
// the C library scans into ample ones, and ends before the first text that does not fit.
#include <string.h>

#include <vector>

#include "common/BoundedFunctions.h"
#include "tests/fuzz/Phone.h"

using fuzz::Require;

namespace {

constexpr size_t kFields = 4, kAmple = 512;

// A text conversion takes a size besides its pointer; text in front of '%' and "%%" take nothing.
const char* const kTexts[] = {"%s", "%3s", "%[a-c]", "%[^,]", "%5[^ ]", "%[]x]"};
const char* const kOthers[] = {"%d", "%llx", "%n", "%c", "%*s", "%*d", "%*[ab]", " ", "x=", "%%"};
constexpr size_t kCharacter = 3;  // of the others takes a size as well, those before it do not

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    std::vector<std::string> ample(kFields, std::string(kAmple, 'g')), bounded = ample;
    std::vector<size_t> rooms;  // of each field; 0: not bounded
    uintptr_t words[2 * kFields] = {};
    std::string format;
    for (size_t i = 0, word = 0; i < kFields; ++i) {
        const size_t choice = input.Byte(), which = choice / 16 % std::size(kOthers);
        const bool isText = choice % 2 == 0;
        format += isText ? kTexts[which % std::size(kTexts)] : kOthers[which];
        if (isText || which <= kCharacter) {
            words[word++] = reinterpret_cast<uintptr_t>(&bounded[rooms.size()][0]);
            words[word] = isText ? 2 + choice / 2 % 8 : 1;
            rooms.push_back(isText ? words[word] : 0);
            word += isText || which == kCharacter ? 1 : 0;
        }
    }
    const std::string text = input.Text().substr(0, kAmple / 2);
    const int result = sscanf_s(text.c_str(), format.c_str(), words[0], words[1], words[2],
                                words[3], words[4], words[5], words[6], words[7]);
    const int fields = sscanf(text.c_str(), format.c_str(), &ample[0][0], &ample[1][0],
                              &ample[2][0], &ample[3][0]);
    for (size_t i = 0; i < rooms.size() && *text.c_str() != 0; ++i) {
        if (rooms[i] > 0 && ample[i].find('\0') != ample[i].npos &&
            strlen(ample[i].c_str()) >= rooms[i]) {
            Require(bounded[i][0] == '\0', "a text that does not fit is emptied");
            Require(bounded[i].find_first_not_of('g', rooms[i]) == std::string::npos,
                    "nothing beside the room");
            Require(result < fields, "a text that does not fit ends the scan");
            return 0;
        }
        Require(bounded[i] == ample[i], "fields");
    }
    Require(result == (*text.c_str() == 0 ? -1 : fields), "result");
    return 0;
}
