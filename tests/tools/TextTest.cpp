// Whatever bytes a name holds, the text shown for it stays readable, and
// well-formed inside XML.

#include <gtest/gtest.h>

#include "Text.h"

namespace {

TEST(TextTest, ControlAndInvalidBytesAreShownAsEscapes) {
  const std::pair<std::string, std::string> cases[] = {
      {"com.example.app", "com.example.app"},
      {"bell\x07tab\tnl\n", "bell\\x07tab\\x09nl\\x0A"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xb1", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xb1"},  // valid UTF-8 stays
      {"lone\xc3", "lone\\xC3"},
      {"overlong\xc0\xaf", "overlong\\xC0\\xAF"},
      {"surrogate\xed\xa0\x80", "surrogate\\xED\\xA0\\x80"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(vsim::printable(in), out) << out;
  EXPECT_EQ(vsim::xmlText("a<b>&\"c'\x01"), "a&lt;b&gt;&amp;&quot;c&apos;\\x01");
}

}  // namespace
