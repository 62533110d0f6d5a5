// Start-up gates of the feature: enable property, memory range, model file
// of the memory class, database set; what a started feature owns, and what
// each allocation refused at start-up costs.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "VorakDevice.h"
#include "kxhost/LogCapture.h"
#include "support/FailingAllocation.h"

namespace {

using vorakdev::Device;
using Peer = VorakFeatureTestPeer;

constexpr int kWarn = ANDROID_LOG_WARN;
constexpr int kError = ANDROID_LOG_ERROR;

size_t featureLines(const kxhost::LogCapture& log) {
  size_t n = 0;
  for (const auto& line : log.lines()) n += line.tag == "ANDR-PERF-KX";
  return n;
}

TEST(VorakFeatureGates, EnablePropertyOtherThanTrueDisablesSilently) {
  for (const char* value : {"false", "1", "TRUE", "true "}) {
    Device device;
    kxhost::setProperty("ro.vendor.perf.enable.vorak", value);
    kxhost::LogCapture log;
    auto feature = device.create();
    EXPECT_TRUE(feature->isDisabled()) << value;
    EXPECT_EQ(featureLines(log), 0u) << value;
  }
  Device device;  // unset reads as "true"
  kxhost::clearProperty("ro.vendor.perf.enable.vorak");
  EXPECT_FALSE(device.create()->isDisabled());
}

TEST(VorakFeatureGates, MemTotalOutsideOneToEightGiBIsRefusedWithWarning) {
  for (uint64_t kb : {uint64_t{0}, uint64_t{1048575}, uint64_t{8388609}}) {
    Device device(kb);
    kxhost::LogCapture log;
    EXPECT_TRUE(device.create()->isDisabled());
    const std::string text = "Device's MemTotal = " + std::to_string(kb) +
                             ", is not supporting the Feature. Disabling the Vorak Feature.";
    EXPECT_TRUE(log.contains(text, kWarn)) << kb;
    EXPECT_FALSE(log.contains("Fatal")) << kb;
  }
}

// Only the shipped model of the expected class exists: the feature starts
// only if it picked that file and the file loads.
TEST(VorakFeatureGates, MemTotalChoosesTheModelOfItsClass) {
  const std::pair<uint64_t, const char*> cases[] = {{1048577, "2GB"}, {2097152, "2GB"}, {2097153, "4GB"},
                                                    {4194304, "4GB"}, {4194305, "6GB"}, {8388608, "6GB"}};
  for (const auto& [kb, memClass] : cases) {
    Device device(kb);
    device.removeModels();
    std::ifstream shipped(std::string(VORAK_DEVICE_ROOT "/") + vorakdev::modelPath(memClass), std::ios::binary);
    ASSERT_TRUE(shipped.is_open()) << memClass;
    device.writeModel(memClass, std::string(std::istreambuf_iterator<char>(shipped), {}));
    kxhost::LogCapture log;
    EXPECT_FALSE(device.create()->isDisabled()) << kb;
    EXPECT_FALSE(log.contains("Fatal")) << kb;
  }
}

// Exactly 1 GiB passes the range but has no model of its own: the name is empty.
TEST(VorakFeatureGates, AMissingModelFailsToOpen) {
  const std::pair<uint64_t, std::string> cases[] = {
      {1048576, "Fatal! : Failed to open file . Disabling the Vorak Feature. Err = "},
      {vorakdev::k4GB, "Fatal! : Failed to open file /vendor/etc/kx/vorak/vorak_4GB.data. Disabling the Vorak "
                       "Feature. Err = No such file or directory"}};
  for (const auto& [kb, line] : cases) {
    Device device(kb);
    device.removeModels();
    kxhost::LogCapture log;
    EXPECT_TRUE(device.create()->isDisabled()) << kb;
    EXPECT_TRUE(log.contains(line, kError)) << kb;
  }
}

TEST(VorakFeatureGates, UnparsableModelIsRefused) {
  std::string valid = vorakdev::modelBytes();
  const std::pair<const char*, std::string> cases[] = {{"empty", ""},
                                                       {"truncated", valid.substr(0, valid.size() - 1)},
                                                       {"no weight", vorakdev::modelBytes(-0.5f, 0.3f, {{"FreeKB", 0, 1, NAN}})}};
  for (const auto& [what, bytes] : cases) {
    Device device;
    device.writeModel("4GB", bytes);
    kxhost::LogCapture log;
    auto feature = device.create();
    EXPECT_TRUE(feature->isDisabled()) << what;
    EXPECT_TRUE(log.contains("Fatal! Failed to parse model from file: /vendor/etc/kx/vorak/vorak_4GB.data. "
                             "Disabling the Vorak Feature. Err = ",
                             kError))
        << what;
    EXPECT_EQ(Peer::userDb(*feature), nullptr) << what;
  }
}

// Root may write anywhere, so the directory is made unusable by a plain file
// in its place.
TEST(VorakFeatureGates, UnusableDatabaseDirectoryFailsAtTheFirstFileTable) {
  Device device;
  std::filesystem::remove_all(device.dir().sub("data/vendor/kx"));
  device.dir().write("data/vendor/kx", "not a directory");
  kxhost::LogCapture log;
  auto feature = device.create();
  EXPECT_TRUE(feature->isDisabled());
  EXPECT_EQ(log.count("Error in DB initialization - create"), 1u);
  EXPECT_TRUE(log.contains("Couldnt Initialize DBs properly. Disabling the Vorak Feature. ret = -1\n", kError));
  // The in-memory tables opened before it and work.
  vorakdev::addRow(Peer::userDb(*feature), "com.a", 5);
  EXPECT_EQ(vorakdev::values(Peer::userDb(*feature), "com.a"), std::vector<int>{5});
  EXPECT_NE(Peer::startProcDb(*feature), nullptr);
  EXPECT_NE(Peer::favPidDb(*feature), nullptr);
  EXPECT_EQ(Peer::serviceInDb(*feature), nullptr);
}

TEST(VorakFeatureStart, StartedFeatureKeepsItsTablesAndReportsWhenTracing) {
  Device device;
  kxhost::setProperty("vendor.debug.trace.VORAK", "1x");
  kxhost::LogCapture log;
  auto feature = device.create();
  ASSERT_FALSE(feature->isDisabled());
  EXPECT_TRUE(feature->isTraceVorak());
  EXPECT_TRUE(log.contains("Successfully Created constructors and Enabled Vorak Feature.", kError));
  EXPECT_FALSE(log.contains("No ")) << "every component is built";
  for (const char* file : {"Vorak.db", "VorakServiceIP.db", "VorakServiceOP.db"})
    EXPECT_TRUE(std::filesystem::exists(device.dir().sub(std::string("data/vendor/kx/") + file))) << file;

  auto* user = Peer::userDb(*feature);
  EXPECT_EQ(feature->initializeAllDb(), 0);  // a second call keeps the tables
  EXPECT_EQ(Peer::userDb(*feature), user);

  kxhost::setProperty("vendor.debug.trace.VORAK", "0");
  log.clear();
  EXPECT_FALSE(device.create()->isTraceVorak());
  EXPECT_FALSE(log.contains("Successfully Created"));
}

// Every table a feature opens goes with it, also when a gate stopped it
// halfway: SQLite's own count of the memory it holds is back where it was.
TEST(VorakFeatureStart, DestroyedFeatureLeavesNoTableBehind) {
  Device device;
  device.create().reset();  // SQLite's first use allocates for good
  const sqlite3_int64 before = sqlite3_memory_used();
  device.create().reset();
  EXPECT_EQ(sqlite3_memory_used(), before) << "started";
  std::filesystem::remove_all(device.dir().sub("data/vendor/kx"));
  device.dir().write("data/vendor/kx", "not a directory");
  device.create().reset();
  EXPECT_EQ(sqlite3_memory_used(), before) << "stopped at the first file table";
}

constexpr const char* kNoTables = "Couldnt Initialize DBs properly. Disabling the Vorak Feature. ret = -1";
constexpr const char* kNoMeter = "No MetaMeter for (Vorak : ";
constexpr const char* kNoAction = "No Action for (Vorak : ";
constexpr const char* kNoActionTable = "Failed to Create KxDatabase for VorakFeatureActionData.";
constexpr const char* kNoAlgo = "No Algo for (Vorak : ";

struct Refusal {
  int nth;  // which allocation of the start-up fails
  bool meter, action, algo;
  std::vector<const char*> errors;
};

// The feature's start-up when memory runs out: each of its eleven nothrow
// allocations (seven tables, the meter, the action, the action's table, the
// learning algorithm) refused in turn. A missing table disables the feature;
// a missing component is reported and the feature runs without it.
TEST(VorakFeatureGates, EachRefusedStartUpAllocationCostsOnlyWhatNeedsIt) {
  const Refusal table[] = {
      {1, false, false, false, {kNoTables}},  // each of the five tables the feature needs
      {2, false, false, false, {kNoTables}},  {3, false, false, false, {kNoTables}},
      {4, false, false, false, {kNoTables}},  {5, false, false, false, {kNoTables}},
      {6, false, true, false, {kNoMeter, kNoAlgo}},  // service input
      {7, true, false, false, {kNoAction, kNoAlgo}},  // service output
      {8, false, true, true, {kNoMeter}},
      {9, true, false, false, {kNoAction, kNoAlgo}},
      {10, true, true, false, {kNoActionTable, kNoAlgo}},
      {11, true, true, false, {kNoAlgo}},
      {12, true, true, true, {}},  // there is no twelfth
  };
  for (const Refusal& r : table) {
    SCOPED_TRACE(r.nth);
    vorakdev::Device device;
    kxhost::LogCapture log;
    std::unique_ptr<VorakFeature> feature;
    {
      kxtest::NothrowFailure refused(r.nth, 1);
      feature = device.create();
      if (r.errors.empty()) {
        EXPECT_EQ(kxtest::NothrowFailure::seen(), 11);
      }
    }
    EXPECT_EQ(feature->isDisabled(), r.nth <= 5);
    EXPECT_EQ(feature->getMetaMeter() != nullptr, r.meter);
    EXPECT_EQ(feature->getAction() != nullptr, r.action);
    EXPECT_EQ(feature->getAlgo() != nullptr, r.algo);
    size_t errors = 0;
    for (const auto& line : log.lines()) errors += line.prio >= ANDROID_LOG_WARN && line.tag == "ANDR-PERF-KX";
    EXPECT_EQ(errors, r.errors.size() + (r.nth <= 5));  // the table check's own line before the last
    for (const char* error : r.errors) EXPECT_EQ(log.count(error, ANDROID_LOG_ERROR), 1u) << error;
  }
}

}  // namespace
