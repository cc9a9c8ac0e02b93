// Fuzzes items of the kernel command line and what reads them: the over-current value and the
// hexadecimal number of the corvel item.
#include <stdio.h>

#include <algorithm>

#include "common/BoundedFunctions.h"
#include "common/VortaUtils.h"
#include "fuzz/Phone.h"
#include "rainbow/BootReason.h"
#include "rainbow/RainbowPaths.h"

namespace {

std::string ItemOf(const std::string& line, const std::string& key) {
    const auto at = std::search(line.begin(), line.end(), key.begin(), key.end());
    const auto behind = at == line.end() ? at : at + static_cast<ptrdiff_t>(key.size());
    const auto start = behind == line.end() ? behind : behind + 1;  // whatever stands there
    return std::string(start, std::find(start, line.end(), ' '));
}

void CheckOverCurrent(const std::string& value) {
    static const char* const kNames[] = {"OCP_TYPE_LDO_LSB", "OCP_TYPE_LDO_MSB",
                                         "OCP_TYPE_SMPS_LSB", "OCP_TYPE_SMPS_MSB"};
    const char type = value.size() < 3 || value.back() == '0' ? 'x' : value[value.size() - 3];
    const bool known = type >= '0' && type <= '3';
    BootInfo info;
    SetOcpFromValue(value, info);
    fuzz::Require(info.category == (known ? kCategoryFault : kCategoryNormal),
                  "a known regulator class is a fault");
    fuzz::Require(info.reason == (known ? kNames[type - '0'] : ""), "the class names the reason");
}

void CheckNumber(const std::string& value) {
    unsigned long long number = 7;
    unsigned long long expected = 7;
    const int fields = sscanf_s(value.c_str(), "%llx", &number);
    fuzz::Require(fields == sscanf(value.c_str(), "%llx", &expected), "a number is recognised");
    fuzz::Require(number == expected, "a number is read as the C library reads it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const std::string ownKey = input.Text();
    const std::string line = input.Bytes(size);
    for (const std::string& key :
         {ownKey.empty() ? "=" : ownKey, kOcpKey, std::string("CORVEL"), kSreasonKey}) {
        const std::string value = KeyValueFromLine(line, key);
        fuzz::Require(value == ItemOf(line, key), "an item runs to the next space");
        CheckOverCurrent(value);
        CheckNumber(value);
    }
    return 0;
}
