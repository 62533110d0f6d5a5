// Fitting a model on inputs whose truth is known, and what the fitted model
// file holds.

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <random>

#include "ModelFile.h"
#include "Trainer.h"

namespace {

constexpr size_t kFreeKB = 0, kCachedKB = 1, kHowMuchToKill = kVorakFeatureNames.size() - 1;

// Free memory and the kill amount vary; the launch needed memory freed when
// the amount exceeds half the free memory. Every other input is constant.
std::vector<vmodel::Example> examples(unsigned seed, size_t n) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> freeKB(50000, 900000), amount(-400000, 600000);
  std::vector<vmodel::Example> out(n);
  for (vmodel::Example& e : out) {
    e.values[kCachedKB] = 700000;
    e.values[kFreeKB] = freeKB(rng);
    e.values[kHowMuchToKill] = amount(rng);
    e.needed = e.values[kHowMuchToKill] > 0.5f * e.values[kFreeKB];
  }
  return out;
}

VorakModel base() {
  VorakModel m;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(
      R"(safeload: 0.2 bias: 3 features { key: "CachedKB" value { min: 0 max: 1677722 weight: -0.8 } })", &m));
  return m;
}

TEST(Trainer, FitsTheVerdictAndWritesAModelTheDeviceAccepts) {
  const vmodel::TrainResult r = vmodel::train(base(), examples(1, 800));
  EXPECT_TRUE(r.fit.converged);
  EXPECT_EQ(r.fittedInputs, 2u);
  EXPECT_GE(vmodel::evaluate(r.model, examples(1, 800)).accuracy(), 0.98);
  EXPECT_GE(vmodel::evaluate(r.model, examples(2, 400)).accuracy(), 0.97);  // days it never saw
  EXPECT_LT(vmodel::evaluate(base(), examples(2, 400)).accuracy(), 0.9);

  EXPECT_TRUE(vmodel::checkModel(r.model).problems.empty());
  const auto& f = r.model.features();
  // Ranges cover the data, rounded outward; the signs say which way each input argues.
  for (const auto& e : examples(1, 800)) {
    EXPECT_LE(f.at("FreeKB").min(), e.values[kFreeKB]);
    EXPECT_GE(f.at("FreeKB").max(), e.values[kFreeKB]);
  }
  EXPECT_LT(f.at("FreeKB").weight(), 0);
  EXPECT_GT(f.at("howMuchToKill").weight(), 0);
  // An input that never varied scores nothing and keeps the base's range, or [0, 1].
  EXPECT_EQ(f.at("CachedKB").weight(), 0);
  EXPECT_EQ(f.at("CachedKB").max(), 1677722);
}

TEST(Trainer, RefusesDataWithOneKindOfLaunch) {
  auto all = examples(1, 50);
  for (auto& e : all) e.needed = true;
  EXPECT_THROW(vmodel::train(base(), all), std::runtime_error);
  EXPECT_THROW(vmodel::train(base(), {}), std::runtime_error);
}

}  // namespace
