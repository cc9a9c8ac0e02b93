// A report in words, and as JSON.
#include <algorithm>

#include "device/Files.h"
#include "device/RecordFields.h"
#include "device/Report.h"

namespace vortadev {

namespace {

constexpr size_t kLabelWidth = 24;

std::string Row(const std::string& label, const std::string& text) {
    std::string row = "  " + label;
    row.resize(std::max(kLabelWidth, row.size() + 1), ' ');
    return row + text + "\n";
}

// A magic word with what it means; any other value is told as no such word.
std::string Word(uint32_t word, std::initializer_list<std::pair<uint32_t, const char*>> meanings) {
    for (const auto& [known, meaning] : meanings) {
        if (word == known) {
            return MagicText(word) + "  " + meaning;
        }
    }
    return MagicText(word) + (word == 0 ? "  not set" : "  not a word that is known here");
}

std::string FlaggedText(const Field& field, const std::string& bytes, uint32_t flag) {
    const std::string text = GetText(bytes, field);
    std::string quoted = text.empty() ? "" : "\"" + Printable(text) + "\"";
    if (flag != kTextValid) {
        quoted += std::string(quoted.empty() ? "none" : "  not valid") + " (flag " +
                  MagicText(flag) + ")";
    } else if (quoted.empty()) {
        quoted = "empty";
    }
    return quoted;
}

std::string Corvel(uint64_t corvel) {
    if (corvel == 0) {
        return "never written";
    }
    return Hex(corvel) + "  tag " +
           ((corvel >> 48) == (kCorvelTag >> 48) ? "434F"
                                                 : Hex(corvel >> 48) + " (expected 434F)") +
           ", " + ((corvel & kCorvelCorrected) != 0 ? "corrected" : "not corrected") +
           ", payload " + Hex(corvel & kCorvelPayload);
}

const Field& FieldNamed(const std::vector<Field>& fields, const std::string& name) {
    return *std::find_if(fields.begin(), fields.end(),
                         [&](const Field& field) { return name == field.name; });
}

std::string ReasonText(const RecordReport& record) {
    const auto header = RecordOf<ReasonHeader>(record.bytes);
    const ReasonNode& node = header.reasonNode;
    const auto& fields = ReasonHeaderFields();
    std::string text = "Reason node (rawdump)\n";
    if (!record.problem.empty()) {
        text += Row("damaged", record.problem);
    }
    if (record.bytes.empty()) {
        return text;
    }
    text += Row("reset reason", Word(node.innerResetReason,
                                     {{kResetNormal, "normal"}, {kResetAbnormal, "abnormal"}}));
    text += Row("reset type",
                Word(node.resetType, {{kResetWarm, "warm reset: the reason below stands"}}));
    text +=
        Row("boot level", std::to_string(node.bootLevel) + (node.bootLevel >= kAbnormalBootLevel
                                                                ? "  abnormal: logs are to be saved"
                                                                : "  normal: no logs to save"));
    text += Row("category",
                FlaggedText(FieldNamed(fields, "mreasonStr"), record.bytes, node.mreasonStrFlag));
    text += Row("detail",
                FlaggedText(FieldNamed(fields, "sreasonStr"), record.bytes, node.sreasonStrFlag));
    text += "Other fields of the reason header\n";
    text += Row("corvel value", Corvel(header.corvel));
    const std::string user = GetText(record.bytes, FieldNamed(fields, "userType"));
    text += Row("user type", user.empty() ? "not stored" : "\"" + Printable(user) + "\"");
    text += Row("board", header.boardIdMagic == kBoardIdMagic
                             ? std::to_string(header.boardId)
                             : "not stored (magic " + Hex(header.boardIdMagic) + ")");
    const bool reserved = header.fulldumpReservedFlag == kFulldumpReserved;
    return text +
           Row("full dump descriptor",
               reserved ? "reserved at userdata offset " + Hex(header.fulldumpOffset)
                        : "nothing reserved (flag " + MagicText(header.fulldumpReservedFlag) + ")");
}

std::string DumpText(const std::string& label, const RecordReport& record) {
    const auto header = RecordOf<DumpHeader>(record.bytes);
    if (!record.problem.empty()) {
        return Row(label, "damaged: " + record.problem);
    }
    const bool empty = record.bytes.find_first_not_of('\0') == std::string::npos;
    const std::string at = " at " + Hex(record.offset);
    if (empty) {
        return Row(label, "nothing waits, the header" + at + " is clear");
    }
    return Row(label,
               std::string((header.flag & kDumpPresent) != 0 ? "a dump waits" : "nothing waits") +
                   at + ", flag " + Hex(header.flag) + ", texts \"" +
                   Printable(GetText(record.bytes, DumpHeaderFields()[0])) + "\" \"" +
                   Printable(GetText(record.bytes, DumpHeaderFields()[4])) + "\"");
}

std::string MetaText(const RecordReport& record) {
    const auto meta = RecordOf<fulldump_header>(record.bytes);
    std::string text = "Full dump meta record (bootfail_info)\n";
    if (!record.problem.empty()) {
        return text + Row("damaged", record.problem);
    }
    const bool present = meta.magic == kFulldumpMagic && meta.magicTail == kFulldumpMagicTail;
    if (!present) {
        return text + Row("record", "none (magic " + MagicText(meta.magic) + ")");
    }
    const uint32_t crc = MetaCrc(record.bytes);
    text +=
        Row("checksum", meta.crc == crc ? "holds (" + Hex(crc) + ")"
                                        : "broken: " + Hex(meta.crc) + ", expected " + Hex(crc));
    text +=
        Row("user type", "\"" + Printable(std::string(meta.userType != 0, meta.userType)) + "\"");
    return text + Row("dump", meta.reservedFlag == kFulldumpReserved
                                  ? SizeText(meta.dumpSize) + " reserved at userdata offset " +
                                        Hex(meta.dumpOffset)
                                  : "nothing reserved (flag " + MagicText(meta.reservedFlag) + ")");
}

std::string FolderText(const FolderReport& folder) {
    std::string text = "  " + Printable(folder.name) + "  " + SizeText(folder.Size()) +
                       (folder.done ? "  DONE" : "  no marker") + "\n";
    if (!folder.problem.empty()) {
        text += "    " + folder.problem + "\n";
    }
    for (const FileReport& file : folder.files) {
        std::string size = SizeText(file.size);
        size.insert(0, size.size() < 10 ? 10 - size.size() : 0, ' ');
        text += "    " + size + "  " + Printable(file.name) + "\n";
    }
    return text;
}

std::string HistoryText(const HistoryReport& history, size_t lines) {
    const size_t count = history.entries.size();
    std::string text = "History: " + std::to_string(count) + (count == 1 ? " line" : " lines");
    text += count > lines ? ", the last " + std::to_string(lines) : "";
    text += history.damaged > 0 ? ", " + std::to_string(history.damaged) + " bytes damaged" : "";
    text += (history.problem.empty() ? "" : ", " + history.problem) + "\n";
    size_t widest = 8;
    const size_t first = count - std::min(count, lines);
    for (size_t i = first; i < count; ++i) {
        widest = std::max(widest, Printable(history.entries[i].category).size());
    }
    const auto row = [&](std::string time, std::string category, const std::string& reason) {
        time.resize(std::max<size_t>(24, time.size()), ' ');
        category.resize(widest + 1, ' ');
        text += "  " + time + " " + category + " " + reason + "\n";
    };
    if (count > 0) {
        row("time", "category", "reason");
    }
    for (size_t i = first; i < count; ++i) {
        const HistoryEntry& entry = history.entries[i];
        row(Printable(entry.time), Printable(entry.category), Printable(entry.reason));
    }
    return text;
}

nlohmann::ordered_json RecordJson(const RecordReport& record, const std::vector<Field>& fields) {
    nlohmann::ordered_json object = FieldsToJson(record.bytes, fields);
    if (!record.problem.empty()) {
        object["problem"] = Printable(record.problem);
    }
    return object;
}

nlohmann::ordered_json FolderJson(const FolderReport& folder) {
    nlohmann::ordered_json files = nlohmann::ordered_json::object();
    for (const FileReport& file : folder.files) {
        files[Printable(file.name)] = file.size;
    }
    nlohmann::ordered_json object = {{"name", Printable(folder.name)},
                                     {"size", folder.Size()},
                                     {"done", folder.done},
                                     {"files", files}};
    if (!folder.problem.empty()) {
        object["problem"] = folder.problem;
    }
    return object;
}

nlohmann::ordered_json HistoryJson(const HistoryReport& history) {
    nlohmann::ordered_json entries = nlohmann::ordered_json::array();
    for (const HistoryEntry& entry : history.entries) {
        entries.push_back({{"time", Printable(entry.time)},
                           {"category", Printable(entry.category)},
                           {"reason", Printable(entry.reason)}});
    }
    nlohmann::ordered_json object = {
        {"size", history.size}, {"damagedBytes", history.damaged}, {"entries", entries}};
    if (!history.problem.empty()) {
        object["problem"] = history.problem;
    }
    return object;
}

}  // namespace

std::string ReportText(const DeviceReport& report, size_t historyLines) {
    std::string text = Printable(report.path) + ": " + report.kind + "\n";
    text += report.description.empty() ? "" : Printable(report.description) + "\n";
    for (const std::string& problem : report.problems) {
        text += "Problem: " + Printable(problem) + "\n";
    }
    if (report.reasonHeader) {
        text += ReasonText(*report.reasonHeader);
    }
    if (report.minidump || report.fulldump) {
        text += "Dump headers\n";
    }
    text += report.minidump ? DumpText("minidump", *report.minidump) : "";
    text += report.fulldump ? DumpText("full dump", *report.fulldump) : "";
    text += report.meta ? MetaText(*report.meta) : "";
    if (report.dumps) {
        text += "Collected boots: " + std::to_string(report.dumps->size()) + "\n";
        for (const FolderReport& folder : *report.dumps) {
            text += FolderText(folder);
        }
    }
    if (report.fulldumps &&
        !(report.fulldumps->files.empty() && report.fulldumps->problem.empty())) {
        text += "Collected full dumps\n" + FolderText(*report.fulldumps);
    }
    return text + (report.history ? HistoryText(*report.history, historyLines) : "");
}

nlohmann::ordered_json ReportJson(const DeviceReport& report) {
    nlohmann::ordered_json object = {{"path", Printable(report.path)},
                                     {"kind", report.kind},
                                     {"description", Printable(report.description)},
                                     {"problems", report.problems}};
    if (report.reasonHeader) {
        object["reasonHeader"] = RecordJson(*report.reasonHeader, ReasonHeaderFields());
    }
    const std::pair<const char*, const std::optional<RecordReport>&> dumps[] = {
        {"minidump", report.minidump}, {"fulldump", report.fulldump}};
    for (const auto& [name, record] : dumps) {
        if (record) {
            object[name] = RecordJson(*record, DumpHeaderFields());
            object[name]["waiting"] =
                (RecordOf<DumpHeader>(record->bytes).flag & kDumpPresent) != 0;
        }
    }
    if (report.meta) {
        object["meta"] = RecordJson(*report.meta, FulldumpMetaFields());
        object["meta"]["crcHolds"] =
            MetaCrc(report.meta->bytes) == RecordOf<fulldump_header>(report.meta->bytes).crc;
    }
    if (report.dumps) {
        object["dumps"] = nlohmann::ordered_json::array();
        for (const FolderReport& folder : *report.dumps) {
            object["dumps"].push_back(FolderJson(folder));
        }
    }
    if (report.fulldumps) {
        object["fulldumps"] = FolderJson(*report.fulldumps);
    }
    if (report.history) {
        object["history"] = HistoryJson(*report.history);
    }
    return object;
}

}  // namespace vortadev
