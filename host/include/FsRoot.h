// File-system root of the device. The plug-in keeps device paths such as
// "/data/vendor/kx/" as constants and opens files only through devicePath(),
// so the same code runs on a device (identity) and under a test directory.
#pragma once

#include <string>

namespace kxhost {

// Environment variable naming the root directory; unset or empty = identity.
constexpr const char* kFsRootEnv = "KX_FS_ROOT";

// Maps an absolute device path below the current root. Relative paths and
// ":memory:" are returned unchanged.
std::string devicePath(const std::string& path);

// Overrides the root for this process (tests, simulator). An empty root
// restores the identity mapping. Thread-safe.
void setFsRoot(const std::string& root);
std::string fsRoot();

}  // namespace kxhost
