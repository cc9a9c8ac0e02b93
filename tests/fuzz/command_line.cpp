// Fuzzes items of the kernel command line and what reads them: the over-current value and the
// hexadecimal number of the corvel item.
#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "rainbow/BootReason.h"
#include "rainbow/RainbowPaths.h"
#include "tests/fuzz/Phone.h"

using fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const std::string ownKey = "k" + input.Text();
    const std::string line = input.Bytes(size);
    for (const std::string& key : {ownKey, kOcpKey, std::string("CORVEL"), kSreasonKey}) {
        const std::string value = KeyValueFromLine(line, key);
        const size_t at = line.find(key);
        const size_t start = std::min(line.size(), at == line.npos ? at : at + key.size() + 1);
        const size_t end = start + value.size();
        Require(line.compare(start, value.size(), value) == 0, "a value stands behind its key");
        Require(value.find(' ') == value.npos, "a value ends at a space");
        Require(end == line.size() || start == line.size() || line[end] == ' ', "a value is whole");

        BootInfo info;
        SetOcpFromValue(value, info);
        const char type = value.size() < 3 ? 'x' : value[value.size() - 3];
        const bool isKnown = type >= '0' && type <= '3' && value.back() != '0';
        Require((info.category == kCategoryFault) == isKnown, "a known regulator is a fault");
        Require(info.reason.empty() == !isKnown, "a fault has a name");

        unsigned long long number = 7, expected = 7;
        const int fields = sscanf_s(value.c_str(), "%llx", &number);
        Require(fields == sscanf(value.c_str(), "%llx", &expected) && number == expected,
                "a number is read as the C library reads it");
    }
    return 0;
}
