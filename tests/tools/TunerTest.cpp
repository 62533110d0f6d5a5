// The safeload grid: the share values a tune may try.

#include <gtest/gtest.h>

#include "ModelFile.h"
#include "Tuner.h"

namespace {

TEST(Tuner, GridsAreSortedShareValues) {
  const struct {
    const char* text;
    std::vector<float> grid;
  } good[] = {
      {"0.1:0.4:0.1", {0.1f, 0.2f, 0.3f, 0.4f}},  // ends on 0.4, not just short of it
      {"0.3,0.1,0.1", {0.1f, 0.3f}},
      {"0.25", {0.25f}},
  };
  for (const auto& c : good) EXPECT_EQ(vmodel::parseGrid(c.text), c.grid) << c.text;
  for (const char* bad : {"0", "1", "1.2", "-0.1", "nan", "inf", "0.1,", "abc", "0.1:0.3", "0.3:0.1:0.1",
                          "0.1:0.3:0", "0.001:0.201:0.001"}) {  // the last: 201 values, one too many
    try {
      vmodel::parseGrid(bad);
      ADD_FAILURE() << bad;
    } catch (const vmodel::ModelError& e) {
      EXPECT_EQ(e.code(), vmodel::kExitBadInput) << bad;
      EXPECT_NE(std::string(e.what()).find(bad), std::string::npos) << e.what();
    }
  }
}

}  // namespace
