// vorak-model run as a subprocess against the shipped models and broken ones.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Vorak.pb.h"
#include "support/TempDir.h"
#include "support/ToolRun.h"

namespace {

using kxtest::slurp;
using kxtest::ToolRun;
using Args = std::vector<std::string>;

std::string stagedModel(const std::string& cls) {
  return std::string(VORAK_DEVICE_ROOT) + "/vendor/etc/kx/vorak/vorak_" + cls + ".data";
}

std::string sourceModel(const std::string& cls) {
  return std::string(VORAK_MODEL_SOURCE_DIR) + "/vorak_" + cls + ".txtpb";
}

class VorakModelTool : public ::testing::Test {
 protected:
  ToolRun tool(Args args, const std::string& in = "/dev/null") {
    args.insert(args.begin(), VORAK_MODEL_TOOL);
    return kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER, args, in);
  }
  ToolRun sim(Args args) {
    args.insert(args.begin(), VORAK_SIM_TOOL);
    return kxtest::runTool(mDir, VORAK_TOOL_LAUNCHER, args);
  }

  // The shipped 4GB model with `spoil` done to it, in a file of its own.
  std::string spoilt(void (*spoil)(VorakModel&)) {
    VorakModel m;
    EXPECT_TRUE(m.ParseFromString(slurp(stagedModel("4GB"))));
    spoil(m);
    return mDir.write("model" + std::to_string(++mModels) + ".data", m.SerializePartialAsString());
  }

  kxtest::TempDir mDir;
  int mModels = 0;
};

TEST_F(VorakModelTool, ShippedModelsRoundTrip) {
  const std::string proto = VORAK_PROTO_FILE;
  for (const char* cls : {"2GB", "4GB", "6GB"}) {
    SCOPED_TRACE(cls);
    const std::string staged = slurp(stagedModel(cls));
    ASSERT_FALSE(staged.empty());
    const std::string encoded = mDir.sub("encoded.data");
    ASSERT_EQ(tool({"encode", sourceModel(cls), encoded}).code, 0);
    EXPECT_EQ(slurp(encoded), staged);

    const ToolRun decoded = tool({"decode", "-"}, encoded);
    ASSERT_EQ(decoded.code, 0) << decoded.err;
    EXPECT_TRUE(decoded.err.empty()) << decoded.err;
    const ToolRun reference = kxtest::runTool(
        mDir, "", {VORAK_TEST_PROTOC, "--decode=VorakModel", "-I", proto.substr(0, proto.rfind('/')), proto}, encoded);
    EXPECT_EQ(decoded.out, reference.out);
    EXPECT_EQ(tool({"encode", "-", "-"}, mDir.write("decoded.txtpb", decoded.out)).out, staged);
    const ToolRun checked = tool({"check", stagedModel(cls)});
    EXPECT_EQ(checked.code, 0);
    EXPECT_NE(checked.out.find(": complete\n"), std::string::npos) << checked.out;
  }
}

// Unreadable input, bad usage and what tune and train cannot use: status 2
// and one line naming the tool, nothing written.
TEST_F(VorakModelTool, RefusesWhatItCannotUseInOneLine) {
  const std::string staged = slurp(stagedModel("2GB"));
  const std::string junk = mDir.write("junk.data", "not a model");
  const std::string bad = mDir.write("bad.txtpb", "bias: 1\nsafeload: {\n");
  const std::string scenario = std::string(VORAK_TEST_DATA) + "/known-best.json";  // a 2GB scenario
  const std::string never = mDir.sub("never");
  const Args cases[] = {
      {"check", mDir.write("truncated.data", staged.substr(0, staged.size() - 2))},  // inside the last float
      {"check", junk}, {"decode", junk},
      {"check", bad},
      {"check", mDir.sub("absent.data")}, {"check", mDir.path()},
      {"encode", bad, mDir.sub("never.data")},
      {}, {"frobnicate"}, {"check", "--format=xml", stagedModel("2GB")},
      {"encode", sourceModel("2GB"), mDir.sub("no/such/dir/out.data")},
      {"tune", "--device", "2", scenario, "--grid", "0.1:1.2:0.1", "--run-dir", never},
      {"tune", "--device", "2", scenario, "--grid", "0", "--run-dir", never},
      {"tune", "--device", "4", scenario, "--run-dir", never},
      {"tune", "--device", "3", "--run-dir", never},
      {"train", "--device", "6", scenario, "--run-dir", never},
      {"train", "--device", "2", mDir.sub("absent.json"), "--run-dir", never},
      {"train", "--device", "2", scenario, "--model", junk, "--run-dir", never},
  };
  for (const Args& args : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    const ToolRun r = tool(args);
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(r.out.empty()) << r.out;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorak-model: ", 0), 0u) << r.err;
  }
  // The text error names the place.
  EXPECT_NE(tool({"check", bad}).err.find("bad.txtpb:2:"), std::string::npos);
  for (const Args& args : {Args{"--help"}, Args{"encode", "--help"}}) {
    const ToolRun r = tool(args);
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("Usage:"), std::string::npos) << r.out;
  }
}

TEST_F(VorakModelTool, CheckNamesEveryProblemAndFailsTheRun) {
  const struct {
    const char* what;
    std::string path;
    std::vector<std::string> says;
  } cases[] = {
      {"fields missing", spoilt([](VorakModel& m) {
         m.clear_bias();
         m.mutable_features()->erase("howMuchToKill");
         (*m.mutable_features())["load"].set_max(m.features().at("load").min());
         (*m.mutable_features())["notAnInput"] = m.features().at("FreeKB");
       }),
       {"missing required field: bias\n", "missing feature: \"howMuchToKill\"\n", "feature \"load\": min equals max",
        ": 3 problems\n", "note: feature \"notAnInput\""}},  // an unused name is a note, not a problem
      {"text", mDir.write("partial.txtpb", "bias: 1\nfeatures { key: \"FreeKB\" value { min: 0 max: 1 } }\n"),
       {"missing required field: safeload\n", "feature \"FreeKB\": missing required field: weight\n"}},
      // Numbers that would turn killing off.
      {"nan", spoilt([](VorakModel& m) { m.set_safeload(NAN); }), {"safeload is not a finite number (nan)"}},
      {"0", spoilt([](VorakModel& m) { m.set_safeload(0); }), {"safeload 0 lies outside (0, 1)"}},
      {"1", spoilt([](VorakModel& m) { m.set_safeload(1); }), {"safeload 1 lies outside (0, 1)"}},
      {"-inf", spoilt([](VorakModel& m) { m.set_bias(-INFINITY); }), {"bias is not a finite number (-inf)"}},
      {"weight", spoilt([](VorakModel& m) { (*m.mutable_features())["load"].set_weight(NAN); }),
       {"feature \"load\": weight is not a finite number"}},
      {"max", spoilt([](VorakModel& m) { (*m.mutable_features())["FreeKB"].set_max(INFINITY); }),
       {"feature \"FreeKB\": max is not a finite number"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const ToolRun r = tool({"check", c.path});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out.find("complete"), std::string::npos) << r.out;
    for (const std::string& s : c.says) EXPECT_NE(r.out.find(s), std::string::npos) << s << r.out;
  }
}

TEST_F(VorakModelTool, TunePicksTheBestSafeloadOfAScenarioBuiltToHaveOne) {
  // Only an amount between the small app's size and the hog's kills the hog
  // alone and spares the app reopened afterwards; 0.2 is the one such value
  // of the grid (see the scenario).
  const std::string scenario = std::string(VORAK_TEST_DATA) + "/known-best.json";
  auto withJobs = [&](const std::string& jobs) {
    return tool({"tune", "--device", "2", scenario, "--grid", "0.05,0.1,0.2,0.35,0.5", "--jobs", jobs, "--run-dir",
                 mDir.sub("tune-" + jobs), "--out", mDir.sub("tuned-" + jobs)});
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

TEST_F(VorakModelTool, TrainedModelRoundTripsAndLoadsInThePlugin) {
  const ToolRun days = sim({"--generate", "--days", "2", "--apps", "10", "--device", "2", "--seed", "3"});
  const ToolRun later = sim({"--generate", "--days", "1", "--apps", "10", "--device", "2", "--seed", "4"});
  ASSERT_EQ(days.code + later.code, 0);
  const std::string fitted = mDir.sub("fitted");
  const ToolRun r = tool({"train", "--device", "2", mDir.write("days.json", days.out), "--held-out",
                          mDir.write("later.json", later.out), "--run-dir", mDir.sub("train"), "--out", fitted});
  ASSERT_EQ(r.code, 0) << r.err << r.out;
  // The inputs the fit saw are the plug-in's own: its logged scores are reproduced.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.out, m, std::regex("logged scores reproduced on ([0-9]+) of ([0-9]+)"))) << r.out;
  EXPECT_GT(std::stoi(m[2]), 50);
  EXPECT_EQ(m[1], m[2]);
  EXPECT_NE(r.out.find("Held-out days: "), std::string::npos);

  EXPECT_EQ(tool({"check", fitted + ".data"}).code, 0);
  EXPECT_EQ(tool({"encode", fitted + ".txtpb", "-"}).out, slurp(fitted + ".data"));
  // The plug-in starts with it (a disabled plug-in fails the run) and acts as the scenario expects.
  const ToolRun played = sim({std::string(VORAK_TEST_DATA) + "/evict-one.json", "--model", fitted + ".data",
                              "--policy", "vorak:safeload=0.22", "--run-dir", mDir.sub("sim"), "-q"});
  EXPECT_EQ(played.code, 0) << played.err;
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
}

}  // namespace
