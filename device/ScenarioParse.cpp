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

// Reads the parts of one scenario file. `seed` is the scenario's own, used where a fill has none.
class Reader {
  public:
    Reader(const fs::path& source, uint64_t seed) : source_(source), seed_(seed) {}

    Scenario Read(const JsonNode& root) const;

  private:
    Fill ReadFill(const JsonNode& node, const std::string& name, uint64_t limit) const {
        return ParseFill(node, name, limit, seed_, source_.parent_path());
    }
    std::string ReadBytes(const JsonNode& node, const std::string& name, uint64_t limit) const;
    std::string ReadBoardId(const JsonNode& node) const;
    void ReadRecord(const JsonNode& node, const std::vector<Field>& fields,
                    std::string& record) const;
    void ReadMeta(const JsonNode& node, std::string& meta) const;
    std::string ReadDumpHeader(const JsonNode& parent) const;
    void ReadPartitions(const JsonNode& node, Scenario& scenario) const;
    void ReadProperties(const JsonNode& node, Scenario& scenario) const;
    void ReadInputs(const JsonNode& root, Scenario& scenario) const;
    void ReadDumps(const JsonNode& root, Scenario& scenario) const;
    void ReadLogs(const JsonNode& root, Scenario& scenario) const;
    DataEntry ReadDataEntry(const std::string& path, const JsonNode& node) const;
    void ReadExpectations(const JsonNode& node, Scenario& scenario) const;
    void ReadExpectedRecords(const JsonNode& node, Scenario& scenario) const;

    const fs::path& source_;
    uint64_t seed_;
};

std::string Reader::ReadBytes(const JsonNode& node, const std::string& name, uint64_t limit) const {
    if (node.Value().is_object()) {
        return Render(ReadFill(node, name, limit), name);
    }
    return node.TextOrLines();
}

std::string Reader::ReadBoardId(const JsonNode& node) const {
    std::string bytes;
    if (node.Value().is_array() && node.Value().size() == 4) {
        for (const auto& [key, cell] : node.Items()) {
            const uint64_t number = cell.Number(UINT32_MAX);
            for (int shift = 24; shift >= 0; shift -= 8) {
                bytes += static_cast<char>(number >> shift);
            }
        }
        return bytes;
    }
    std::string digits = node.Value().is_string() ? node.Text() : "-";
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    const auto isDigit = [](unsigned char c) { return isxdigit(c) != 0; };
    if (digits.size() % 2 != 0 || !std::all_of(digits.begin(), digits.end(), isDigit)) {
        node.Expected("four cells or bytes in hexadecimal, like \"00 00 00 05\"");
    }
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

void Reader::ReadRecord(const JsonNode& node, const std::vector<Field>& fields,
                        std::string& record) const {
    std::vector<std::string> names = {"fill"};
    for (const Field& field : fields) {
        names.emplace_back(field.name);
    }
    node.RequireKeys(names);
    if (const auto fill = node.Get("fill")) {
        record = Render(ReadFill(*fill, "", record.size()), "");
    }
    for (const Field& field : fields) {
        const auto value = node.Get(field.name);
        const std::string expected = value ? SetField(record, field, value->Value()) : "";
        if (!expected.empty()) {
            value->Expected(expected);
        }
    }
}

void Reader::ReadMeta(const JsonNode& node, std::string& meta) const {
    nlohmann::ordered_json fields = node.Value();
    const auto crc = node.Get("crc");
    const std::string word = crc && crc->Value().is_string() ? crc->Text() : "";
    if (word == "valid" || word == "damaged") {
        fields.erase("crc");
    }
    ReadRecord(JsonNode(fields, source_.string(), "meta"), FulldumpMetaFields(), meta);
    if (!crc || word == "valid" || word == "damaged") {
        const uint32_t valid = MetaCrc(meta);
        (void)SetField(meta, FulldumpMetaFields().back(), word == "damaged" ? ~valid : valid);
    }
}

std::string Reader::ReadDumpHeader(const JsonNode& parent) const {
    std::string header(sizeof(DumpHeader), '\0');
    if (const auto node = parent.Get("header")) {
        ReadRecord(*node, DumpHeaderFields(), header);
    }
    return header;
}

void Reader::ReadPartitions(const JsonNode& node, Scenario& scenario) const {
    node.RequireKeys({"rawdump", "userdata", "bootfail_info"});
    const std::pair<const char*, std::optional<uint64_t>*> sizes[] = {
        {"rawdump", &scenario.rawdump},
        {"userdata", &scenario.userdata},
        {"bootfail_info", &scenario.bootfailInfo}};
    for (const auto& [name, size] : sizes) {
        if (const auto value = node.Get(name)) {
            *size = value->IsNull() ? std::nullopt : std::optional(value->Size());
            if (*size && (**size % kSector != 0 || **size > INT64_MAX)) {
                value->Expected("a multiple of 512 bytes, or null for a missing partition");
            }
        }
    }
}

void Reader::ReadProperties(const JsonNode& node, Scenario& scenario) const {
    if (!node.Value().is_object()) {
        node.Expected("an object");
    }
    for (const auto& [name, value] : node.Items()) {
        const std::string text = value.Text();
        if (text.size() > kPropertyLimit || text.find('\n') != std::string::npos) {
            value.Expected("a text of at most 91 bytes without a line feed");
        }
        scenario.properties.emplace_back(name, text);
    }
}

void Reader::ReadDumps(const JsonNode& root, Scenario& scenario) const {
    scenario.minidumpHeader.assign(sizeof(DumpHeader), '\0');
    if (const auto node = root.Get("minidump")) {
        node->RequireKeys({"header", "content"});
        scenario.minidumpHeader = ReadDumpHeader(*node);
        const auto content = node->Get("content");
        scenario.minidump = content ? ReadFill(*content, "minidump", kMinidumpRegion.size) : Fill{};
    }
    if (const auto node = root.Get("fulldump")) {
        node->RequireKeys({"offset", "size", "header", "content"});
        Fulldump dump;
        const auto offset = node->Get("offset");
        const auto size = node->Get("size");
        if (!offset || !size) {
            node->Fail("expected both \"offset\" and \"size\"");
        }
        dump.offset = offset->Size();
        dump.size = size->Size();
        const uint64_t room = scenario.userdata.value_or(0);
        if (dump.size < sizeof(DumpHeader) || dump.size > room || dump.offset > room - dump.size) {
            node->Fail("expected a dump of at least 56 bytes within the " + std::to_string(room) +
                       " bytes of userdata");
        }
        dump.header = ReadDumpHeader(*node);
        const auto content = node->Get("content");
        dump.content = content ? ReadFill(*content, "minidump", dump.size) : Fill{};
        scenario.fulldump = dump;
    }
}

void Reader::ReadLogs(const JsonNode& root, Scenario& scenario) const {
    const auto node = root.Get("logs");
    std::vector<std::string> names;
    for (const LogRegion& log : LogRegions()) {
        names.push_back(log.name);
    }
    if (node) {
        node->RequireKeys(names);
    }
    uint64_t seed = seed_;
    for (const LogRegion& log : LogRegions()) {
        // The TrustZone log's range begins inside the kernel log's; each fills its own part.
        const uint64_t own =
            log.name == kLastKmsgName ? kTzLogRegion.offset - log.region.offset : log.region.size;
        const Fill phone = {Fill::kPhone, ++seed, own, ""};
        const auto fill = node ? node->Get(log.name) : std::nullopt;
        scenario.logs[log.name] = fill ? ReadFill(*fill, log.name, own) : phone;
    }
}

DataEntry Reader::ReadDataEntry(const std::string& path, const JsonNode& node) const {
    DataEntry entry;
    entry.path = fs::path(path).lexically_normal();
    if (path.empty() || entry.path.is_absolute() || *entry.path.begin() == "..") {
        node.Fail("expected a path relative to /data that stays below it");
    }
    if (node.Value() == "folder") {
        entry.kind = DataEntry::kFolder;
    } else if (node.Value().is_object() && node.Get("link")) {
        node.RequireKeys({"link"});
        entry.kind = DataEntry::kLink;
        entry.target = node.Get("link")->Text();
    } else if (node.Value().is_object()) {
        entry.content = ReadFill(node, entry.path.filename(), kFileLimit);
    } else {
        node.Expected("\"folder\", {\"link\": TARGET} or what fills a file, like {\"text\": ...}");
    }
    return entry;
}

void Reader::ReadExpectedRecords(const JsonNode& node, Scenario& scenario) const {
    Expectations& expect = scenario.expect;
    expect.reasonHeader = scenario.reasonHeader;
    expect.meta = scenario.meta;
    const auto cleared = node.Get("cleared");
    for (const std::string& name : cleared ? cleared->TextList() : std::vector<std::string>()) {
        if (name == "reasonNode") {
            expect.reasonHeader.replace(offsetof(ReasonHeader, reasonNode), sizeof(ReasonNode),
                                        sizeof(ReasonNode), '\0');
        } else if (name == "minidump" || name == "fulldump") {
            (name == "minidump" ? expect.minidumpCleared : expect.fulldumpCleared) = true;
        } else {
            cleared->Expected("a list of \"reasonNode\", \"minidump\", \"fulldump\"");
        }
    }
    if (const auto record = node.Get("reasonHeader")) {
        ReadRecord(*record, ReasonHeaderFields(), expect.reasonHeader);
    }
    if (const auto bytes = node.Get("firstBytes")) {
        const std::string corvel = ReadBoardId(*bytes);
        expect.reasonHeader.replace(0, corvel.size(), corvel);
    }
    if (const auto record = node.Get("meta")) {
        ReadMeta(*record, expect.meta);
    }
}

void Reader::ReadExpectations(const JsonNode& node, Scenario& scenario) const {
    Expectations& expect = scenario.expect;
    node.RequireKeys({"status", "history", "collected", "fulldump", "cleared", "reasonHeader",
                      "firstBytes", "meta", "log", "notLog", "present", "gone", "factoryEvents"});
    ReadExpectedRecords(node, scenario);
    if (const auto status = node.Get("status")) {
        expect.status = static_cast<int>(status->Number(255));
    }
    if (const auto history = node.Get("history"); history && !history->IsNull()) {
        history->RequireKeys({"category", "reason", "renewed"});
        const auto category = history->Get("category");
        const auto reason = history->Get("reason");
        const auto renewed = history->Get("renewed");
        expect.history = {category ? category->Text() : "", reason ? reason->Text() : "",
                          renewed && renewed->Bool()};
    }
    const auto fulldump = node.Get("fulldump");
    expect.fulldump = fulldump && fulldump->Bool();
    const std::pair<const char*, std::vector<std::string>*> lists[] = {
        {"collected", &expect.collected}, {"log", &expect.log},
        {"notLog", &expect.notLog},       {"present", &expect.present},
        {"gone", &expect.gone},           {"factoryEvents", &expect.factoryEvents}};
    for (const auto& [name, list] : lists) {
        if (const auto value = node.Get(name)) {
            *list = value->TextList();
        }
    }
    std::sort(expect.collected.begin(), expect.collected.end());
}

void Reader::ReadInputs(const JsonNode& root, Scenario& scenario) const {
    if (const auto node = root.Get("properties")) {
        ReadProperties(*node, scenario);
    }
    if (const auto node = root.Get("cmdline")) {
        scenario.cmdline = ReadBytes(*node, "cmdline", kCmdlineLimit);
    }
    scenario.cmdline += "\n";
    if (const auto node = root.Get("ponLog")) {
        scenario.ponLog.reset();
        if (!node->IsNull()) {
            scenario.ponLog = ReadBytes(*node, "ponLog", kPonLogLimit);
        }
    }
    if (const auto node = root.Get("boardId")) {
        scenario.boardId.reset();
        if (!node->IsNull()) {
            scenario.boardId = ReadBoardId(*node);
        }
    }
}

Scenario Reader::Read(const JsonNode& root) const {
    Scenario scenario;
    scenario.name = source_.stem();
    scenario.arguments = {"-r", "boot"};
    scenario.cmdline = kNormalCmdline;
    scenario.ponLog = kNormalPonLog;
    scenario.boardId.emplace(reinterpret_cast<const char*>(kNormalBoardId), sizeof(kNormalBoardId));
    scenario.reasonHeader.assign(sizeof(ReasonHeader), '\0');
    scenario.meta.assign(sizeof(fulldump_header), '\0');

    if (const auto node = root.Get("description")) {
        scenario.description = node->Text();
    }
    if (const auto node = root.Get("run")) {
        node->RequireKeys({"arguments", "dataSize"});
        if (const auto arguments = node->Get("arguments")) {
            scenario.arguments = arguments->TextList();
        }
        if (const auto size = node->Get("dataSize")) {
            scenario.dataSize = size->Size();
        }
    }
    if (const auto node = root.Get("partitions")) {
        ReadPartitions(*node, scenario);
    }
    ReadInputs(root, scenario);
    if (const auto node = root.Get("reasonHeader")) {
        ReadRecord(*node, ReasonHeaderFields(), scenario.reasonHeader);
    }
    if (const auto node = root.Get("meta")) {
        ReadMeta(*node, scenario.meta);
    }
    ReadDumps(root, scenario);
    ReadLogs(root, scenario);
    if (const auto node = root.Get("data")) {
        for (const auto& [path, entry] : node->Items()) {
            scenario.data.push_back(ReadDataEntry(path, entry));
        }
    }
    if (const auto node = root.Get("factoryLibrary")) {
        if (node->Value() != "present" && node->Value() != "withoutSymbol") {
            node->Expected("\"present\" or \"withoutSymbol\"");
        }
        scenario.factoryLibrary =
            node->Value() == "present" ? FactoryLibrary::kPresent : FactoryLibrary::kWithoutSymbol;
    }
    const auto expect = root.Get("expect");
    const nlohmann::ordered_json none = nlohmann::ordered_json::object();
    ReadExpectations(expect ? *expect : JsonNode(none, source_.string(), "expect"), scenario);
    return scenario;
}

}  // namespace

Scenario ParseScenario(const std::string& text, const fs::path& source) {
    nlohmann::ordered_json value;
    try {
        value = nlohmann::ordered_json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        const std::string what = error.what();
        const size_t at = what.find("at line");
        throw DeviceError(source.string() + ": expected JSON; " +
                          Printable(at == std::string::npos ? what : what.substr(at)));
    }
    const JsonNode root(value, source.string(), "");
    root.RequireKeys({"description", "seed", "run", "partitions", "properties", "cmdline", "ponLog",
                      "boardId", "reasonHeader", "logs", "minidump", "fulldump", "meta", "data",
                      "factoryLibrary", "expect"});
    const auto seed = root.Get("seed");
    Scenario scenario = Reader(source, seed ? seed->Number() : 1).Read(root);
    scenario.source = text;
    return scenario;
}

}  // namespace vortadev
