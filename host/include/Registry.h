// The framework's class registry: plug-ins enter factories by class name at load.
#pragma once

#include <algorithm>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "AndroidLog.h"

template <class Base, class Info>
class RegistryBase {
 public:
  using Factory = Base* (*)(Info);
  using ClassMap = std::unordered_map<std::string, Factory>;

  // Null until the first registration creates it; guarded by mMutex.
  static ClassMap* classList;
  static std::mutex mMutex;

  // The factory registered under `name`, or null.
  static Factory lookup(const std::string& name) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (classList == nullptr) return nullptr;
    auto it = classList->find(name);
    return it == classList->end() ? nullptr : it->second;
  }

  // Every registered class name, sorted.
  static std::vector<std::string> names() {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> out;
    if (classList != nullptr)
      for (const auto& entry : *classList) out.push_back(entry.first);
    std::sort(out.begin(), out.end());
    return out;
  }
};

// Allocates the object without throwing; null when that fails. The object is
// returned even when its constructor disabled it.
template <class Base, class Info, class Derived>
Base* createClassObj(Info info) {
  Info copy(info);
  Derived* obj = new (std::nothrow) Derived(copy);
  return obj;
}

// A static instance of this in a plug-in's translation unit registers the
// factory for Derived under `name` when the library is loaded.
template <class Base, class Info, class Derived>
class Registry {
 public:
  // Source line that the framework's registry reports in its error line; log
  // readers match the whole line, so it does not follow this file's layout.
  static constexpr int kMapErrorLine = 97;

  explicit Registry(const char* name) {
    using R = RegistryBase<Base, Info>;
    std::lock_guard<std::mutex> lock(R::mMutex);
    if (R::classList == nullptr) {
      auto* map = new (std::nothrow) typename R::ClassMap();
      if (map == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, "FeatureRegistry",
                            "%s: %s() %d: getMap() returned nullptr, Class %s not registered", "RegistryBase",
                            __func__, kMapErrorLine, name);
        return;
      }
      map->max_load_factor(1.0f);
      R::classList = map;
    }
    R::classList->emplace(name, &createClassObj<Base, Info, Derived>);
  }
};

class Feature;
struct FeatureInfo;
extern template class RegistryBase<Feature, FeatureInfo>;
