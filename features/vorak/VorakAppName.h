// The one check on application and service names where they enter the
// plug-in (triggers, hints, meter records, service lists). A name becomes the
// key of rows in every table, a SQL literal, a slot of the 256-byte service
// list and an element of the "/"-separated favourites text, so the names it
// refuses are exactly those that cannot make that round trip: an empty name
// (a key without condition selects every row), a NUL (cuts the SQL text), a
// '/' (splits a favourite in two), control and non-ASCII bytes (break the
// logs and reports that print names) and more than 255 bytes (the service
// slot's limit).
#pragma once

#include <cstddef>
#include <string_view>

namespace vorak {

inline constexpr size_t kMaxAppNameBytes = 255;

// Null when `name` is acceptable, else the reason in a few words.
inline const char* appNameProblem(std::string_view name) {
  if (name.empty()) return "empty name";
  if (name.size() > kMaxAppNameBytes) return "longer than 255 bytes";
  for (unsigned char c : name) {
    if (c == '\0') return "contains a NUL byte";
    if (c == '/') return "contains '/'";
    if (c < 0x20 || c > 0x7e) return "contains a control or non-ASCII byte";
  }
  return nullptr;
}

inline bool isValidAppName(std::string_view name) { return appNameProblem(name) == nullptr; }

}  // namespace vorak
