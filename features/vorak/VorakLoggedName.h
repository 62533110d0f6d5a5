// How a log line shows a name that was refused: the name came from outside
// and may hold anything, so its bytes are escaped and its length bounded
// before they reach the log and whoever reads it.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace vorak {

inline constexpr size_t kLoggedNameBytes = 64;

// Printable ASCII as it is, every other byte (and '\' and '"') as \xHH; past
// kLoggedNameBytes the rest is replaced by its length.
inline std::string loggedName(std::string_view name) {
  std::string out;
  const size_t shown = name.size() < kLoggedNameBytes ? name.size() : kLoggedNameBytes;
  for (size_t i = 0; i < shown; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c >= 0x20 && c <= 0x7e && c != '\\' && c != '"') {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      std::snprintf(hex, sizeof(hex), "\\x%02x", c);
      out += hex;
    }
  }
  if (shown < name.size()) out += "...(" + std::to_string(name.size()) + " bytes)";
  return out;
}

}  // namespace vorak
