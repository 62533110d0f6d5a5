// Reference system properties: one in-process store, seeded on first use from
// the file named by $KX_PROPERTIES, read with Android's return conventions.
#include "Properties.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>

#include "AndroidLog.h"

namespace kxhost {
namespace {

std::string trim(const std::string& s) {
  const char* ws = " \t\r";
  size_t b = s.find_first_not_of(ws);
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(ws);
  return s.substr(b, e - b + 1);
}

class PropertyStore {
 public:
  // Never destroyed: plug-in threads may still read properties while the
  // process exits.
  static PropertyStore& instance() {
    static PropertyStore* store = new PropertyStore();
    return *store;
  }

  bool get(const std::string& key, std::string* value) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mValues.find(key);
    if (it == mValues.end()) return false;
    *value = it->second;
    return true;
  }

  void set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mMutex);
    mValues[key] = value;
  }

  void erase(const std::string& key) {
    std::lock_guard<std::mutex> lock(mMutex);
    mValues.erase(key);
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mValues.clear();
  }

 private:
  PropertyStore() { seedFromEnvironment(); }

  // Runs inside instance()'s one-time initialisation, so it fills mValues
  // directly instead of going through the public entry points.
  void seedFromEnvironment();

  // Guards mValues.
  std::mutex mMutex;
  std::map<std::string, std::string> mValues;
};

// Parses "key=value" lines into `out`; stops at the first malformed line.
bool readPropertiesFile(const std::string& path, std::map<std::string, std::string>* out, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    if (error != nullptr) *error = path + ": cannot open";
    return false;
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    std::string text = trim(line);
    if (text.empty() || text[0] == '#') continue;
    size_t eq = text.find('=');
    std::string key = eq == std::string::npos ? "" : trim(text.substr(0, eq));
    if (key.empty()) {
      if (error != nullptr) *error = path + ":" + std::to_string(number) + ": expected key=value, got '" + text + "'";
      return false;
    }
    (*out)[key] = trim(text.substr(eq + 1));
  }
  return true;
}

void PropertyStore::seedFromEnvironment() {
  const char* path = std::getenv(kPropertiesEnv);
  if (path == nullptr || *path == '\0') return;
  std::string error;
  if (!readPropertiesFile(path, &mValues, &error))
    __android_log_print(ANDROID_LOG_ERROR, "kxhost", "properties: %s", error.c_str());
}

}  // namespace

void setProperty(const std::string& key, const std::string& value) { PropertyStore::instance().set(key, value); }

void clearProperty(const std::string& key) { PropertyStore::instance().erase(key); }

void clearProperties() { PropertyStore::instance().clear(); }

bool loadPropertiesFile(const std::string& path, std::string* error) {
  std::map<std::string, std::string> values;
  bool ok = readPropertiesFile(path, &values, error);
  for (const auto& kv : values) setProperty(kv.first, kv.second);
  return ok;
}

}  // namespace kxhost

// As on Android, an empty value counts as unset and yields the default.
extern "C" int property_get(const char* key, char* value, const char* default_value) {
  std::string found;
  if (key == nullptr || !kxhost::PropertyStore::instance().get(key, &found) || found.empty())
    found = default_value != nullptr ? default_value : "";
  size_t len = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
  std::memcpy(value, found.data(), len);
  value[len] = '\0';
  return static_cast<int>(len);
}

bool property_get_bool(const char* key, bool default_value) {
  char value[PROPERTY_VALUE_MAX];
  property_get(key, value, "");
  for (const char* yes : {"1", "y", "yes", "on", "true"})
    if (std::strcmp(value, yes) == 0) return true;
  for (const char* no : {"0", "n", "no", "off", "false"})
    if (std::strcmp(value, no) == 0) return false;
  return default_value;
}

int perf_get_prop(const char* name, char* out, const char* default_value) {
  return property_get(name, out, default_value);
}
