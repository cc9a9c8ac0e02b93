// Scenario files: reading and checking every value.
#include <algorithm>
#include <cctype>

#include "device/Content.h"
#include "device/JsonNode.h"
#include "device/RecordFields.h"
#include "device/Scenario.h"
#include "device/ScenarioFill.h"
#include "rainbow/RainbowPaths.h"

namespace fs = std::filesystem;

namespace vortadev {

namespace {

constexpr size_t kPropertyLimit = 91;  // bytes of a value, without its NUL
constexpr uint64_t kCmdlineLimit = 65536;
constexpr uint64_t kPonLogLimit = 1 << 20;
constexpr uint64_t kSector = 512;

const char kNormalCmdline[] =
    "console=ttyMSM0,115200n8 androidboot.hardware=qcom androidboot.slot_suffix=_a rootwait ro "
    "init=/init";
const char kNormalPonLog[] =
    "PON Trigger: KPDPWR_N\nReset Trigger: PS_HOLD\nReset Type: HARD_RESET\nWarm Reset Count: 0\n"
    "PON Successful\n";
const uint8_t kNormalBoardId[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 5};

// The file that is read, and the scenario's own seed, used where a fill has none.
struct Source {
    fs::path file;
    uint64_t seed;

    Fill ReadFill(const JsonNode& node, const std::string& name, uint64_t limit) const {
        return ParseFill(node, name, limit, seed, file.parent_path());
    }
};

// A text, a list of lines or a fill.
std::string ReadBytes(const JsonNode& node, uint64_t limit, const Source& source) {
    return node.Value().is_object() ? Render(source.ReadFill(node, "", limit), "")
                                    : node.TextOrLines();
}

// "00 FE b6"; anything else is not what was expected.
std::string ReadHex(const JsonNode& node, const std::string& expected) {
    std::string digits = node.IsText() ? node.Text() : "-";
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    const auto isDigit = [](unsigned char c) { return isxdigit(c) != 0; };
    if (digits.size() % 2 != 0 || !std::all_of(digits.begin(), digits.end(), isDigit)) {
        node.Expected(expected);
    }
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string ReadBoardId(const JsonNode& node) {
    if (!node.Value().is_array() || node.Value().size() != 4) {
        return ReadHex(node, "four cells, or bytes in hexadecimal like \"00 00 00 05\"");
    }
    std::string bytes;
    for (const auto& [key, cell] : node.Items()) {
        const uint64_t number = cell.Number(0, UINT32_MAX);
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(number >> shift);
        }
    }
    return bytes;
}

void ReadRecord(const JsonNode& node, const std::vector<Field>& fields, std::string& record,
                const Source& source) {
    std::vector<std::string> names = {"fill"};
    for (const Field& field : fields) {
        names.emplace_back(field.name);
    }
    node.RequireKeys(names);
    if (const JsonNode fill = node["fill"]) {
        const std::string bytes = Render(source.ReadFill(fill, "", record.size()), "");
        record.replace(0, bytes.size(), bytes);
    }
    for (const Field& field : fields) {
        const JsonNode value = node[field.name];
        const std::string expected = value ? SetField(record, field, value.Value()) : "";
        if (!expected.empty()) {
            value.Expected(expected);
        }
    }
}

// A meta record, whose checksum is valid unless the file says otherwise.
void ReadMeta(const JsonNode& node, std::string& meta, const Source& source) {
    if (!node) {
        return;
    }
    const std::string crc = node["crc"].IsText() ? node["crc"].Text() : "";
    const bool computed = !node["crc"] || crc == "valid" || crc == "damaged";
    nlohmann::ordered_json fields = node.Value();
    if (computed && fields.is_object()) {
        fields.erase("crc");
    }
    ReadRecord(JsonNode(&fields, source.file.string(), "meta"), FulldumpMetaFields(), meta, source);
    if (computed) {
        const uint32_t valid = MetaCrc(meta);
        (void)SetField(meta, FulldumpMetaFields().back(), crc == "damaged" ? ~valid : valid);
    }
}

void ReadPartitionSizes(const JsonNode& node, Scenario& scenario) {
    node.RequireKeys({"rawdump", "userdata", "bootfail_info"});
    const std::pair<const char*, std::optional<uint64_t>&> sizes[] = {
        {"rawdump", scenario.rawdump},
        {"userdata", scenario.userdata},
        {"bootfail_info", scenario.bootfailInfo}};
    for (const auto& [name, size] : sizes) {
        const JsonNode value = node[name];
        if (value && value.Value().is_null()) {
            size.reset();
        } else if (value) {
            size = value.Size(0);
            if (*size % kSector != 0 || *size > INT64_MAX) {
                value.Expected("a multiple of 512 bytes, or null for a missing partition");
            }
        }
    }
}

// The files of the device that are no partitions and no data.
void ReadInputs(const JsonNode& root, const Source& source, Scenario& scenario) {
    if (root["properties"] && !root["properties"].Value().is_object()) {
        root["properties"].Expected("an object");
    }
    for (const auto& [name, value] : root["properties"].Items()) {
        const std::string text = value.Text();
        if (text.size() > kPropertyLimit || text.find('\n') != std::string::npos) {
            value.Expected("a text of at most 91 bytes without a line feed");
        }
        scenario.properties.emplace_back(name, text);
    }
    scenario.cmdline = kNormalCmdline;
    if (const JsonNode node = root["cmdline"]) {
        scenario.cmdline = ReadBytes(node, kCmdlineLimit, source);
    }
    scenario.cmdline += "\n";
    scenario.ponLog = kNormalPonLog;
    if (const JsonNode node = root["ponLog"]) {
        scenario.ponLog.reset();
        if (!node.Value().is_null()) {
            scenario.ponLog = ReadBytes(node, kPonLogLimit, source);
        }
    }
    scenario.boardId.emplace(std::begin(kNormalBoardId), std::end(kNormalBoardId));
    if (const JsonNode node = root["boardId"]) {
        scenario.boardId.reset();
        if (!node.Value().is_null()) {
            scenario.boardId = ReadBoardId(node);
        }
    }
    const JsonNode library = root["factoryLibrary"];
    if (library.Text() == "present") {
        scenario.factoryLibrary = FactoryLibrary::kPresent;
    } else if (library.Text() == "withoutSymbol") {
        scenario.factoryLibrary = FactoryLibrary::kWithoutSymbol;
    } else if (library) {
        library.Expected("\"present\" or \"withoutSymbol\"");
    }
}

void ReadDumps(const JsonNode& root, const Source& source, Scenario& scenario) {
    scenario.minidumpHeader.assign(sizeof(DumpHeader), '\0');
    const JsonNode mini = root["minidump"];
    mini.RequireKeys({"header", "content"});
    ReadRecord(mini["header"], DumpHeaderFields(), scenario.minidumpHeader, source);
    if (const JsonNode content = mini["content"]) {
        scenario.minidump = source.ReadFill(content, "minidump", kMinidumpRegion.size);
    }
    const JsonNode full = root["fulldump"];
    if (!full) {
        return;
    }
    full.RequireKeys({"offset", "size", "header", "content"});
    Fulldump dump;
    dump.offset = full["offset"].Size(0);
    dump.size = full["size"].Size(0);
    const uint64_t room = scenario.userdata.value_or(0);
    if (dump.size < sizeof(DumpHeader) || dump.size > room || dump.offset > room - dump.size) {
        full.Fail("expected offset and size of a dump of at least 56 bytes within the " +
                  std::to_string(room) + " bytes of userdata");
    }
    dump.header.assign(sizeof(DumpHeader), '\0');
    ReadRecord(full["header"], DumpHeaderFields(), dump.header, source);
    if (const JsonNode content = full["content"]) {
        dump.content = source.ReadFill(content, "minidump", dump.size);
    }
    scenario.fulldump = dump;
}

void ReadLogs(const JsonNode& node, const Source& source, Scenario& scenario) {
    std::vector<std::string> names;
    for (const LogRegion& log : LogRegions()) {
        names.push_back(log.name);
    }
    node.RequireKeys(names);
    uint64_t seed = source.seed;
    for (const auto& [name, region] : LogRegions()) {
        // The TrustZone log's range begins inside the kernel log's; each fills its own part.
        const uint64_t own =
            name == kLastKmsgName ? kTzLogRegion.offset - region.offset : region.size;
        const JsonNode fill = node[name];
        scenario.logs[name] =
            fill ? source.ReadFill(fill, name, own) : Fill{Fill::kPhone, ++seed, own, ""};
    }
}

DataEntry ReadDataEntry(const std::string& path, const JsonNode& node, const Source& source) {
    DataEntry entry;
    entry.path = fs::path(path).lexically_normal();
    if (path.empty() || entry.path.is_absolute() || *entry.path.begin() == "..") {
        node.Fail("expected a path relative to /data that stays below it");
    }
    if (node.Value() == "folder") {
        entry.kind = DataEntry::kFolder;
    } else if (node["link"]) {
        node.RequireKeys({"link"});
        entry.kind = DataEntry::kLink;
        entry.target = node["link"].Text();
    } else if (node.Value().is_object()) {
        entry.content = source.ReadFill(node, entry.path.filename(), kFileLimit);
    } else {
        node.Expected("\"folder\", {\"link\": TARGET} or what fills a file, like {\"text\": ...}");
    }
    return entry;
}

// The records as they have to be after the run.
void ReadExpectedRecords(const JsonNode& node, const Source& source, Scenario& scenario) {
    Expectations& expect = scenario.expect;
    expect.reasonHeader = scenario.reasonHeader;
    expect.meta = scenario.meta;
    for (const std::string& name : node["cleared"].TextList()) {
        if (name == "reasonNode") {
            expect.reasonHeader.replace(offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode),
                                        sizeof(ReasonNode), '\0');
        } else if (name == "minidump" || name == "fulldump") {
            (name == "minidump" ? expect.minidumpCleared : expect.fulldumpCleared) = true;
        } else {
            node["cleared"].Expected("a list of \"reasonNode\", \"minidump\", \"fulldump\"");
        }
    }
    ReadRecord(node["reasonHeader"], ReasonHeaderFields(), expect.reasonHeader, source);
    if (const JsonNode bytes = node["firstBytes"]) {
        const std::string expected = "eight bytes in hexadecimal";
        const std::string corvel = ReadHex(bytes, expected);
        if (corvel.size() != sizeof(ReasonHeader::corvel)) {
            bytes.Expected(expected);
        }
        expect.reasonHeader.replace(0, corvel.size(), corvel);
    }
    ReadMeta(node["meta"], expect.meta, source);
}

void ReadExpectations(const JsonNode& node, Expectations& expect) {
    node.RequireKeys({"status", "history", "collected", "fulldump", "cleared", "reasonHeader",
                      "firstBytes", "meta", "log", "notLog", "present", "gone", "factoryEvents"});
    expect.status = static_cast<int>(node["status"].Number(0, 255));
    if (const JsonNode history = node["history"]) {
        history.RequireKeys({"category", "reason", "renewed"});
        expect.history = {history["category"].Text(), history["reason"].Text(),
                          history["renewed"].Bool()};
    }
    expect.collected = node["collected"].TextList();
    std::sort(expect.collected.begin(), expect.collected.end());
    expect.fulldump = node["fulldump"].Bool();
    expect.log = node["log"].TextList();
    expect.notLog = node["notLog"].TextList();
    expect.present = node["present"].TextList();
    expect.gone = node["gone"].TextList();
    expect.factoryEvents = node["factoryEvents"].TextList();
}

Scenario ReadScenario(const JsonNode& root, const Source& source) {
    root.RequireKeys({"description", "seed", "run", "partitions", "properties", "cmdline", "ponLog",
                      "boardId", "reasonHeader", "logs", "minidump", "fulldump", "meta", "data",
                      "factoryLibrary", "expect"});
    Scenario scenario;
    scenario.name = source.file.stem();
    scenario.description = root["description"].Text();
    root["run"].RequireKeys({"arguments", "dataSize"});
    scenario.arguments = root["run"]["arguments"].TextList({"-r", "boot"});
    if (const JsonNode size = root["run"]["dataSize"]) {
        scenario.dataSize = size.Size(0);
    }
    ReadPartitionSizes(root["partitions"], scenario);
    ReadInputs(root, source, scenario);
    scenario.reasonHeader.assign(sizeof(ReasonHeader), '\0');
    ReadRecord(root["reasonHeader"], ReasonHeaderFields(), scenario.reasonHeader, source);
    scenario.meta.assign(sizeof(fulldump_header), '\0');
    ReadMeta(root["meta"], scenario.meta, source);
    ReadDumps(root, source, scenario);
    ReadLogs(root["logs"], source, scenario);
    for (const auto& [path, entry] : root["data"].Items()) {
        scenario.data.push_back(ReadDataEntry(path, entry, source));
    }
    ReadExpectations(root["expect"], scenario.expect);
    ReadExpectedRecords(root["expect"], source, scenario);
    return scenario;
}

}  // namespace

Scenario ParseScenario(const std::string& text, const fs::path& file) {
    nlohmann::ordered_json value;
    try {
        value = nlohmann::ordered_json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        const std::string what = error.what();
        const size_t at = what.find("at line");
        throw DeviceError(file.string() + ": expected JSON; " +
                          Printable(at == std::string::npos ? what : what.substr(at)));
    }
    const JsonNode root(&value, file.string(), "");
    Scenario scenario = ReadScenario(root, {file, root["seed"].Number(1)});
    scenario.source = text;
    return scenario;
}

}  // namespace vortadev
