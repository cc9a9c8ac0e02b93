// The fields of the partition records by name, so that scenarios, expectations and reports speak of
// them in the same words. A record is kept as the raw bytes that lie on the partition.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "handle/PartitionRecords.h"

namespace vortadev {

struct Field {
    enum Kind { kNumber, kMagic, kText };

    const char* name;
    size_t offset;  // from the start of the record
    size_t width;   // bytes; numbers and magic words are little-endian
    Kind kind;
};

// Reason header (472 bytes), dump header (56) and full dump meta record (56).
const std::vector<Field>& ReasonHeaderFields();
const std::vector<Field>& DumpHeaderFields();
const std::vector<Field>& FulldumpMetaFields();

// Stores a JSON value: an integer or "0x..." text for a number, four characters or a number for a
// magic word, a text that fits for a text (zero-padded). Anything else changes nothing and gives
// what was expected, for the error; success gives the empty string.
std::string SetField(std::string& record, const Field& field, const nlohmann::json& value);

uint64_t GetNumber(const std::string& record, const Field& field);

// Text up to its first NUL, or to the end of the field.
std::string GetText(const std::string& record, const Field& field);

// {"name": value} of all fields; magic words as their characters when these are printable, texts
// with unprintable bytes escaped.
nlohmann::ordered_json FieldsToJson(const std::string& record, const std::vector<Field>& fields);

// "ABNM", or "0x00000001" when the bytes are no text.
std::string MagicText(uint32_t word);

std::string Hex(uint64_t number);

// The record as its struct; missing bytes are zero.
template <typename Record>
Record RecordOf(const std::string& bytes) {
    Record record = {};
    bytes.copy(reinterpret_cast<char*>(&record), sizeof(record));
    return record;
}

// CRC-32/MPEG-2: polynomial 0x04C11DB7, start value all ones, neither reflected nor inverted.
uint32_t Crc32Mpeg2(const std::string& bytes);

// Checksum that the bytes of a meta record call for.
uint32_t MetaCrc(const std::string& meta);

}  // namespace vortadev
