// Fuzzes the analysis of the power-on log: whatever the kernel exposes, category and reason are
// those of the decision table, and the ship mode marker is consumed exactly when it decides.
#include <vector>

#include "fuzz/Phone.h"
#include "rainbow/BootReason.h"
#include "rainbow/RainbowPaths.h"

namespace {

enum Flag : uint8_t { kMarker = 1, kNoLog = 2, kKnownCategory = 4 };

// The first row whose word the latest record holds decides.
const struct {
    const char* word;
    uint32_t category;
    const char* reason;
} kFaults[] = {{"XVDD", kCategoryFault, "XVDD"},
               {"XVLO", kCategoryFault, ""},  // its sub-faults, joined
               {"PMIC_WATCHDOG_S2", kCategoryFault, "PMIC_WATCHDOG_S2"},
               {"KPDPWR_N_AND_RESIN_N_S2", kCategoryNormal, "reboot_longkey"}};
const char* const kSubFaults[] = {"GP_FAULT2", "GP_FAULT3", "OVLO",
                                  "UVLO",      "PBS_NACK",  "GP_FAULT7"};

bool Has(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

// The complete records, oldest first.
std::vector<std::string> RecordsOf(std::string log) {
    const std::string end = "PON Successful";
    std::vector<std::string> records;
    for (size_t at = 0; (at = log.find(end)) != std::string::npos;) {
        records.push_back(log.substr(0, at));
        log.erase(0, at + end.size());
    }
    return records;
}

BootInfo ReasonOf(const std::vector<std::string>& records, bool marker) {
    if (records.empty()) {
        return {};
    }
    const std::string& latest = records.back();
    for (const auto& fault : kFaults) {
        if (!Has(latest, fault.word)) {
            continue;
        }
        if (marker && &fault == kFaults) {
            return {kCategoryNormal, "SHIPMODE"};
        }
        std::string reason = fault.reason;
        for (const char* name : kSubFaults) {
            const bool counts = *fault.reason == '\0' && Has(latest, name);
            reason += counts ? (reason.empty() ? "" : "_") + std::string(name) : "";
        }
        return {fault.category, reason.empty() ? "XVLO" : reason};
    }
    const size_t trigger = latest.rfind("Reset Trigger");
    const size_t feed = trigger == std::string::npos ? trigger : latest.find('\n', trigger + 15);
    if (feed == std::string::npos) {
        return {kCategoryUnknown, "unknown"};
    }
    if (records.size() > 1 && Has(records[records.size() - 2], "Warm Reset Count: 3")) {
        return {kCategoryUnknown, "XBL_DUMP_EXCEPTION"};
    }
    return {kCategoryNormal, latest.substr(trigger + 15, feed - trigger - 15)};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const uint8_t flags = input.Byte();
    const std::string log = input.Bytes(size);
    const bool marker = (flags & kMarker) != 0;
    fuzz::Write(kPmicPonLogPath, (flags & kNoLog) != 0 ? std::nullopt : std::optional(log));
    fuzz::Write(kShipmodePath, marker ? std::optional("") : std::nullopt);

    BootInfo expected = {kCategoryFault, "OCP_TYPE_LDO_LSB"};
    BootInfo info = expected;
    if ((flags & kKnownCategory) == 0) {
        info = {};
        expected = ReasonOf(RecordsOf((flags & kNoLog) != 0 ? "" : log), marker);
    }
    CheckPmicPonLogs(info);
    fuzz::Require(info.category == expected.category, "the category follows the table");
    fuzz::Require(info.reason == expected.reason, "the reason follows the table");
    const bool stays = marker && info.reason != "SHIPMODE";
    fuzz::Require((access(kShipmodePath.c_str(), F_OK) == 0) == stays,
                  "the marker is consumed when it decides");
    return 0;
}
