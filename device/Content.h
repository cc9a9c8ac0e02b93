// What stands in log regions, dumps and files: text as a phone leaves it, between binary bytes,
// the same for the same seed on every machine.
#pragma once

#include <string>

#include "device/Scenario.h"

namespace vortadev {

// Whether Render knows what a phone leaves under this name: the four logs, "minidump",
// "history.log".
bool HasPhoneContent(const std::string& name);

// The bytes of a fill, exactly fill.size of them; `name` selects the generator of kPhone.
//
// Logs are lines of text behind binary record headings, then unused space; a kernel log of 1 MiB
// takes some 12,000 lines. A minidump is pages of pointers, registers, text, zeros and noise that
// gzip takes to about a third. Heading bytes are never printable, so that the text of a log is
// exactly its lines.
std::string Render(const Fill& fill, const std::string& name);

}  // namespace vortadev
