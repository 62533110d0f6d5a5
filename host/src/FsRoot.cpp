#include "FsRoot.h"

#include <cstdlib>
#include <mutex>

namespace kxhost {
namespace {

// Guards gRoot and gRootSet.
std::mutex gRootMutex;
std::string gRoot;
bool gRootSet = false;

std::string currentRoot() {
  std::lock_guard<std::mutex> lock(gRootMutex);
  if (!gRootSet) {
    const char* env = std::getenv(kFsRootEnv);
    gRoot = env != nullptr ? env : "";
    gRootSet = true;
  }
  return gRoot;
}

}  // namespace

void setFsRoot(const std::string& root) {
  std::lock_guard<std::mutex> lock(gRootMutex);
  gRoot = root;
  gRootSet = true;
}

std::string fsRoot() { return currentRoot(); }

std::string devicePath(const std::string& path) {
  if (path.empty() || path.front() != '/') return path;
  std::string root = currentRoot();
  while (!root.empty() && root.back() == '/') root.pop_back();
  return root + path;
}

}  // namespace kxhost
