#include "host/src/ProcStatsSource.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <tuple>

#include "AndroidLog.h"
#include "kxhost/LogCapture.h"
#include "support/TempDir.h"

namespace {

using Fields = std::array<uint64_t, 37>;

// The record is read by position, so it is compared as its 37 figures.
Fields fields(const SysStats& s) {
  Fields f;
  std::memcpy(f.data(), &s, sizeof s);
  return f;
}

kxhost::ProcStatsSource treeSource(const std::string& tree) {
  kxhost::ProcStatsSource::Options options;
  options.procRoot = std::string(KX_PROC_FIXTURES) + "/" + tree + "/proc";
  options.sysRoot = std::string(KX_PROC_FIXTURES) + "/" + tree + "/sys";
  options.pageKB = 4;
  return kxhost::ProcStatsSource(options);
}

std::string procFile(const std::string& tree, const std::string& rel) {
  return std::string(KX_PROC_FIXTURES) + "/" + tree + "/proc/" + rel;
}

std::vector<int> pids(const std::vector<PIDStats>& records) {
  std::vector<int> out;
  for (const PIDStats& r : records) out.push_back(r.pid);
  return out;
}

// Optional files (zram, the GPU's) missing from a tree read as zero, silently.
TEST(ProcStatsSource, ReadsEveryFigureOfATree) {
  kxhost::LogCapture log;
  const std::pair<const char*, Fields> cases[] = {
      {"linux",
       {23212384, 24683620, 1700, 0, 0, 0, 0, 19464, 4564, 122964, 25172, 0, 48804, 0, 3916, 14476, 8884,
        3106592, 0, 0, 0, 0,  // DMA + DMA32; the per-node block under DMA is not the zone's
        363824, 1596, 674240, 238916, 334612, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"android",  // with CMA, zram and high memory
       {201344, 3849932, 46176, 99264, 117908, 311056, 2097152, 154064, 10288, 97516, 120436, 9248, 791452, 36620,
        92220, 59364, 23752, 0, 0, 0, 0, 0, 109028, 93380, 40448, 140008, 160004, 2048, 800, 400, 1600, 1200, 92316,
        584520, 261424, 464696, 527356}},
      {"minimal", {412300, 1953124, 4096, 0, 0, 0, 0, 2048, 8120, 30120, 21004, 0, 120400, 0, 9120, 16384, 6016}},
  };
  for (const auto& [tree, expected] : cases) EXPECT_EQ(fields(treeSource(tree).sysStats()), expected) << tree;
  EXPECT_TRUE(log.lines().empty());

  kxtest::TempDir empty;
  kxhost::ProcStatsSource::Options options;
  options.procRoot = empty.path();
  options.sysRoot = empty.path();
  EXPECT_EQ(fields(kxhost::ProcStatsSource(options).sysStats()), Fields{});
  EXPECT_TRUE(log.contains("StatsProvider: " + empty.path() + "/meminfo: cannot be read", ANDROID_LOG_ERROR));
}

TEST(ProcStatsSource, ReadsProcessRecords) {
  PIDStats bash = treeSource("linux").pidStats(4101);
  EXPECT_EQ(std::make_tuple(bash.pid, bash.oomScoreAdj, bash.rssFileKB, bash.rssAnonSwapKB, bash.gpuKB, bash.startTime),
            std::make_tuple(4101, 0, uint64_t{2932}, uint64_t{276}, uint64_t{0}, uint64_t{52001}));
  EXPECT_STREQ(bash.comm, "bash");
  EXPECT_STREQ(treeSource("linux").pidStats(4103).comm, "kworker/u8:2-ex");  // cut to the kernel's 15

  PIDStats mail = treeSource("android").pidStats(2301);
  EXPECT_EQ(mail.oomScoreAdj, 700);
  EXPECT_EQ(mail.rssFileKB, 45120u);
  EXPECT_EQ(mail.rssAnonSwapKB, 60312u + 18000u);  // anonymous plus swapped

  EXPECT_EQ(treeSource("android").pidStats(2304).pid, -1);  // exited: status gone
  EXPECT_EQ(treeSource("android").pidStats(9999).pid, -1);

  // The identity check before a kill reads the start time alone.
  EXPECT_EQ(treeSource("android").startTime(2301), std::optional<uint64_t>(884211));
  for (int gone : {2304, 9999, 0, -1}) EXPECT_EQ(treeSource("android").startTime(gone), std::nullopt) << gone;
}

TEST(ProcStatsSource, SelectsProcessesByOomScoreAdjInclusively) {
  kxhost::ProcStatsSource android = treeSource("android");
  EXPECT_EQ(pids(android.pidStatsRange(700, 1000)), (std::vector<int>{2301, 2302, 2303}));
  EXPECT_EQ(android.pidStatsRange(700, 1000).front().startTime, 884211u);
  EXPECT_EQ(pids(android.pidStatsRange(701, 999)), (std::vector<int>{2302}));
  EXPECT_EQ(pids(android.pidStatsRange(-900, -800)), (std::vector<int>{501, 1201}));
}

// Each malformed line is reported, with its file and number, and skipped. A
// process whose start time cannot be read cannot be told from a later one
// under the same pid, so it is not offered.
TEST(ProcStatsSource, MalformedFilesAreReportedAndSkipped) {
  kxhost::LogCapture log;
  kxhost::ProcStatsSource malformed = treeSource("malformed");
  Fields expected{};
  expected[1] = 2048000;  // MemTotal
  expected[16] = 512;     // Shmem
  expected[22] = 40;      // Normal free: node 1's 10 pages; node 0's line is bad
  expected[23] = 308;     // Normal active anon: 77 pages
  EXPECT_EQ(fields(malformed.sysStats()), expected);
  PIDStats broken = malformed.pidStats(3001);
  EXPECT_EQ(std::make_pair(broken.rssFileKB, broken.rssAnonSwapKB), std::make_pair(uint64_t{300}, uint64_t{12}));
  EXPECT_EQ(malformed.pidStats(3002).pid, -1);
  EXPECT_EQ(malformed.pidStats(3003).pid, -1);
  EXPECT_EQ(pids(malformed.pidStatsRange(-1000, 1000)), (std::vector<int>{3001}));

  const std::string sys = std::string(KX_PROC_FIXTURES) + "/malformed/sys/block/zram0/";
  for (const std::string& line : {
           procFile("malformed", "meminfo") + ": line 2: expected 'Key: value [kB]', got 'MemFree          1000 kB'",
           procFile("malformed", "zoneinfo") + ": line 1: counter before any zone header: '  pages free     5'",
           sys + "mm_stat: line 1: expected at least 3 columns, got 'garbage'",
           sys + "disksize: line 1: expected one integer, got '12x'",
           procFile("malformed", "3001/status") + ": line 2: value of RssAnon is not a number: 'lots'",
           procFile("malformed", "3002/oom_score_adj") + ": line 1: expected one integer, got 'zero'",
           procFile("malformed", "3003/stat") + ": line 1: expected at least 22 fields, got 5",
       })
    EXPECT_TRUE(log.contains(line, ANDROID_LOG_ERROR)) << line;
}

}  // namespace
