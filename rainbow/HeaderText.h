// Texts of the reason header. Their writers should end them in a NUL; reading does not rely on it.
#pragma once

#include <string>
#include <string_view>

#include "handle/PartitionRecords.h"

// The text that starts at `field`, a text field of `header`, up to its NUL. A field without NUL
// runs on into the bytes behind it, at most to the end of the record.
inline std::string HeaderText(const ReasonHeader& header, const char* field) {
    std::string_view text(reinterpret_cast<const char*>(&header), sizeof(header));
    text.remove_prefix(static_cast<size_t>(field - text.data()));
    return std::string(text.substr(0, text.find('\0')));
}
