// vorak-model run as a subprocess against the shipped models and broken ones.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Vorak.pb.h"
#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

using kxtest::slurp;
using kxtest::ToolRun;

const char* const kClasses[] = {"2GB", "4GB", "6GB"};

std::string stagedModel(const std::string& cls) {
  return std::string(VORAK_DEVICE_ROOT) + "/vendor/etc/kx/vorak/vorak_" + cls + ".data";
}

std::string sourceModel(const std::string& cls) {
  return std::string(VORAK_MODEL_SOURCE_DIR) + "/vorak_" + cls + ".txtpb";
}

class VorakModelTool : public ::testing::Test {
 protected:
  ToolRun tool(std::vector<std::string> args, const std::string& in = "/dev/null") {
    args.insert(args.begin(), VORAK_MODEL_TOOL);
    return kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER, args, in);
  }

  ToolRun protocDecode(const std::string& in) {
    const std::string proto = VORAK_PROTO_FILE;
    const std::string dir = proto.substr(0, proto.rfind('/'));
    return kxtest::runTool(mDir, "", {VORAK_TEST_PROTOC, "--decode=VorakModel", "-I", dir, proto}, in);
  }

  static VorakModel shipped(const std::string& cls) {
    VorakModel m;
    EXPECT_TRUE(m.ParseFromString(slurp(stagedModel(cls))));
    return m;
  }

  std::string writeModel(const std::string& name, const VorakModel& m) {
    std::string bytes;
    m.SerializePartialToString(&bytes);
    return mDir.write(name, bytes);
  }

  static void expectOneLineError(const ToolRun& r) {
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(r.out.empty()) << r.out;
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorak-model: ", 0), 0u) << r.err;
  }

  kxtest::TempDir mDir;
};

TEST_F(VorakModelTool, ShippedModelsRoundTrip) {
  for (const char* cls : kClasses) {
    SCOPED_TRACE(cls);
    const std::string staged = slurp(stagedModel(cls));
    ASSERT_FALSE(staged.empty());

    const std::string encoded = mDir.sub("encoded.data");
    ASSERT_EQ(tool({"encode", sourceModel(cls), encoded}).code, 0);
    EXPECT_EQ(slurp(encoded), staged);

    const ToolRun decoded = tool({"decode", encoded});
    ASSERT_EQ(decoded.code, 0) << decoded.err;
    EXPECT_TRUE(decoded.err.empty()) << decoded.err;
    const ToolRun reference = protocDecode(encoded);
    ASSERT_EQ(reference.code, 0) << reference.err;
    EXPECT_EQ(decoded.out, reference.out);

    const std::string text = mDir.write("decoded.txtpb", decoded.out);
    const ToolRun again = tool({"encode", text, "-"});
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(again.out, staged);
  }
}

TEST_F(VorakModelTool, StdinAndStdout) {
  const ToolRun text = tool({"decode", "-"}, stagedModel("4GB"));
  ASSERT_EQ(text.code, 0) << text.err;
  const ToolRun bytes = tool({"encode", "-", "-"}, mDir.write("m.txtpb", text.out));
  ASSERT_EQ(bytes.code, 0) << bytes.err;
  EXPECT_EQ(bytes.out, slurp(stagedModel("4GB")));

  const std::string out = mDir.sub("m.txt");
  ASSERT_EQ(tool({"decode", stagedModel("4GB"), out}).code, 0);
  EXPECT_EQ(slurp(out), text.out);
}

TEST_F(VorakModelTool, CheckPassesOnShippedModels) {
  for (const char* cls : kClasses) {
    SCOPED_TRACE(cls);
    for (const std::string& file : {stagedModel(cls), sourceModel(cls)}) {
      const ToolRun r = tool({"check", file});
      EXPECT_EQ(r.code, 0) << r.out << r.err;
      EXPECT_NE(r.out.find(": complete\n"), std::string::npos) << r.out;
    }
  }
}

TEST_F(VorakModelTool, UnreadableInputIsRejected) {
  const std::string staged = slurp(stagedModel("2GB"));
  std::mt19937 rng(20240611);
  std::string noise(4096, '\0');
  for (char& c : noise) c = static_cast<char>(rng());

  const struct {
    const char* what;
    std::string path;
  } cases[] = {
      {"truncated inside the last float", mDir.write("truncated.data", staged.substr(0, staged.size() - 2))},
      {"truncated inside a feature entry", mDir.write("cut.data", staged.substr(0, staged.size() / 2))},
      {"random bytes", mDir.write("noise.data", noise)},
      {"text syntax error", mDir.write("bad.txtpb", "bias: 1\nsafeload: {\n")},
      {"unknown text field", mDir.write("unknown.txtpb", "bias: 1\nsafeload: 0.2\ncolour: 3\n")},
      {"missing file", mDir.sub("absent.data")},
      {"directory", mDir.path()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    expectOneLineError(tool({"check", c.path}));
  }
  expectOneLineError(tool({"decode", mDir.sub("truncated.data")}));
  expectOneLineError(tool({"decode", mDir.sub("noise.data")}));
  expectOneLineError(tool({"encode", mDir.sub("bad.txtpb"), mDir.sub("never.data")}));
  // The text error names the place.
  EXPECT_NE(tool({"check", mDir.sub("bad.txtpb")}).err.find("bad.txtpb:2:"), std::string::npos);
}

TEST_F(VorakModelTool, CheckNamesWhatIsMissing) {
  VorakModel noWeight = shipped("2GB");
  (*noWeight.mutable_features())["FreeKB"].clear_weight();
  const ToolRun weight = tool({"check", writeModel("noweight.data", noWeight)});
  EXPECT_EQ(weight.code, 1);
  EXPECT_NE(weight.out.find("feature \"FreeKB\": missing required field: weight\n"), std::string::npos) << weight.out;
  EXPECT_NE(weight.out.find(": 1 problem\n"), std::string::npos) << weight.out;

  VorakModel gaps = shipped("6GB");
  gaps.clear_bias();
  gaps.mutable_features()->erase("howMuchToKill");
  auto& load = (*gaps.mutable_features())["load"];
  load.set_max(load.min());
  (*gaps.mutable_features())["notAnInput"] = gaps.features().at("FreeKB");
  const ToolRun r = tool({"check", writeModel("gaps.data", gaps)});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("missing required field: bias\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("missing feature: \"howMuchToKill\"\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("feature \"load\": min equals max"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(": 3 problems\n"), std::string::npos) << r.out;
  // A name the kill decision does not use is worth a note, not a failure.
  EXPECT_NE(r.out.find("note: feature \"notAnInput\""), std::string::npos) << r.out;

  const ToolRun text = tool({"check", mDir.write("partial.txtpb", "bias: 1\nfeatures { key: \"FreeKB\" value { min: 0 max: 1 } }\n")});
  EXPECT_EQ(text.code, 1);
  EXPECT_NE(text.out.find("missing required field: safeload\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("feature \"FreeKB\": missing required field: weight\n"), std::string::npos) << text.out;

  const ToolRun empty = tool({"check", mDir.write("empty.data", "")});
  EXPECT_EQ(empty.code, 1);
  EXPECT_NE(empty.out.find("missing required field: safeload\n"), std::string::npos) << empty.out;
}

TEST_F(VorakModelTool, EncodeRefusesIncompleteModelsUnlessAsked) {
  const std::string in = mDir.write("partial.txtpb", "safeload: 0.2\nfeatures { key: \"x\" value { min: 0 max: 1 } }\n");
  const std::string out = mDir.sub("partial.data");
  const ToolRun refused = tool({"encode", in, out});
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("bias, features[\"x\"].weight"), std::string::npos) << refused.err;
  EXPECT_FALSE(std::ifstream(out).good());

  ASSERT_EQ(tool({"encode", "--allow-partial", in, out}).code, 0);
  VorakModel m;
  ASSERT_TRUE(m.ParsePartialFromString(slurp(out)));
  EXPECT_FALSE(m.has_bias());
  EXPECT_FLOAT_EQ(m.safeload(), 0.2f);
  EXPECT_TRUE(m.features().at("x").has_max());
  EXPECT_FALSE(m.features().at("x").has_weight());

  // Decoding an incomplete model still prints it, with a warning.
  const ToolRun decoded = tool({"decode", out});
  EXPECT_EQ(decoded.code, 0);
  EXPECT_NE(decoded.out.find("safeload: 0.2"), std::string::npos) << decoded.out;
  EXPECT_NE(decoded.err.find("warning"), std::string::npos) << decoded.err;
}

TEST_F(VorakModelTool, Usage) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--help"}, {"encode", "--help"}, {"decode", "--help"}, {"check", "--help"}}) {
    const ToolRun r = tool(args);
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos) << r.out;
  }
  expectOneLineError(tool({}));
  expectOneLineError(tool({"frobnicate"}));
  expectOneLineError(tool({"encode", "only-one"}));
  expectOneLineError(tool({"check", "--format=xml", stagedModel("2GB")}));
  expectOneLineError(tool({"encode", sourceModel("2GB"), mDir.sub("no/such/dir/out.data")}));
}

}  // namespace
