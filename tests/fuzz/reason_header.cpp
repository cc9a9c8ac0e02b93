// Fuzzes the reason header, the history and the user type: the input is a header as it lies on the
// partition and a row of operations on it, which a model of the record follows.
#include "common/VortaUtils.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"
#include "tests/fuzz/Phone.h"

using fuzz::Require;

namespace {

// The record in the service's memory and the partition, as they have to be.
struct Model {
    ReasonHeader header;
    std::string partition;

    std::string Text(const char* field) const {
        const std::string record = fuzz::BytesOf(header) + '\0';
        return record.data() + (field - reinterpret_cast<const char*>(&header));
    }
    bool IsValid() const {
        const uint32_t reset = header.reasonNode.innerResetReason;
        return (reset == kResetNormal || reset == kResetAbnormal) &&
               header.reasonNode.mreasonStrFlag == kTextValid;
    }
    std::string Detail() const {
        return header.reasonNode.sreasonStrFlag == kTextValid ? Text(header.reasonNode.sreasonStr)
                                                              : "unknown_sreason";
    }
    void Store() { partition.replace(0, sizeof(header), fuzz::BytesOf(header)); }
};

void Derive(RainbowHandle& handle, Model& model, uint32_t category, std::string reason) {
    static const char* const kNames[] = {"NORMALBOOT", "HARDWARE_FAULT", "UNKNOWN", "UNKNOWN"};
    ReasonNode& node = model.header.reasonNode;
    node.innerResetReason = kResetNormal;
    node.bootLevel = 1;
    node.mreasonStrFlag = node.sreasonStrFlag = kTextValid;
    std::string name = kNames[category];
    std::string detail = reason.empty() ? "UNKNOWN" : reason.size() > 127 ? "" : reason;
    name.resize(sizeof(node.mreasonStr));
    if (reason.empty()) {  // put over the name, whose end stays behind the NUL
        name.replace(0, sizeof("UNKNOWN"), "UNKNOWN", sizeof("UNKNOWN"));
    }
    detail.resize(sizeof(node.sreasonStr));
    name.copy(node.mreasonStr, sizeof(node.mreasonStr));
    detail.copy(node.sreasonStr, sizeof(node.sreasonStr));
    handle.RainbowReasonSet(category, reason);
}

void SetUserType(RainbowHandle& handle, Model& model, std::string value) {
    fuzz::Write(fuzz::kProperties, kUserTypeProperty + "=" + value + "\n");
    value.resize(std::min<size_t>(value.size(), 91));  // what the property service keeps
    if (!value.empty() && model.Text(model.header.userType) != value) {
        value.resize(sizeof(model.header.userType));
        value.copy(model.header.userType, value.size());
        model.Store();
    }
    handle.SetIsNeedReserveFlag();
}

// What stands behind a key and one more character, up to a space or the end.
std::string ValueOf(std::string line, const std::string& key) {
    const size_t at = line.find(key);
    line.erase(0, at == line.npos ? at : at + key.size() + 1);
    return line.substr(0, line.find(' '));
}

void AddHistoryLine(RainbowHandle& handle, const Model& model, const std::string& cmdline) {
    const std::string history = kDumplogRoot + "/" + kHistoryName;
    fuzz::Write(fuzz::kCmdline, cmdline);
    const std::string reason = model.IsValid() ? model.Detail() : ValueOf(cmdline, "sreason");
    const std::string category = model.IsValid() ? model.Text(model.header.reasonNode.mreasonStr)
                                                 : ValueOf(cmdline, "reboot_reason");
    const std::string start =
        fuzz::Read(history) + "system exception core [NA], reason [" + reason + "], time [";
    const std::string end =
        "], sysreboot [true], bootup_keypoint [NA], category [" + category + "]\n";
    const size_t time = sizeof("20240315083000-12345678") - 1;
    handle.HistoryFileUpdate();
    const std::string after = fuzz::Read(history);
    Require(after.size() == start.size() + time + end.size(), "one line of the history a step");
    Require(after.compare(0, start.size(), start) == 0, "what the history held, and the reason");
    Require(after.compare(start.size() + time, end.size(), end) == 0, "the category");
}

void Operate(fuzz::Input& input, RainbowHandle& handle, Model& model) {
    const uint8_t operation = input.Byte();
    switch (operation % 8) {
        case 0:
            return Derive(handle, model, operation / 8 % 4, input.Line());
        case 1:
            return SetUserType(handle, model, input.Line());
        case 2:
            return AddHistoryLine(handle, model, input.Line() + "\n");
        case 3:
            model.header.reasonNode = {};
            model.Store();
            return handle.UpdatePartReasonHeader();
        default:
            Require(handle.IsReasonPartValid() == model.IsValid(), "validity");
            Require(handle.GetSreasonFromPart() == model.Detail(), "detail reason");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMostOperations = 8;
    constexpr size_t kBehind = 40;  // bytes behind the record, which nobody may touch
    fuzz::CloseLeftOpen();
    fuzz::Input input(data, size);
    const std::string partition = input.Bytes(sizeof(ReasonHeader) + kBehind);
    fuzz::Write(fuzz::kPartitions + "rawdump", partition);
    fuzz::Write(kDumplogRoot + "/" + kHistoryName, std::nullopt);
    RainbowHandle handle;
    Require(handle.RainbowInit(), "a partition of any size can be read");
    Model model = {fuzz::RecordOf<ReasonHeader>(partition), partition};
    for (size_t i = 0; i < kMostOperations && !input.Done(); ++i) {
        Operate(input, handle, model);
        Require(fuzz::Read(fuzz::kPartitions + "rawdump") == model.partition, "the partition");
    }
    return 0;
}
