#include "DependentServices.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A pid that surely names no process: a child of ours, already reaped.
int reapedChildPid() {
  pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

class DependentServicesTest : public ::testing::Test {
 protected:
  void SetUp() override { registry().clear(); }
  void TearDown() override { registry().clear(); }
  static kxhost::ServiceRegistry& registry() { return kxhost::ServiceRegistry::instance(); }
};

TEST_F(DependentServicesTest, OnePidPerNameAndMinusOneForEmptyUnknownOrDeadAndTheLiveOnesInAll) {
  const int self = getpid(), dead = reapedChildPid();
  registry().setServicePid("alive", self);
  registry().setServicePid("dead", dead);
  registry().setServicePid("gone", self);
  registry().setServicePid("none", -1);
  registry().removeService("gone");

  hidl_vec<int> pids;
  DependentServices().getServicePIDs({"alive", "", "unknown", "dead", "gone", "alive"}, pids);
  EXPECT_EQ(std::vector<int>(pids), (std::vector<int>{self, -1, -1, -1, -1, self}));
  EXPECT_EQ(registry().allPids(), (std::vector<int>{self, dead, -1}));
  std::vector<int> active{12345};
  DependentServices().getAllActiveServicePIDs(active);
  EXPECT_EQ(active, std::vector<int>{self});
}

// A process we may not signal is still alive. Checked from a child that runs
// as another user (when we are root) against this process.
TEST_F(DependentServicesTest, AProcessWeMayNotSignalCountsAsAlive) {
  const int parent = getpid();
  registry().setServicePid("privileged", parent);
  pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 && setuid(65534) != 0) _exit(3);
    if (geteuid() == 0) _exit(4);
    std::vector<int> pids;
    DependentServices().getAllActiveServicePIDs(pids);
    _exit(pids == std::vector<int>{parent} ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
