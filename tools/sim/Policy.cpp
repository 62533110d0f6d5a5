#include "Policy.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>

#include "Text.h"

namespace vsim {
namespace {

constexpr const char* kSafeloadPrefix = "vorak:safeload=";

std::string shortNumber(float v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", static_cast<double>(v));
  return buf;
}

float parseSafeload(const std::string& text, const std::string& whole) {
  char* end = nullptr;
  const float v = std::strtof(text.c_str(), &end);
  // The share of memory to keep free: 0 would never kill, 1 would kill everything.
  if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(v) || v <= 0.0f || v >= 1.0f)
    throw PolicyError("policy '" + printable(whole) + "': safeload must be a number between 0 and 1 (exclusive)");
  return v;
}

}  // namespace

std::string Policy::name() const {
  switch (kind) {
    case Kind::None: return "none";
    case Kind::Oracle: return "oracle";
    case Kind::Vorak: break;
  }
  return safeload ? kSafeloadPrefix + shortNumber(*safeload) : "vorak";
}

std::string Policy::dirName() const {
  // Colons and equals signs make awkward paths in a shell.
  std::string d = name();
  for (char& c : d)
    if (c == ':' || c == '=') c = '-';
  return d;
}

Policy parsePolicy(const std::string& text) {
  Policy p;
  if (text == "vorak") return p;
  if (text == "none" || text == "oracle") {
    p.kind = text == "none" ? Policy::Kind::None : Policy::Kind::Oracle;
    return p;
  }
  if (text.rfind(kSafeloadPrefix, 0) == 0) {
    p.safeload = parseSafeload(text.substr(std::char_traits<char>::length(kSafeloadPrefix)), text);
    return p;
  }
  throw PolicyError("unknown policy '" + printable(text) + "' (vorak, none, oracle, vorak:safeload=X)");
}

std::vector<Policy> parsePolicies(const std::string& list) {
  std::vector<Policy> out;
  std::set<std::string> seen;
  std::istringstream in(list);
  for (std::string item; std::getline(in, item, ',');) {
    Policy p = parsePolicy(item);
    if (!seen.insert(p.name()).second) throw PolicyError("policy '" + p.name() + "' is named twice");
    out.push_back(p);
  }
  if (out.empty()) throw PolicyError("no policy named");
  return out;
}

}  // namespace vsim
