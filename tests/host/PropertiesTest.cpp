#include "Properties.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TempDir.h"

namespace {

class Properties : public ::testing::Test {
 protected:
  void SetUp() override { kxhost::clearProperties(); }
  void TearDown() override { kxhost::clearProperties(); }

  static std::string get(const char* key, const char* def, int* len = nullptr) {
    char value[PROPERTY_VALUE_MAX];
    int n = property_get(key, value, def);
    if (len != nullptr) *len = n;
    return value;
  }
};

TEST_F(Properties, FileLoadsIntoTheStoreUpToItsFirstMalformedLine) {
  kxtest::TempDir dir;
  std::string path = dir.write("props", "# device\n\nro.vendor.perf.enable.vorak=true\n  vendor.debug.trace.VORAK = 1 \n"
                                        "empty=\nwith.eq=a=b\n");
  std::string error;
  ASSERT_TRUE(kxhost::loadPropertiesFile(path, &error)) << error;
  int len = 0;
  EXPECT_EQ(get("ro.vendor.perf.enable.vorak", "false", &len), "true");
  EXPECT_EQ(len, 4);
  EXPECT_EQ(get("vendor.debug.trace.VORAK", ""), "1");
  EXPECT_EQ(get("with.eq", ""), "a=b");
  // As on the device, an empty value reads as unset.
  EXPECT_EQ(get("empty", "dflt"), "dflt");

  // A malformed line is reported with its number; the lines before it stay.
  EXPECT_FALSE(kxhost::loadPropertiesFile(dir.write("bad", "a=1\nno equals sign\nb=2\n"), &error));
  EXPECT_NE(error.find(":2:"), std::string::npos) << error;
  EXPECT_EQ(get("a", ""), "1");
  EXPECT_EQ(get("b", "unset"), "unset");
  EXPECT_FALSE(kxhost::loadPropertiesFile(dir.sub("missing"), &error));
  EXPECT_FALSE(kxhost::loadPropertiesFile(dir.write("eq", "=value\n"), &error));
}

TEST_F(Properties, GetReturnsLengthAndDefaultsLikeAndroid) {
  int len = -1;
  EXPECT_EQ(get("absent", "fallback", &len), "fallback");
  EXPECT_EQ(len, 8);
  EXPECT_EQ(get("absent", nullptr, &len), "");
  EXPECT_EQ(len, 0);

  kxhost::setProperty("long", std::string(200, 'x'));
  EXPECT_EQ(get("long", "", &len), std::string(PROPERTY_VALUE_MAX - 1, 'x'));
  EXPECT_EQ(len, PROPERTY_VALUE_MAX - 1);
  EXPECT_EQ(get("absent", std::string(150, 'd').c_str(), &len).size(), size_t(PROPERTY_VALUE_MAX - 1));

  char out[PROPERTY_VALUE_MAX];
  kxhost::setProperty("perf", "42");
  EXPECT_EQ(perf_get_prop("perf", out, "0"), 2);
  EXPECT_STREQ(out, "42");
  kxhost::clearProperty("perf");
  EXPECT_EQ(perf_get_prop("perf", out, "0"), 1);
  EXPECT_STREQ(out, "0");
}

// The default answers anything that is not one of Android's spellings.
TEST_F(Properties, BoolAcceptsAndroidSpellingsAndFallsBackOtherwise) {
  const std::pair<const char*, int> cases[] = {
      {"1", 1},  {"y", 1},  {"yes", 1}, {"on", 1},  {"true", 1},  {"0", 0},      {"n", 0},
      {"no", 0}, {"off", 0}, {"false", 0}, {"TRUE", -1}, {"2", -1}, {"enabled", -1},
  };
  for (const auto& [value, meaning] : cases) {
    kxhost::setProperty("b", value);
    EXPECT_EQ(property_get_bool("b", false), meaning == 1) << value;
    EXPECT_EQ(property_get_bool("b", true), meaning != 0) << value;
  }
  EXPECT_TRUE(property_get_bool("absent", true));
}

}  // namespace
