// Texts of the reason header. Their writers should end them in a NUL; reading does not rely on it.
#pragma once

#include <string.h>

#include <string>

#include "handle/PartitionRecords.h"

// The text that starts at `field`, a text field of `header`, up to its NUL. A field without NUL
// runs on into the bytes behind it, at most to the end of the record.
inline std::string HeaderText(const ReasonHeader& header, const char* field) {
    const char* const end = reinterpret_cast<const char*>(&header) + sizeof(header);
    return std::string(field, strnlen(field, static_cast<size_t>(end - field)));
}
