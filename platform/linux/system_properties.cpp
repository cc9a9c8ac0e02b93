// __system_property_get on a Linux host: lookups in a build.prop file.
#include "sys/system_properties.h"

#include <algorithm>
#include <string>

#include "android-base/file.h"

namespace {

constexpr char kPropertyFile[] = "/vendor/build.prop";

}  // namespace

extern "C" int __system_property_get(const char* name, char* value) {
    value[0] = '\0';
    std::string text;
    if (!android::base::ReadFileToString(kPropertyFile, &text, true)) {
        return 0;
    }
    const std::string prefix = std::string(name) + "=";
    std::string found;
    for (size_t line = 0; line < text.size();) {
        const size_t end = std::min(text.find('\n', line), text.size());
        if (text.compare(line, prefix.size(), prefix) == 0) {
            found = text.substr(line + prefix.size(), end - line - prefix.size());
        }
        line = end + 1;
    }
    const size_t length = found.copy(value, PROP_VALUE_MAX - 1);
    value[length] = '\0';
    return static_cast<int>(length);
}
