// The fields of the partition records by name.
#include "device/RecordFields.h"

#include <charconv>
#include <cstdio>

#include "device/Files.h"

namespace vortadev {

namespace {

constexpr size_t NodeOffset(size_t offsetInNode) {
    return offsetof(ReasonHeader, reasonNode) + offsetInNode;
}

bool ParseNumber(const nlohmann::json& value, uint64_t& number) {
    if (value.is_number_unsigned()) {
        number = value.get<uint64_t>();
        return true;
    }
    if (!value.is_string()) {
        return false;
    }
    const auto& text = value.get_ref<const std::string&>();
    const char* end = text.data() + text.size();
    if (text.size() <= 2 || text.compare(0, 2, "0x") != 0) {
        return false;
    }
    const auto result = std::from_chars(text.data() + 2, end, number, 16);
    return result.ec == std::errc() && result.ptr == end;
}

void StoreNumber(std::string& record, const Field& field, uint64_t number) {
    for (size_t i = 0; i < field.width; ++i) {
        record[field.offset + i] = static_cast<char>(number >> (8 * i));
    }
}

}  // namespace

const std::vector<Field>& ReasonHeaderFields() {
    static const std::vector<Field> fields = {
        {"corvel", offsetof(ReasonHeader, corvel), 8, Field::kNumber},
        {"innerResetReason", NodeOffset(offsetof(ReasonNode, innerResetReason)), 4, Field::kMagic},
        {"resetType", NodeOffset(offsetof(ReasonNode, resetType)), 4, Field::kMagic},
        {"bootLevel", NodeOffset(offsetof(ReasonNode, bootLevel)), 4, Field::kNumber},
        {"mreasonStrFlag", NodeOffset(offsetof(ReasonNode, mreasonStrFlag)), 4, Field::kMagic},
        {"sreasonStrFlag", NodeOffset(offsetof(ReasonNode, sreasonStrFlag)), 4, Field::kMagic},
        {"mreasonStr", NodeOffset(offsetof(ReasonNode, mreasonStr)), 32, Field::kText},
        {"sreasonStr", NodeOffset(offsetof(ReasonNode, sreasonStr)), 128, Field::kText},
        {"fulldumpOffset", offsetof(ReasonHeader, fulldumpOffset), 8, Field::kNumber},
        {"fulldumpReservedFlag", offsetof(ReasonHeader, fulldumpReservedFlag), 4, Field::kMagic},
        {"userType", offsetof(ReasonHeader, userType), 8, Field::kText},
        {"boardIdMagic", offsetof(ReasonHeader, boardIdMagic), 4, Field::kNumber},
        {"boardId", offsetof(ReasonHeader, boardId), 4, Field::kNumber},
    };
    return fields;
}

const std::vector<Field>& DumpHeaderFields() {
    static const std::vector<Field> fields = {
        {"text0", offsetof(DumpHeader, text0), 8, Field::kText},
        {"word32a", offsetof(DumpHeader, word32a), 4, Field::kNumber},
        {"flag", offsetof(DumpHeader, flag), 4, Field::kNumber},
        {"word64a", offsetof(DumpHeader, word64a), 8, Field::kNumber},
        {"text1", offsetof(DumpHeader, text1), 8, Field::kText},
        {"word32b", offsetof(DumpHeader, word32b), 4, Field::kNumber},
        {"word64b", offsetof(DumpHeader, word64b), 8, Field::kNumber},
        {"word64c", offsetof(DumpHeader, word64c), 8, Field::kNumber},
        {"word32c", offsetof(DumpHeader, word32c), 4, Field::kNumber},
    };
    return fields;
}

const std::vector<Field>& FulldumpMetaFields() {
    static const std::vector<Field> fields = {
        {"magic", offsetof(fulldump_header, magic), 4, Field::kMagic},
        {"magicTail", offsetof(fulldump_header, magicTail), 1, Field::kText},
        {"userType", offsetof(fulldump_header, userType), 1, Field::kText},
        {"reservedFlag", offsetof(fulldump_header, reservedFlag), 4, Field::kMagic},
        {"dumpOffset", offsetof(fulldump_header, dumpOffset), 8, Field::kNumber},
        {"dumpSize", offsetof(fulldump_header, dumpSize), 8, Field::kNumber},
        {"crc", offsetof(fulldump_header, crc), 4, Field::kNumber},
    };
    return fields;
}

std::string SetField(std::string& record, const Field& field, const nlohmann::json& value) {
    if (field.kind == Field::kText) {
        if (!value.is_string() || value.get_ref<const std::string&>().size() > field.width) {
            return "a text of at most " + std::to_string(field.width) + " bytes";
        }
        std::string text = value.get<std::string>();
        text.resize(field.width, '\0');
        record.replace(field.offset, field.width, text);
        return "";
    }
    uint64_t number = 0;
    if (ParseNumber(value, number)) {
        const uint64_t largest = UINT64_MAX >> (64 - 8 * field.width);
        if (number > largest) {
            return "at most " + Hex(largest);
        }
        StoreNumber(record, field, number);
        return "";
    }
    if (field.kind == Field::kNumber) {
        return "a whole number or \"0x...\"";
    }
    if (!value.is_string() || value.get_ref<const std::string&>().size() != 4) {
        return "four characters, a whole number or \"0x...\"";
    }
    for (size_t i = 0; i < 4; ++i) {
        record[field.offset + i] = value.get_ref<const std::string&>()[3 - i];
    }
    return "";
}

uint64_t GetNumber(const std::string& record, const Field& field) {
    uint64_t number = 0;
    for (size_t i = 0; i < field.width && field.offset + i < record.size(); ++i) {
        number |= uint64_t{static_cast<uint8_t>(record[field.offset + i])} << (8 * i);
    }
    return number;
}

std::string GetText(const std::string& record, const Field& field) {
    if (field.offset >= record.size()) {
        return "";
    }
    const std::string text = record.substr(field.offset, field.width);
    return text.substr(0, text.find('\0'));
}

nlohmann::ordered_json FieldsToJson(const std::string& record, const std::vector<Field>& fields) {
    nlohmann::ordered_json object;
    for (const Field& field : fields) {
        if (field.kind == Field::kText) {
            object[field.name] = Printable(GetText(record, field));
        } else if (field.kind == Field::kMagic) {
            object[field.name] = MagicText(static_cast<uint32_t>(GetNumber(record, field)));
        } else {
            object[field.name] = GetNumber(record, field);
        }
    }
    return object;
}

std::string MagicText(uint32_t word) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto c = static_cast<unsigned char>(word >> shift);
        if (c < 0x20 || c >= 0x7f) {
            return Hex(word);
        }
        text += static_cast<char>(c);
    }
    return text;
}

std::string Hex(uint64_t number) {
    char text[24];
    (void)snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(number));
    return text;
}

uint32_t Crc32Mpeg2(const std::string& bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (const unsigned char byte : bytes) {
        crc ^= uint32_t{byte} << 24;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc << 1) ^ ((crc >> 31) != 0 ? 0x04C11DB7 : 0);
        }
    }
    return crc;
}

uint32_t MetaCrc(const std::string& meta) {
    return Crc32Mpeg2(meta.substr(0, kFulldumpCrcLength));
}

}  // namespace vortadev
