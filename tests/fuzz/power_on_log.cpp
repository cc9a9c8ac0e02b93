// Fuzzes the analysis of the power-on log: a second statement of its rules, as tables, names the
// verdict on the latest complete record, and whether it uses the ship mode marker up.
#include <vector>

#include "rainbow/BootReason.h"
#include "rainbow/RainbowPaths.h"
#include "tests/fuzz/Phone.h"

namespace {

enum Flag : uint8_t { kMarker = 1, kOverCurrent = 2 };

// The first word that the record holds decides.
const std::pair<std::string, BootInfo> kFaults[] = {
    {"XVDD", {kCategoryFault, "XVDD"}},
    {"XVLO", {kCategoryFault, "XVLO"}},
    {"PMIC_WATCHDOG_S2", {kCategoryFault, "PMIC_WATCHDOG_S2"}},
    {"KPDPWR_N_AND_RESIN_N_S2", {kCategoryNormal, "reboot_longkey"}}};
// Those that the record holds, in this order, stand in place of "XVLO".
const std::string kUnderVoltages[] = {"GP_FAULT2", "GP_FAULT3", "OVLO",
                                      "UVLO",      "PBS_NACK",  "GP_FAULT7"};

bool Holds(const std::string& text, const std::string& word) {
    return text.find(word) != text.npos;
}

// The latest first.
std::vector<std::string> CompleteRecords(std::string log) {
    const std::string mark = "PON Successful";
    std::vector<std::string> records;
    for (size_t end = 0; (end = log.find(mark)) != log.npos; log.erase(0, end + mark.size())) {
        records.insert(records.begin(), log.substr(0, end));
    }
    return records;
}

BootInfo FromTrigger(std::string record, const std::string& before) {
    const std::string word = "Reset Trigger";
    bool isNamed = false;
    for (size_t at = 0; (at = record.find(word)) != record.npos; isNamed = true) {
        record.erase(0, at + word.size());
    }
    record.erase(0, 2);  // a colon and a space, unseen
    if (!isNamed || !Holds(record, "\n")) {
        return {kCategoryUnknown, "unknown"};
    }
    return Holds(before, "Warm Reset Count: 3")
               ? BootInfo{kCategoryUnknown, "XBL_DUMP_EXCEPTION"}
               : BootInfo{kCategoryNormal, record.substr(0, record.find('\n'))};
}

BootInfo Verdict(const std::string& record, const std::string& before) {
    for (const auto& [word, verdict] : kFaults) {
        if (Holds(record, word)) {
            std::string names;
            for (const std::string& name : kUnderVoltages) {
                names += word == "XVLO" && Holds(record, name) ? "_" + name : "";
            }
            return {verdict.category, names.empty() ? verdict.reason : names.substr(1)};
        }
    }
    return FromTrigger(record, before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const uint8_t flags = input.Byte();
    const std::string log = input.Bytes(size);
    BootInfo info, expected;
    bool stays = (flags & kMarker) != 0;
    const std::vector<std::string> records = CompleteRecords(log);
    if ((flags & kOverCurrent) != 0) {
        info = expected = {kCategoryFault, "OCP_TYPE_LDO_LSB"};
    } else if (!records.empty() && stays && Holds(records[0], "XVDD")) {
        expected = {kCategoryNormal, "SHIPMODE"};
        stays = false;
    } else if (!records.empty()) {
        expected = Verdict(records[0], records.size() > 1 ? records[1] : "");
    }
    fuzz::Write(kPmicPonLogPath, log);
    fuzz::Write(kShipmodePath, (flags & kMarker) != 0 ? std::optional("") : std::nullopt);
    CheckPmicPonLogs(info);
    fuzz::Require(info.category == expected.category, "the category of the latest record");
    fuzz::Require(info.reason == expected.reason, "the reason of the latest record");
    fuzz::Require((access(kShipmodePath.c_str(), F_OK) == 0) == stays,
                  "the marker goes when it decides, and only then");
    return 0;
}
