#include "host/src/ProcParsers.h"

#include <gtest/gtest.h>

namespace {

// Kernels before 4.8: LRU counters per zone without the nr_zone_ prefix,
// two nodes, and a DMA32 zone that shares the DMA slot.
TEST(ProcParsers, ZoneinfoSumsNodesAndFoldsDma32IntoDma) {
  const char* text =
      "Node 0, zone      DMA\n"
      "  pages free     100\n"
      "      nr_free_pages 100\n"
      "      nr_inactive_anon 1\n"
      "      nr_active_anon 2\n"
      "      nr_inactive_file 3\n"
      "      nr_active_file 4\n"
      "Node 0, zone    DMA32\n"
      "  pages free     1000\n"
      "      nr_active_anon 20\n"
      "Node 1, zone   Normal\n"
      "  pages free     7\n"
      "      nr_active_file 5\n"
      "Node 2, zone   Normal\n"
      "  pages free     8\n"
      "      nr_active_file 6\n"
      "  per-node stats\n"  // node counters, until the next zone
      "      nr_active_file 50\n"
      "Node 2, zone  HighMem\n"
      "      nr_active_file 9\n";
  kxhost::ZoneInfo zones;
  std::string error;
  ASSERT_TRUE(kxhost::parseZoneinfo(text, &zones, &error)) << error;
  EXPECT_EQ(zones.dma.freePages, 1100u);
  EXPECT_EQ(zones.dma.activeAnon, 22u);
  EXPECT_EQ(zones.dma.inactiveAnon, 1u);
  EXPECT_EQ(zones.dma.inactiveFile, 3u);
  EXPECT_EQ(zones.dma.activeFile, 4u);
  EXPECT_EQ(zones.normal.freePages, 15u);
  EXPECT_EQ(zones.normal.activeFile, 11u);
  EXPECT_EQ(zones.highMem.activeFile, 9u);
  EXPECT_EQ(zones.highMem.freePages + zones.movable.freePages, 0u);
}

// Older kernels print seven columns; only the first three are relied on.
TEST(ProcParsers, MmStatNeedsItsFirstThreeColumns) {
  for (const char* text : {"4096000 1024000 2048000 0 2048000 10 3\n", "4096000 1024000 2048000"}) {
    kxhost::ZramStat zram;
    std::string error;
    ASSERT_TRUE(kxhost::parseZramMmStat(text, &zram, &error)) << error;
    EXPECT_EQ(zram.origDataKB, 4000u);
    EXPECT_EQ(zram.memUsedTotalKB, 2000u);
  }
}

TEST(ProcParsers, StatusKeepsBlanksInTheNameAndNeedsOne) {
  kxhost::ProcStatus status;
  std::string error;
  ASSERT_TRUE(kxhost::parseProcStatus("Name:\tWeb Content\nRssFile:\t  12 kB\n", &status, &error)) << error;
  EXPECT_EQ(status.name, "Web Content");
  EXPECT_EQ(status.rssFileKB, 12u);
  ASSERT_TRUE(kxhost::parseProcStatus("Name:x\n", &status, &error)) << error;
  EXPECT_EQ(status.name, "x");

  EXPECT_FALSE(kxhost::parseProcStatus("Name\nRssFile:\t  12 kB\n", &status, &error));
  EXPECT_EQ(error, "no Name line");
}

TEST(ProcParsers, StatStartTimeCountsFieldsFromTheLastParenthesis) {
  const std::string tail = " 0 -1 4194560 1200 0 3 0 40 12 0 0 20 0 14 0 ";
  const struct {
    std::string text;
    bool ok;
    uint64_t startTime;
    const char* error;
  } cases[] = {
      {"77 (sleep) S 1 77 77" + tail + "884211 2147483648 9000\n", true, 884211, ""},
      // A name may hold blanks and parentheses of its own.
      {"78 (a) b (c) S 1 78 78" + tail + "99\n", true, 99, ""},
      {"79 (x) S 1 79 79\n", false, 0, "line 1: expected at least 22 fields, got 6"},
      {"80 (x) S 1 80 80" + tail + "soon 1\n", false, 0, "line 1: start time is not a number: 'soon'"},
      {"81 (x S 1 81 81" + tail + "5\n", false, 0, "line 1: no ')' after the process name"},
  };
  for (const auto& c : cases) {
    uint64_t startTime = 0;
    std::string error;
    EXPECT_EQ(kxhost::parseProcStatStartTime(c.text, &startTime, &error), c.ok) << c.text;
    EXPECT_EQ(startTime, c.startTime) << c.text;
    EXPECT_EQ(error, c.error) << c.text;
  }
}

// Whatever a file holds, the error is one line: what it quotes is escaped.
TEST(ProcParsers, RefusalsQuoteTheFileOnOneLine) {
  std::string error;
  kxhost::ZramStat zram;
  EXPECT_FALSE(kxhost::parseZramMmStat("MemTotal: 1 kB\nMemFree: 2 kB\n", &zram, &error));
  EXPECT_EQ(error, "line 1: expected byte counts, got 'MemTotal: 1 kB\\x0aMemFree: 2 kB'");
  int64_t value = 0;
  EXPECT_FALSE(kxhost::parseSingleInt("7\n8\x1b[2J\n", &value, &error));
  EXPECT_EQ(error, "line 1: expected one integer, got '7\\x0a8\\x1b[2J'");
  kxhost::MemInfo mem;
  EXPECT_FALSE(kxhost::parseMeminfo("Buffers: 12\x7f\xff kB\n", &mem, &error));
  EXPECT_EQ(error, "line 1: value of Buffers is not a number: '12\\x7f\\xff'");
  EXPECT_FALSE(kxhost::parseMeminfo("MemTotal: 1 kB\n: 2 kB\n", &mem, &error));
  EXPECT_EQ(error, "line 2: expected 'Key: value [kB]', got ': 2 kB'");
  kxhost::ZoneInfo zones;
  EXPECT_FALSE(kxhost::parseZoneinfo("Node 0, zona Normal\n", &zones, &error));
  EXPECT_EQ(error, "line 1: expected 'Node N, zone NAME', got 'Node 0, zona Normal'");
}

}  // namespace
