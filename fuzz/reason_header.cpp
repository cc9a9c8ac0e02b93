// Fuzzes the reason header, the history and the user type: the input is a header as it lies on the
// partition and a row of operations on it, which a model of the record follows.
#include <algorithm>

#include "common/VortaUtils.h"
#include "fuzz/Phone.h"
#include "rainbow/RainbowHandle.h"
#include "rainbow/RainbowPaths.h"

namespace {

using fuzz::Require;

// The record in the service's memory and the partition, as they have to be.
struct Model {
    ReasonHeader header;
    std::string partition;

    std::string Text(const char* field) const {
        const std::string record = fuzz::BytesOf(header) + '\0';
        return record.data() + (field - reinterpret_cast<const char*>(&header));
    }
    bool IsValid() const {
        return (header.reasonNode.innerResetReason == kResetNormal ||
                header.reasonNode.innerResetReason == kResetAbnormal) &&
               header.reasonNode.mreasonStrFlag == kTextValid;
    }
    std::string Detail() const {
        return header.reasonNode.sreasonStrFlag == kTextValid ? Text(header.reasonNode.sreasonStr)
                                                              : "unknown_sreason";
    }
    void Store() { partition.replace(0, sizeof(header), fuzz::BytesOf(header)); }
};

// A text in a field of `Size` bytes, or nothing if it does not fit with its NUL.
template <size_t Size>
void SetText(char (&field)[Size], const std::string& text) {
    memset(field, 0, Size);
    text.copy(field, text.size() < Size ? text.size() : 0);
}

void Derive(RainbowHandle& handle, Model& model, uint32_t category, std::string reason) {
    static const char* const kNames[] = {"NORMALBOOT", "HARDWARE_FAULT", "UNKNOWN", "UNKNOWN"};
    ReasonNode& node = model.header.reasonNode;
    node.innerResetReason = kResetNormal;
    node.bootLevel = 1;
    node.mreasonStrFlag = node.sreasonStrFlag = kTextValid;
    SetText(node.mreasonStr, reason.empty() ? "UNKNOWN" : kNames[category]);
    SetText(node.sreasonStr, reason.empty() ? "UNKNOWN" : reason.substr(0, reason.find('\0')));
    if (reason.size() >= sizeof(node.sreasonStr) && reason.find('\0') >= sizeof(node.sreasonStr)) {
        SetText(node.sreasonStr, "");
    }
    handle.RainbowReasonSet(category, reason);
}

void SetUserType(RainbowHandle& handle, Model& model, std::string value) {
    value.resize(std::min(value.size(), fuzz::kMaxProperty));
    fuzz::Write(fuzz::kProperties, kUserTypeProperty + "=" + value + "\n");
    if (!value.empty() && model.Text(model.header.userType) != value) {
        value.resize(sizeof(model.header.userType));
        value.copy(model.header.userType, value.size());
        model.Store();
    }
    handle.SetIsNeedReserveFlag();
}

void SetBoard(RainbowHandle& handle, Model& model, const std::string& cells) {
    fuzz::Write(kBoardIdPath, cells);
    uint32_t id = 0;
    for (size_t low = 3; low < cells.size(); low += 4) {
        id = id * 10 + static_cast<uint8_t>(cells[low]);
    }
    if (cells.size() == 16 && id != model.header.boardId) {
        model.header.boardIdMagic = kBoardIdMagic;
        model.header.boardId = id;
        model.Store();
    }
    handle.SetBoardID();
}

void AddHistoryLine(RainbowHandle& handle, const Model& model, const std::string& cmdline) {
    fuzz::Write(fuzz::kCmdline, cmdline);
    const std::string before = fuzz::Read(kDumplogRoot + "/" + kHistoryName);
    const std::string reason =
        model.IsValid() ? model.Detail() : KeyValueFromLine(cmdline, kSreasonKey);
    const std::string category = model.IsValid() ? model.Text(model.header.reasonNode.mreasonStr)
                                                 : KeyValueFromLine(cmdline, kRebootReasonKey);
    handle.HistoryFileUpdate();

    const std::string start =
        before + "system exception core [NA], reason [" + reason + "], time [";
    const std::string end =
        "], sysreboot [true], bootup_keypoint [NA], category [" + category + "]\n";
    constexpr size_t kTime = sizeof("20240315083000-12345678") - 1;
    const std::string after = fuzz::Read(kDumplogRoot + "/" + kHistoryName);
    Require(after.size() == start.size() + kTime + end.size(), "one line of the history a step");
    Require(after.compare(0, start.size(), start) == 0, "what the history held, and the reason");
    Require(after.compare(start.size() + kTime, end.size(), end) == 0, "the category");
}

void Operate(fuzz::Input& input, RainbowHandle& handle, Model& model) {
    const uint8_t operation = input.Byte();
    switch (operation % 8) {
        case 0:
            return Require(handle.IsReasonPartValid() == model.IsValid(), "validity");
        case 1:
            return Require(handle.GetSreasonFromPart() == model.Detail(), "detail reason");
        case 2:
            return Derive(handle, model, operation / 8 % 4, input.Text());
        case 3:
            return SetUserType(handle, model, input.Line());
        case 4:
            return SetBoard(handle, model, input.Bytes(operation / 8 == 0 ? 16 : operation / 8));
        case 5:
            model.header.reasonNode = {};
            model.Store();
            return handle.UpdatePartReasonHeader();
        case 6:
            return AddHistoryLine(handle, model, input.Line() + "\n");
        default:
            return Require(handle.IsNormalBoot() == (model.header.reasonNode.bootLevel < 2),
                           "boot level");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t kMostOperations = 8;
    constexpr size_t kBehind = 40;  // bytes behind the record, which nobody may touch
    fuzz::CloseLeftOpen();
    fuzz::Input input(data, size);
    const std::string partition = input.Bytes(sizeof(ReasonHeader) + kBehind);
    fuzz::Write(fuzz::kRawdump, partition);
    fuzz::Write(kDumplogRoot + "/" + kHistoryName, std::nullopt);
    {
        RainbowHandle handle;
        Require(handle.RainbowInit(), "a partition of any size can be read");
        Model model = {fuzz::RecordOf<ReasonHeader>(partition), partition};
        for (size_t i = 0; i < kMostOperations && !input.Done(); ++i) {
            Operate(input, handle, model);
            Require(fuzz::Read(fuzz::kRawdump) == model.partition, "the partition's bytes");
        }
    }
    fuzz::CloseLeftOpen();
    return 0;
}
