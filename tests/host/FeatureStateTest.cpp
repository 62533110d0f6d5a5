#include "FeatureState.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/DeviceRoot.h"
#include "support/PutRows.h"
#include "AndroidLog.h"
#include "kxhost/LogCapture.h"

namespace {

// Rows of the "AppState" table of `file` under the device root, as "name=state".
std::vector<std::string> rowsIn(const std::string& file) {
  KxDatabase<AppState> table(0, file, "AppState");
  EXPECT_EQ(table.KxDatabaseInit(), KXDB_SUCCESS);
  return kxtest::readRows(table, KxDBDataRowKey(),
                          [](const auto& r) { return r.appName + "=" + std::to_string(static_cast<int>(r.blob)); });
}

TEST(FeatureStateTest, HandlesOfOneFeatureShareStatesAndOthersDoNot) {
  kxtest::DeviceRoot root;
  FeatureState feature("Vorak");
  FeatureState second("Vorak");
  FeatureState other("Other");
  EXPECT_EQ(feature.readState("com.app"), APP_STATE_COLLECTING);

  feature.writeState("com.app", APP_STATE_LEARNING_DUE);
  second.writeState("vendor.svc", APP_STATE_LEARN_FAILED);
  EXPECT_EQ(second.readState("com.app"), APP_STATE_LEARNING_DUE);
  EXPECT_EQ(feature.readState("vendor.svc"), APP_STATE_LEARN_FAILED);
  EXPECT_EQ(other.readState("com.app"), APP_STATE_COLLECTING);
  EXPECT_EQ(feature.names(), (std::vector<std::string>{"com.app", "vendor.svc"}));
  EXPECT_TRUE(other.names().empty());

  FeatureState copy = other;
  copy = feature;
  EXPECT_EQ(copy.featureName(), "Vorak");
  EXPECT_EQ(copy.readState("com.app"), APP_STATE_LEARNING_DUE);
}

TEST(FeatureStateTest, StatesPersistInTheFeaturesOwnFileOneRowPerName) {
  kxtest::DeviceRoot root;
  FeatureState feature("Vorak");
  feature.writeState("com.app", APP_STATE_LEARNING_DUE);
  feature.writeState("com.app", APP_STATE_LEARNT);
  feature.writeState("vendor.svc", APP_STATE_RELEARN_DUE);
  FeatureState("Other").writeState("com.app", APP_STATE_LEARN_FAILED);

  kxhost::clearFeatureStates();  // as after a restart: loaded again from the files
  EXPECT_EQ(feature.readState("com.app"), APP_STATE_LEARNT);
  EXPECT_EQ(feature.readState("vendor.svc"), APP_STATE_RELEARN_DUE);
  EXPECT_EQ(FeatureState("Other").readState("com.app"), APP_STATE_LEARN_FAILED);
  EXPECT_EQ(rowsIn("VorakAppState.db"), (std::vector<std::string>{"com.app=2", "vendor.svc=3"}));
  EXPECT_EQ(rowsIn("OtherAppState.db"), (std::vector<std::string>{"com.app=99"}));

  kxtest::DeviceRoot another;  // another device starts empty
  EXPECT_EQ(feature.readState("com.app"), APP_STATE_COLLECTING);
  EXPECT_TRUE(feature.names().empty());
}

TEST(FeatureStateTest, WithoutADataDirectoryStatesLiveInMemory) {
  kxtest::DeviceRoot root(/*withDataDir=*/false);
  kxhost::LogCapture log;
  FeatureState feature("Vorak");
  feature.writeState("com.app", APP_STATE_LEARNING_DUE);
  EXPECT_EQ(FeatureState("Vorak").readState("com.app"), APP_STATE_LEARNING_DUE);
  EXPECT_TRUE(log.contains("states of Vorak kept in memory only", ANDROID_LOG_ERROR));
  EXPECT_FALSE(std::filesystem::exists(root.dataFile("VorakAppState.db")));
}

}  // namespace
