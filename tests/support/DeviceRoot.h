// A device root under a private temporary directory for one test: the data
// directory exists, the per-name states start unloaded, and both are undone
// at the end.
#pragma once

#include <filesystem>

#include "FeatureState.h"
#include "FsRoot.h"
#include "support/TempDir.h"

namespace kxtest {

class DeviceRoot {
 public:
  explicit DeviceRoot(bool withDataDir = true) {
    if (withDataDir) std::filesystem::create_directories(mDir.sub("data/vendor/kx"));
    kxhost::setFsRoot(mDir.path());
    kxhost::clearFeatureStates();
  }
  ~DeviceRoot() {
    kxhost::clearFeatureStates();
    kxhost::setFsRoot("");
  }
  DeviceRoot(const DeviceRoot&) = delete;
  DeviceRoot& operator=(const DeviceRoot&) = delete;

  std::string dataFile(const std::string& name) const { return mDir.sub("data/vendor/kx/" + name); }
  const TempDir& dir() const { return mDir; }

 private:
  TempDir mDir;
};

}  // namespace kxtest
