// Names and texts reach the reports from scenario files and from the
// plug-in's log, so they may hold anything: whatever is printed is made safe
// for its reader first.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace vsim {

// Control bytes, DEL and bytes that are not part of valid UTF-8 as "\xNN";
// everything else unchanged.
std::string printable(const std::string& text);

// printable(), then escaped for XML text and attribute values. XML 1.0 has
// no way to carry control characters at all, not even as references.
std::string xmlText(const std::string& text);

// Indented JSON that is valid whatever bytes the strings hold (invalid UTF-8
// becomes U+FFFD; nlohmann escapes control characters itself).
std::string dumpJson(const nlohmann::json& value);

}  // namespace vsim
