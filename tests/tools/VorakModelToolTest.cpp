// vorak-model run as a subprocess against the shipped models and broken ones.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
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

    const ToolRun decoded = tool({"decode", "-"}, encoded);
    ASSERT_EQ(decoded.code, 0) << decoded.err;
    EXPECT_TRUE(decoded.err.empty()) << decoded.err;
    const ToolRun reference = protocDecode(encoded);
    ASSERT_EQ(reference.code, 0) << reference.err;
    EXPECT_EQ(decoded.out, reference.out);

    const std::string text = mDir.sub("decoded.txtpb");
    ASSERT_EQ(tool({"decode", encoded, text}).code, 0);
    EXPECT_EQ(slurp(text), decoded.out);
    const ToolRun again = tool({"encode", "-", "-"}, text);
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_EQ(again.out, staged);
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
      {"random bytes", mDir.write("noise.data", noise)},
      {"text syntax error", mDir.write("bad.txtpb", "bias: 1\nsafeload: {\n")},
      {"missing file", mDir.sub("absent.data")},
      {"directory", mDir.path()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    expectOneLineError(tool({"check", c.path}));
  }
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

}

TEST_F(VorakModelTool, CheckFlagsNumbersThatTurnKillingOff) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  const struct {
    const char* what;
    void (*spoil)(VorakModel&, float);
    float value;
    const char* problem;
  } cases[] = {
      {"NaN safeload", [](VorakModel& m, float v) { m.set_safeload(v); }, nan, "safeload is not a finite number (nan)"},
      {"infinite safeload", [](VorakModel& m, float v) { m.set_safeload(v); }, inf, "safeload is not a finite number (inf)"},
      {"safeload 0", [](VorakModel& m, float v) { m.set_safeload(v); }, 0, "safeload 0 lies outside (0, 1)"},
      {"safeload 1", [](VorakModel& m, float v) { m.set_safeload(v); }, 1, "safeload 1 lies outside (0, 1)"},
      {"infinite bias", [](VorakModel& m, float v) { m.set_bias(v); }, -inf, "bias is not a finite number (-inf)"},
      {"NaN weight", [](VorakModel& m, float v) { (*m.mutable_features())["load"].set_weight(v); }, nan,
       "feature \"load\": weight is not a finite number"},
      {"infinite max", [](VorakModel& m, float v) { (*m.mutable_features())["FreeKB"].set_max(v); }, inf,
       "feature \"FreeKB\": max is not a finite number"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    VorakModel m = shipped("4GB");
    c.spoil(m, c.value);
    const ToolRun r = tool({"check", writeModel("spoilt.data", m)});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.out.find(c.problem), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("complete"), std::string::npos) << r.out;
  }
}

TEST_F(VorakModelTool, TunePicksTheBestSafeloadOfAScenarioBuiltToHaveOne) {
  // Only an amount between the small app's size and the hog's kills the hog
  // alone and spares the app reopened afterwards; 0.2 is the one such value
  // of the grid (see the scenario).
  const std::string scenario = std::string(VORAK_TEST_DATA) + "/known-best.json";
  const std::vector<std::string> args{"tune", "--device", "2", scenario, "--grid", "0.05,0.1,0.2,0.35,0.5"};
  auto withJobs = [&](const std::string& jobs) {
    std::vector<std::string> a = args;
    a.insert(a.end(), {"--jobs", jobs, "--run-dir", mDir.sub("tune-" + jobs), "--out", mDir.sub("tuned-" + jobs)});
    return tool(a);
  };
  const ToolRun one = withJobs("1");
  ASSERT_EQ(one.code, 0) << one.err << one.out;
  EXPECT_NE(one.out.find("* 0.2 "), std::string::npos) << one.out;
  VorakModel tuned;
  ASSERT_TRUE(tuned.ParseFromString(slurp(mDir.sub("tuned-1.data"))));
  EXPECT_FLOAT_EQ(tuned.safeload(), 0.2f);
  EXPECT_EQ(tool({"check", mDir.sub("tuned-1.txtpb")}).code, 0);
  EXPECT_EQ(std::system(("xmllint --noout " + mDir.sub("tune-1/tune.svg")).c_str()), 0);
  // Runs in parallel end in any order: the same table and the same file.
  const ToolRun three = withJobs("3");
  ASSERT_EQ(three.code, 0) << three.err;
  EXPECT_EQ(slurp(mDir.sub("tuned-3.txtpb")), slurp(mDir.sub("tuned-1.txtpb")));
  const auto table = [](const std::string& out) { return out.substr(0, out.find("Picture:")); };
  EXPECT_EQ(table(three.out), table(one.out));
}

TEST_F(VorakModelTool, TuneAndTrainRefuseWhatTheyCannotUse) {
  const std::string scenario = std::string(VORAK_TEST_DATA) + "/known-best.json";  // a 2GB scenario
  for (const std::vector<std::string>& args : {
           std::vector<std::string>{"tune", "--device", "2", scenario, "--grid", "0.1:1.2:0.1"},
           {"tune", "--device", "2", scenario, "--grid", "0"},
           {"tune", "--device", "4", scenario},
           {"train", "--device", "6", scenario},
           {"train", "--device", "2", mDir.sub("absent.json")},
           {"train", "--device", "2", scenario, "--model", mDir.write("bad.data", "not a model")},
           {"tune", "--device", "3"},
       }) {
    SCOPED_TRACE(args[1] + " " + args.back());
    std::vector<std::string> a = args;
    a.insert(a.end(), {"--run-dir", mDir.sub("never")});
    expectOneLineError(tool(a));
  }
}

TEST_F(VorakModelTool, TrainedModelRoundTripsAndLoadsInThePlugin) {
  const ToolRun days = kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER,
                                       {VORAK_SIM_TOOL, "--generate", "--days", "2", "--apps", "10", "--device", "2", "--seed", "3"});
  const ToolRun later = kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER,
                                        {VORAK_SIM_TOOL, "--generate", "--days", "1", "--apps", "10", "--device", "2", "--seed", "4"});
  ASSERT_EQ(days.code + later.code, 0);
  const std::string fitted = mDir.sub("fitted");
  const ToolRun r = tool({"train", "--device", "2", mDir.write("days.json", days.out), "--held-out",
                          mDir.write("later.json", later.out), "--run-dir", mDir.sub("train"), "--out", fitted});
  ASSERT_EQ(r.code, 0) << r.err << r.out;
  // The inputs the fit saw are the plug-in's own: its logged scores are reproduced.
  const auto at = r.out.find("logged scores reproduced on ");
  ASSERT_NE(at, std::string::npos) << r.out;
  size_t agreed = 0, logged = 0;
  ASSERT_EQ(std::sscanf(r.out.c_str() + at, "logged scores reproduced on %zu of %zu", &agreed, &logged), 2);
  EXPECT_GT(logged, 50u);
  EXPECT_EQ(agreed, logged);
  EXPECT_NE(r.out.find("Held-out days: "), std::string::npos);

  EXPECT_EQ(tool({"check", fitted + ".data"}).code, 0);
  EXPECT_EQ(tool({"encode", fitted + ".txtpb", "-"}).out, slurp(fitted + ".data"));
  // The plug-in starts with it (a disabled plug-in fails the run) and acts as the scenario expects.
  const ToolRun sim = kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER,
                                      {VORAK_SIM_TOOL, std::string(VORAK_TEST_DATA) + "/evict-one.json", "--model",
                                       fitted + ".data", "--policy", "vorak:safeload=0.22", "--run-dir", mDir.sub("sim"), "-q"});
  EXPECT_EQ(sim.code, 0) << sim.err;
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

  // Decoding an incomplete model still prints it, with a warning.
  const ToolRun decoded = tool({"decode", out});
  EXPECT_EQ(decoded.code, 0);
  EXPECT_NE(decoded.err.find("warning"), std::string::npos) << decoded.err;
}

TEST_F(VorakModelTool, Usage) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"}, {"encode", "--help"}}) {
    const ToolRun r = tool(args);
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos) << r.out;
  }
  expectOneLineError(tool({}));
  expectOneLineError(tool({"frobnicate"}));
  expectOneLineError(tool({"check", "--format=xml", stagedModel("2GB")}));
  expectOneLineError(tool({"encode", sourceModel("2GB"), mDir.sub("no/such/dir/out.data")}));
}

}  // namespace
