// The queue's unlimited setting, which the feature's own queue does not use;
// its flood rule and consumer side are covered through the feature.

#include <gtest/gtest.h>

#include "WaitingQueue.h"

namespace {

TEST(WaitingQueue, ZeroThresholdNeverFloodsAndKeepsOrder) {
  WaitingQueue<int> q("q", 0);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(q.push(i));
  EXPECT_EQ(q.size(), 1000u);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(q.pop(), i);
}

}  // namespace
