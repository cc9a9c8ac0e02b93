// Why the phone last went down: the over-current item of the kernel command line and the PMIC
// power-on log.
#pragma once

#include <stdint.h>

#include <string>

constexpr uint32_t kCategoryNormal = 0;
constexpr uint32_t kCategoryFault = 1;
constexpr uint32_t kCategoryUnknown = 2;

struct BootInfo {
    uint32_t category = kCategoryNormal;
    std::string reason;  // detail text; empty until a source named one
};

// Stores in `info` the over-current shutdown recorded on the kernel command line, if any.
void GetOcpFromCmdline(BootInfo& info);

// The same for the item's value: its last character is the trigger flag ('0': not triggered), its
// third last one the regulator class.
void SetOcpFromValue(const std::string& value, BootInfo& info);

// Sets fault and type name for a regulator class '0' to '3'; any other changes nothing.
void SetOcpType(char type, BootInfo& info);

// Stores in `info` the reason of the latest complete power-on record, if there is one and `info`
// holds no category yet.
void CheckPmicPonLogs(BootInfo& info);

// Cuts the latest complete power-on record off `log` into `block`. `log` keeps the older records,
// so that a second call gives the record before. False, with both unchanged, if there is none.
bool GetLatestPmicBlock(std::string& log, std::string& block);

// Decides category and reason from the latest record `block` and the older records `log`.
void GetAbnormalBootReason(std::string log, std::string block, BootInfo& info);

// Names the sub-faults of an XVLO fault that `block` holds, joined by "_"; "XVLO" if none.
void XvloCheck(std::string& result, const std::string& block);

// True if the ship mode marker file existed. Removes the file; a failure of that is logged and does
// not change the result.
bool IsShipmodeXvdd();
