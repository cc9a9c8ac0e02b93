// Fuzzes the analysis of the power-on log: words of the log bear the verdict out, the ship mode
// marker is consumed only when it decides, and only the two latest complete records count.
#include "fuzz/Phone.h"
#include "rainbow/BootReason.h"
#include "rainbow/RainbowPaths.h"

namespace {

const std::string kEnd = "PON Successful";

BootInfo Analyse(const std::string& log, bool marker) {
    fuzz::Write(kPmicPonLogPath, log);
    fuzz::Write(kShipmodePath, marker ? std::optional("") : std::nullopt);
    BootInfo info;
    CheckPmicPonLogs(info);
    const bool stays = access(kShipmodePath.c_str(), F_OK) == 0;
    fuzz::Require(stays == marker || info.reason == "SHIPMODE", "the marker goes when it decides");
    fuzz::Require(!marker || info.category != kCategoryFault || info.reason != "XVDD",
                  "the marker explains the fault");
    return info;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    const bool marker = input.Byte() % 2 != 0;
    const std::string log = input.Bytes(size);
    const BootInfo info = Analyse(log, marker);
    const auto has = [&](const std::string& word) { return log.find(word) != log.npos; };

    bool founded = false;
    if (!has(kEnd)) {
        founded = info.category == kCategoryNormal && info.reason.empty();
    } else if (info.category == kCategoryFault) {
        const bool isNamed = info.reason == "XVDD" || info.reason == "PMIC_WATCHDOG_S2";
        founded = has(isNamed ? info.reason : "XVLO");
    } else if (info.category == kCategoryUnknown) {
        founded = info.reason == "unknown" ||
                  (info.reason == "XBL_DUMP_EXCEPTION" && has("Warm Reset Count: 3"));
    } else {
        founded = (has("Reset Trigger") && has(info.reason + "\n")) ||
                  (info.reason == "SHIPMODE" && has("XVDD") && marker) ||
                  (info.reason == "reboot_longkey" && has("KPDPWR_N_AND_RESIN_N_S2"));
    }
    fuzz::Require(founded, "words of the log bear the verdict out");

    const std::string older = has(kEnd) ? "XVDD\nWarm Reset Count: 3\n" + kEnd + kEnd : "";
    const BootInfo again = Analyse(older + log + "\nXVLO\nReset Trigger: X\n", marker);
    fuzz::Require(again.category == info.category && again.reason == info.reason,
                  "only the two latest complete records count");
    return 0;
}
