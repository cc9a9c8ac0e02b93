// Whole boots against their promises: every shipped scenario, and variations of them that a phone
// meets. A promise covers each partition byte, each collected file, the history and the log.
#include <gtest/gtest.h>

#include <algorithm>

#include "phone.h"

namespace vortadev {

namespace {

void ExpectPromiseKept(const Phone& phone) {
    RunOptions options = Options();
    if (!options.emulator.empty() && phone.scenario.factoryLibrary != FactoryLibrary::kAbsent) {
        GTEST_SKIP() << "the device's factory library is one of this machine, not of the daemon's";
    }
    const DeviceState before = ReadState(phone.device);
    options.dataSize = phone.scenario.dataSize;
    const RunResult result = phone.Boot(phone.scenario.arguments, options);
    for (const std::string& promise :
         CheckExpectations(phone.scenario, before, phone.device, result)) {
        ADD_FAILURE() << promise;
    }
}

class ShippedScenario : public testing::TestWithParam<std::string> {};

TEST_P(ShippedScenario, KeepsItsPromise) {
    ExpectPromiseKept(Phone(GetParam()));
}

std::string TestName(std::string name) {
    const auto isOther = [](unsigned char c) { return isalnum(c) == 0; };
    std::replace_if(name.begin(), name.end(), isOther, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Boots, ShippedScenario, testing::ValuesIn(ShippedScenarios()),
                         [](const auto& info) { return TestName(info.param); });

struct Variation {
    const char* name;
    const char* scenario;
    const char* patch;
};

void PrintTo(const Variation& variation, std::ostream* out) {
    *out << variation.scenario << ", " << variation.name;
}

const Variation kVariations[] = {
    // --- which boot level is abnormal, and who keeps a minidump ---
    {"highest_boot_level", "kernel-panic", R"({"reasonHeader": {"bootLevel": 4294967295}})"},
    {"boot_level_1_keeps_the_reason", "kernel-panic", R"({"reasonHeader": {"bootLevel": 1},
        "expect": {"collected": [], "cleared": [], "log": ["reason generate from part"], "history":
        {"category": "AP_S_PANIC", "reason": "Kernel panic - not syncing: Fatal exception"}}})"},
    {"commercial_with_remote_permission", "kernel-panic", R"({"properties":
        {"ro.logsystem.usertype": "1", "persist.log.remotedebug": "true"},
        "reasonHeader": {"userType": "1"}, "meta": {"userType": "1"}})"},
    {"remote_permission_is_domestic_only", "kernel-panic", R"({"properties":
        {"ro.logsystem.usertype": "6", "persist.log.remotedebug": "true", "msc.sys.country": "CN"},
        "reasonHeader": {"userType": "6"}, "meta": {"userType": "6"}, "expect": {"collected":
        ["DONE", "last_kmsg", "last_xbl_abl", "tz_log", "xbl_abl"], "cleared": ["reasonNode"],
        "log": ["vorta is commercial"]}})"},
    {"no_run_mode", "kernel-panic", R"({"properties": {"ro.runmode": null},
        "expect": {"log": ["E vorta: vorta runmode prop get fail"]}})"},
    {"dump_flag_without_its_lowest_bit", "kernel-panic", R"({"minidump": {"header": {"flag": 2}},
        "expect": {"collected": ["DONE", "last_kmsg", "last_xbl_abl", "tz_log", "xbl_abl"],
        "cleared": ["reasonNode"], "log": ["E vorta: [IsDumpPartValid] no dump record, flag is 2"]}})"},
    {"dump_flag_with_all_bits", "kernel-panic",
     R"({"minidump": {"header": {"flag": 4294967295}}})"},
    {"regions_of_zeros_give_empty_logs", "kernel-panic", R"({"logs": {"xbl_abl": "zeros",
        "last_xbl_abl": "zeros", "last_kmsg": "zeros", "tz_log": "zeros"}})"},

    // --- the reason header ---
    {"detail_flag_not_valid", "kernel-panic", R"({"reasonHeader": {"bootLevel": 0,
        "sreasonStrFlag": "XXXX"}, "expect": {"collected": [], "cleared": [], "log": [],
        "history": {"category": "AP_S_PANIC", "reason": "unknown_sreason"}}})"},
    {"category_flag_not_valid", "kernel-panic", R"({"reasonHeader": {"bootLevel": 0,
        "mreasonStrFlag": "XXXX"}, "expect": {"collected": [], "cleared": [],
        "log": ["E vorta: [IsReasonPartValid] rainbow mreasonStrFlag is error"]}})"},
    {"category_without_end_runs_on", "kernel-panic", R"({"reasonHeader": {"bootLevel": 0,
        "mreasonStr": "0123456789abcdef0123456789abcdef", "sreasonStr": "detail"},
        "expect": {"collected": [], "cleared": [], "log": [], "history":
        {"category": "0123456789abcdef0123456789abcdefdetail", "reason": "detail"}}})"},
    {"no_keys_on_the_command_line", "kernel-panic", R"({"cmdline": "quiet",
        "expect": {"history": {"category": "", "reason": ""}}})"},
    {"last_value_keeps_its_newline", "kernel-panic", R"({"cmdline": "reboot_reason=A sreason=B",
        "expect": {"history": {"category": "A", "reason": "B\n"}}})"},
    {"derived_reason_reaches_the_partition", "normal-restart", R"({"reasonHeader": {"userType": "5",
        "resetType": "COLD", "bootLevel": 9}, "expect": {"reasonHeader": {"innerResetReason": "NMAL",
        "bootLevel": 1, "mreasonStrFlag": "VALD", "sreasonStrFlag": "VALD", "userType": "3",
        "mreasonStr": "NORMALBOOT", "sreasonStr": "PS_HOLD"},
        "log": ["[SetIsNeedReserveFlag] set complete usertype = 3"]}})"},
    {"no_complete_record_is_unknown", "normal-restart", R"({"ponLog": "Reset Trigger: PS_HOLD\n",
        "expect": {"history": {"category": "UNKNOWN", "reason": "UNKNOWN"}}})"},
    {"ship_mode_marker_that_stays", "ship-mode", R"({"data":
        {"vendor/log/reliability/shipmode_shutdown": "folder"}, "expect": {"gone": [], "present":
        ["vendor/log/reliability/shipmode_shutdown"], "log":
        ["E vorta: unlink shipmode_shutdown failed, errno:Is a directory."]}})"},

    // --- user type and board identifier ---
    {"user_type_of_nine_characters", "normal-restart", R"({"properties":
        {"ro.logsystem.usertype": "123456789"}, "expect": {"reasonHeader": {"innerResetReason":
        "NMAL", "bootLevel": 1, "mreasonStrFlag": "VALD", "sreasonStrFlag": "VALD",
        "mreasonStr": "NORMALBOOT", "sreasonStr": "PS_HOLD", "userType": "12345678"},
        "meta": {"userType": "1"}}})"},
    {"user_type_missing", "normal-restart", R"({"properties": {"ro.logsystem.usertype": null},
        "expect": {"log": ["I vorta: vorta usertype prop get fail",
                           "E vorta: vorta usertype prop get fail"]}})"},
    {"board_identifier_too_long", "normal-restart", R"({"boardId":
        "00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 06 00",
        "expect": {"log": ["E vorta: Invalid BoardID:"]}})"},
    {"board_identifier_from_low_bytes", "normal-restart", R"({"boardId":
        "01 00 00 02 00 00 00 ff 00 00 00 03 00 00 00 04", "expect": {"reasonHeader": {"boardId": 27534,
        "innerResetReason": "NMAL", "bootLevel": 1, "mreasonStrFlag": "VALD", "sreasonStrFlag":
        "VALD", "mreasonStr": "NORMALBOOT", "sreasonStr": "PS_HOLD"},
        "log": ["[SetBoardID] set complete BoardId = 27534"]}})"},

    // --- the meta record of a full dump ---
    {"meta_magic_tail_missing", "normal-restart", R"({"meta": {"magicTail": "Y"},
        "expect": {"log": ["E vorta: [IsMetaInfoValid] no record in bootfail_info partition"]}})"},
    {"stale_meta_is_rebuilt", "full-dump-rebuilt", R"({"meta": {"crc": "valid",
        "reservedFlag": 0}, "expect": {"log": ["resize flag is set", "Data Part Is Not Enough"],
        "notLog": ["crc check fail", "no record"]}})"},
    {"user_type_missing_keeps_the_meta", "full-dump", R"({"properties":
        {"ro.logsystem.usertype": null}, "data": {"vendor/log/reliability/fulldumplog/link":
        {"link": "nowhere"}}, "expect": {"fulldump": false, "cleared": [], "meta": {"userType": "5"},
        "log": ["E vorta: [DumpFileUpdate] updateType or dumppart is invalid"],
        "present": ["vendor/log/reliability/fulldumplog/link"], "gone":
        ["vendor/log/reliability/fulldumplog/DONE"]}})"},

    // --- the full dump ---
    {"full_dump_without_offset", "full-dump", R"({"meta": {"dumpOffset": 0}, "expect": {"fulldump":
        false, "cleared": [], "gone": [], "log": ["[IsFulldumpOffsetValid] fulldump addr is invalid",
        "[DumpFileUpdate] get fulldump offset failed"]}})"},
    {"full_dump_without_header", "full-dump", R"({"fulldump": {"header": {"flag": 0}}, "expect":
        {"fulldump": false, "cleared": [], "gone": [], "log":
        ["[DumpFileUpdate] fulldump part is invalid"]}})"},
    {"full_dump_of_size_0", "full-dump", R"({"meta": {"dumpSize": 0}, "expect": {"fulldump": false,
        "cleared": [], "present": [], "log": ["[DumpFileUpdate] get ddrSize failed"]}})"},

    // --- service names and the corvel service ---
    {"name_minidump_writes_no_history", "kernel-panic",
     R"({"run": {"arguments": ["-r", "minidump"]},
        "expect": {"history": null, "log": [], "notLog": ["HistoryFileUpdate"]}})"},
    {"longer_name_writes_history", "kernel-panic",
     R"({"run": {"arguments": ["-r", "minidumpX"]}})"},
    {"last_option_wins", "corvel-first-boot", R"({"run": {"arguments": ["-r", "a", "-h", "b"]}})"},
    {"corvel_value_that_is_no_number", "corvel-first-boot", R"({"cmdline": "CORVEL=zz",
        "expect": {"log": ["E vorta: sscanf_s corvel data fail", "device first boot"],
        "notLog": []}})"},
    {"corvel_on_a_commercial_build", "corvel-first-boot", R"({"properties":
        {"ro.logsystem.usertype": "1"}, "expect": {"reasonHeader": {"corvel": 0}, "firstBytes":
        "00 00 00 00 00 00 00 00", "log": ["vorta is commercial", "corvel handle end"]}})"},
};

class VariedBoot : public testing::TestWithParam<Variation> {};

TEST_P(VariedBoot, KeepsItsPromise) {
    const bool panic = std::string(GetParam().scenario) == "kernel-panic";
    const Phone phone(Patched(GetParam().scenario, {panic ? kQuick : "{}", GetParam().patch}));
    ExpectPromiseKept(phone);
}

INSTANTIATE_TEST_SUITE_P(Boots, VariedBoot, testing::ValuesIn(kVariations),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

}  // namespace vortadev
