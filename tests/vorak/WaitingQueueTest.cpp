// The worker's queue apart from the feature: order, the unlimited setting and
// the hand-over to a blocked consumer.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "WaitingQueue.h"

namespace {

TEST(WaitingQueue, ZeroThresholdNeverFloods) {
  WaitingQueue<int> q("q", 0);
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(q.push(i));
  EXPECT_EQ(q.size(), 1000u);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(q.pop(), i);
}

TEST(WaitingQueue, ThresholdCountsQueuedItems) {
  WaitingQueue<int> q("q", 3);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(q.push(i));
  EXPECT_EQ(q.pop(), 0);
  EXPECT_TRUE(q.push(3));  // two queued: room for one more
  EXPECT_FALSE(q.push(4));
  EXPECT_EQ(q.size(), 0u);
}

TEST(WaitingQueue, BlockedConsumerGetsEveryItemAndIdleWaitsForIt) {
  WaitingQueue<int> q("q", 0);
  std::vector<int> seen;  // written by the consumer, read after waitIdle
  std::thread consumer([&] {
    for (;;) {
      const int item = q.pop();
      if (item < 0) return;
      seen.push_back(item);
      q.taskDone();
    }
  });
  for (int i = 0; i < 100; ++i) q.push(i);
  q.waitIdle();
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(seen.back(), 99);
  q.push(-1);
  consumer.join();
}

}  // namespace
