#include "Text.h"

#include <cstdio>

namespace vsim {
namespace {

// Length of the valid UTF-8 sequence of two or more bytes starting at
// text[i], or 0 (overlong forms, surrogates and values beyond U+10FFFF are
// invalid).
size_t utf8Length(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  size_t n;
  unsigned lo = 0x80, hi = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) n = 2;
  else if (lead >= 0xE0 && lead <= 0xEF) n = 3;
  else if (lead >= 0xF0 && lead <= 0xF4) n = 4;
  else return 0;
  if (lead == 0xE0) lo = 0xA0;
  if (lead == 0xED) hi = 0x9F;
  if (lead == 0xF0) lo = 0x90;
  if (lead == 0xF4) hi = 0x8F;
  if (i + n > text.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const unsigned char c = byte(i + k);
    if (c < (k == 1 ? lo : 0x80) || c > (k == 1 ? hi : 0xBF)) return 0;
  }
  return n;
}

}  // namespace

std::string printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7F) {
      out += text[i++];
      continue;
    }
    if (const size_t n = c >= 0x80 ? utf8Length(text, i) : 0) {
      out.append(text, i, n);
      i += n;
      continue;
    }
    char hex[5];
    std::snprintf(hex, sizeof hex, "\\x%02X", c);
    out += hex;
    ++i;
  }
  return out;
}

std::string xmlText(const std::string& text) {
  std::string out;
  for (char c : printable(text)) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace vsim
