// A private directory under $TMPDIR for one test, removed with its contents.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace kxtest {

class TempDir {
 public:
  // Under `base` when given, else under the temporary directory.
  explicit TempDir(const std::filesystem::path& base = {}) {
    const auto parent = base.empty() ? std::filesystem::temp_directory_path() : base;
    std::string tmpl = (parent / "kxtest.XXXXXX").string();
    if (mkdtemp(&tmpl[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
    mPath = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(mPath, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  std::string sub(const std::string& rel) const { return mPath + "/" + rel; }

  // Writes `content` to `rel`, creating parent directories.
  std::string write(const std::string& rel, const std::string& content) const {
    std::filesystem::path p = sub(rel);
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
    return p.string();
  }

 private:
  std::string mPath;
};

}  // namespace kxtest
