// System properties as the platform exposes them to plug-ins.
#pragma once

#include <string>

#define PROPERTY_VALUE_MAX 92

// Copies the value of `key` (or `default_value`, or "" when that is null) into
// `value` (PROPERTY_VALUE_MAX bytes) and returns its length.
extern "C" int property_get(const char* key, char* value, const char* default_value);
bool property_get_bool(const char* key, bool default_value);
// The perf service's property reader: same contract as property_get.
int perf_get_prop(const char* name, char* out, const char* default_value);

namespace kxhost {

// Environment variable naming a properties file ("key=value" lines) that
// seeds the store on first use.
constexpr const char* kPropertiesEnv = "KX_PROPERTIES";

void setProperty(const std::string& key, const std::string& value);
void clearProperty(const std::string& key);
void clearProperties();
// Loads "key=value" lines ('#' comments and blank lines skipped). Returns
// false and sets `error` (with the line number) on an unreadable file or a
// malformed line; lines before it are kept.
bool loadPropertiesFile(const std::string& path, std::string* error);

}  // namespace kxhost
