#include "FeatureState.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/DeviceRoot.h"
#include "AndroidLog.h"
#include "kxhost/LogCapture.h"

namespace {

// Rows of the "AppState" table in `path` as "name=state", by name.
std::vector<std::string> rowsIn(const std::string& path) {
  sqlite3* db = nullptr;
  std::vector<std::string> rows;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, "SELECT appName, blob FROM AppState ORDER BY appName", -1, &stmt, nullptr);
    while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
      int32_t state = 0;
      if (sqlite3_column_bytes(stmt, 1) == sizeof state) std::memcpy(&state, sqlite3_column_blob(stmt, 1), sizeof state);
      rows.push_back(std::string(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0))) + "=" +
                     std::to_string(state));
    }
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return rows;
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
  EXPECT_EQ(rowsIn(root.dataFile("VorakAppState.db")), (std::vector<std::string>{"com.app=2", "vendor.svc=3"}));
  EXPECT_EQ(rowsIn(root.dataFile("OtherAppState.db")), (std::vector<std::string>{"com.app=99"}));
}

TEST(FeatureStateTest, AnotherDeviceRootStartsEmpty) {
  auto first = std::make_unique<kxtest::DeviceRoot>();
  FeatureState feature("Vorak");
  feature.writeState("com.app", APP_STATE_LEARNT);
  first.reset();
  kxtest::DeviceRoot second;
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

TEST(FeatureStateTest, ConcurrentHandlesSeeEveryWrite) {
  kxtest::DeviceRoot root;
  constexpr int kThreads = 4, kNames = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      FeatureState state("Vorak");  // each thread builds its own handle, as components do
      for (int i = 0; i < kNames; ++i) {
        std::string name = "app" + std::to_string(t) + "." + std::to_string(i);
        state.writeState(name, APP_STATE_LEARNING_DUE);
        if (state.readState(name) == APP_STATE_LEARNING_DUE) state.writeState(name, APP_STATE_LEARNT);
        state.names();
      }
    });
  }
  for (auto& th : threads) th.join();
  FeatureState state("Vorak");
  ASSERT_EQ(state.names().size(), size_t(kThreads * kNames));
  for (const std::string& name : state.names()) EXPECT_EQ(state.readState(name), APP_STATE_LEARNT) << name;
  EXPECT_EQ(rowsIn(root.dataFile("VorakAppState.db")).size(), size_t(kThreads * kNames));
}

}  // namespace
