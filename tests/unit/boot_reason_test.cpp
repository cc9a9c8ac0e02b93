// The reason analysis as tables: over-current values, power-on logs, and the precedence of faults.
#include "rainbow/BootReason.h"

#include <gtest/gtest.h>

namespace {

TEST(Ocp, ValueNamesTypeAndTrigger) {
    const struct {
        const char* value;
        uint32_t category;
        const char* reason;
    } cases[] = {
        {"0x001", 1, "OCP_TYPE_LDO_LSB"},
        {"101", 1, "OCP_TYPE_LDO_MSB"},
        {"2x1", 1, "OCP_TYPE_SMPS_LSB"},
        {"a3:9", 1, "OCP_TYPE_SMPS_MSB"},
        {"200", 0, ""},  // not triggered, whatever the type says
        {"4x1", 0, ""},
        {"/x1", 0, ""},
        {"\xFFx1", 0, ""},
        {"21", 0, ""},  // too short to name a type
        {"1", 0, ""},
        {"0", 0, ""},
        {"", 0, ""},
        {"0x000\n", 1, "OCP_TYPE_LDO_LSB"},  // not triggered, but last on the line
        {"2x1\n", 0, ""},                    // the last item of a command line keeps its newline
    };
    for (const auto& c : cases) {
        BootInfo info;
        SetOcpFromValue(c.value, info);
        EXPECT_EQ(info.category, c.category) << c.value;
        EXPECT_EQ(info.reason, c.reason) << c.value;
    }
}

TEST(PowerOnLog, ReasonOfTheLatestRecord) {
    const std::string end = "PON Successful";
    const std::string older = "Warm Reset Count: 3" + end;
    const struct {
        const char* name;
        std::string log;
        uint32_t category;
        const char* reason;
    } cases[] = {
        {"empty log", "", 0, ""},
        {"cut at its end", "XVDD PON Successfu", 0, ""},
        {"first record", "XVDD" + end + " tail", 1, "XVDD"},
        {"latest record", "XVDD" + end + "XVLO" + end + " PMIC_WATCHDOG_S2", 1, "XVLO"},
        {"empty record", "XVDD" + end + end, 2, "unknown"},
        {"keyword order, not position", "PMIC_WATCHDOG_S2 XVLO XVDD" + end, 1, "XVDD"},
        {"XVLO before watchdog", "PMIC_WATCHDOG_S2 XVLO" + end, 1, "XVLO"},
        {"watchdog before long key", "KPDPWR_N_AND_RESIN_N_S2 PMIC_WATCHDOG_S2" + end, 1,
         "PMIC_WATCHDOG_S2"},
        {"long key", "KPDPWR_N_AND_RESIN_N_S2" + end, 0, "reboot_longkey"},
        {"sub-faults in their order", "UVLO XVLO GP_FAULT7 GP_FAULT2" + end, 1,
         "GP_FAULT2_UVLO_GP_FAULT7"},
        {"all sub-faults", "XVLO GP_FAULT7 PBS_NACK UVLO OVLO GP_FAULT3 GP_FAULT2" + end, 1,
         "GP_FAULT2_GP_FAULT3_OVLO_UVLO_PBS_NACK_GP_FAULT7"},
        {"cause as spelt", "Reset Trigger: PS_HOLD\nmore" + end, 0, "PS_HOLD"},
        {"the last trigger line", "Reset Trigger: A\nReset Trigger: B\n" + end, 0, "B"},
        {"empty cause", "Reset Trigger: \n" + end, 0, ""},
        {"line feed inside the gap", "Reset Trigger\nnext\n" + end, 0, "ext"},
        {"no line feed", "Reset Trigger: PS_HOLD" + end, 2, "unknown"},
        {"trigger as last word", "Reset Trigger" + end, 2, "unknown"},
        {"boot loader dump", older + "Reset Trigger: PS_HOLD\n" + end, 2, "XBL_DUMP_EXCEPTION"},
        {"count of another word", "warm Reset Count: 3" + end + "Reset Trigger: A\n" + end, 0, "A"},
        {"count in the wrong record", "Warm Reset Count: 3 Reset Trigger: A\n" + end, 0, "A"},
        {"count in the record before the last one", older + end + "Reset Trigger: A\n" + end, 0,
         "A"},
        {"fault hides the dump", older + "Reset Trigger: A\nXVLO" + end, 1, "XVLO"},
    };
    for (const auto& c : cases) {
        BootInfo info;
        std::string log = c.log;
        std::string record;
        if (GetLatestPmicBlock(log, record)) {
            GetAbnormalBootReason(log, record, info);
        }
        EXPECT_EQ(info.category, c.category) << c.name;
        EXPECT_EQ(info.reason, c.reason) << c.name;
    }
}

}  // namespace
