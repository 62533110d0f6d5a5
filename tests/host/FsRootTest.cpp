#include "FsRoot.h"

#include <gtest/gtest.h>

namespace {

TEST(FsRoot, MapsBothDeviceDirectoriesUnderTheRoot) {
  kxhost::setFsRoot("/tmp/r/");
  EXPECT_EQ(kxhost::devicePath("/vendor/etc/kx/vorak/vorak_2GB.data"), "/tmp/r/vendor/etc/kx/vorak/vorak_2GB.data");
  EXPECT_EQ(kxhost::devicePath("/data/vendor/kx/Vorak.db"), "/tmp/r/data/vendor/kx/Vorak.db");
  EXPECT_EQ(kxhost::devicePath(":memory:"), ":memory:");
  kxhost::setFsRoot("");
  EXPECT_EQ(kxhost::devicePath("/data/vendor/kx/Vorak.db"), "/data/vendor/kx/Vorak.db");
}

}  // namespace
