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

TEST(PowerOnLog, LatestBlockIsCutOff) {
    const struct {
        const char* log;
        bool found;
        const char* rest;
        const char* block;
    } cases[] = {
        {"", false, "", ""},
        {"PON Successfu", false, "PON Successfu", ""},
        {"no separator anywhere", false, "no separator anywhere", ""},
        {"PON Successful", true, "", ""},
        {"one\nPON Successful tail", true, "", "one\n"},
        {"one PON Successful two PON Successful tail", true, "one PON Successful", " two "},
        {"PON SuccessfulPON Successful", true, "PON Successful", ""},
    };
    for (const auto& c : cases) {
        std::string log = c.log;
        std::string block;
        EXPECT_EQ(GetLatestPmicBlock(log, block), c.found) << c.log;
        EXPECT_EQ(log, c.rest) << c.log;
        EXPECT_EQ(block, c.block) << c.log;
    }
}

TEST(PowerOnLog, ReasonOfABlock) {
    const std::string older = "Warm Reset Count: 3\nPON Successful";
    const struct {
        const char* name;
        std::string log;
        std::string block;
        uint32_t category;
        const char* reason;
    } cases[] = {
        {"keyword order, not position", "", "PMIC_WATCHDOG_S2 XVDD", 1, "XVDD"},
        {"XVLO before watchdog", "", "PMIC_WATCHDOG_S2 XVLO", 1, "XVLO"},
        {"watchdog before long key", "", "KPDPWR_N_AND_RESIN_N_S2 PMIC_WATCHDOG_S2", 1,
         "PMIC_WATCHDOG_S2"},
        {"long key", "", "KPDPWR_N_AND_RESIN_N_S2", 0, "reboot_longkey"},
        {"sub-faults in their order", "", "UVLO XVLO GP_FAULT7 GP_FAULT2", 1,
         "GP_FAULT2_UVLO_GP_FAULT7"},
        {"all sub-faults", "", "XVLO GP_FAULT7 PBS_NACK UVLO OVLO GP_FAULT3 GP_FAULT2", 1,
         "GP_FAULT2_GP_FAULT3_OVLO_UVLO_PBS_NACK_GP_FAULT7"},
        {"cause as spelt", "", "Reset Trigger: PS_HOLD\nmore", 0, "PS_HOLD"},
        {"the last trigger line", "", "Reset Trigger: A\nReset Trigger: B\n", 0, "B"},
        {"empty cause", "", "Reset Trigger: \n", 0, ""},
        {"line feed inside the gap", "", "Reset Trigger\nnext\n", 0, "ext"},
        {"no line feed", "", "Reset Trigger: PS_HOLD", 2, "unknown"},
        {"trigger as last word", "", "Reset Trigger", 2, "unknown"},
        {"no trigger", "", "nothing", 2, "unknown"},
        {"empty block", "", "", 2, "unknown"},
        {"boot loader dump", older, "Reset Trigger: PS_HOLD\n", 2, "XBL_DUMP_EXCEPTION"},
        {"count in the wrong record", "x PON Successful", "Warm Reset Count: 3 Reset Trigger: A\n",
         0, "A"},
        {"fault hides the dump", older, "Reset Trigger: A\nXVLO", 1, "XVLO"},
    };
    for (const auto& c : cases) {
        BootInfo info;
        GetAbnormalBootReason(c.log, c.block, info);
        EXPECT_EQ(info.category, c.category) << c.name;
        EXPECT_EQ(info.reason, c.reason) << c.name;
    }
}

}  // namespace
