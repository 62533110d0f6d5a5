// Child processes that only sleep: live pids for tests that need processes
// of their own (services, launched applications). Each one is killed and
// reaped when the set is destroyed, and dies with the test if it crashes.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace kxtest {

class Sleepers {
 public:
  Sleepers() = default;
  ~Sleepers() {
    for (pid_t pid : mPids) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

  // Ends a sleeper of the set with SIGTERM and reaps it: the signal that
  // ended it (SIGKILL when another had killed it first), -1 for a pid not
  // of the set or already ended.
  int end(pid_t pid) {
    const auto it = std::find(mPids.begin(), mPids.end(), pid);
    if (it == mPids.end()) return -1;
    mPids.erase(it);
    kill(pid, SIGTERM);
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFSIGNALED(status) ? WTERMSIG(status) : -1;
  }

  pid_t start() {
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    }
    mPids.push_back(pid);
    return pid;
  }

 private:
  std::vector<pid_t> mPids;
};

}  // namespace kxtest
