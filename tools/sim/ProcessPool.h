// The simulator's processes: every application and service of the simulated
// device is a real sleeping child, so that the plug-in's kill(pid, 9) lands
// on a real process. Only these children are ever signalled.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vsim {

struct Death {
  pid_t pid;
  std::string name;
  int signal;  // 0 when the child exited on its own
};

class ProcessPool {
 public:
  ProcessPool();
  // Stops and reaps every child.
  ~ProcessPool();
  ProcessPool(const ProcessPool&) = delete;
  ProcessPool& operator=(const ProcessPool&) = delete;

  // Starts a sleeping child named `name` (shown by ps); throws std::runtime_error when fork fails.
  pid_t spawn(const std::string& name);
  // True for a child of this pool that has not been seen to die.
  bool owns(pid_t pid) const;
  std::string nameOf(pid_t pid) const;
  // SIGKILL to a live child of this pool; false (and nothing sent) for any other pid.
  bool kill(pid_t pid);
  // Children that died since the last call. They are not reaped yet, so their
  // pids cannot be reused by another process while the plug-in may still hold
  // them in a candidate list.
  std::vector<Death> collectDeaths();
  // Blocks until `pid`, a child of this pool, has died (it is then collected
  // like collectDeaths() would); nullopt for any other pid.
  std::optional<Death> awaitDeath(pid_t pid);
  // Reaps the children collected dead; returns how many.
  size_t reap();
  // Kills and reaps every child.
  void stopAll();
  size_t liveCount() const;
  std::vector<pid_t> livePids() const;

 private:
  enum class State { Live, Dead };
  struct Child {
    std::string name;
    State state;
  };
  const pid_t mSelf;
  // Guards mChildren: the plug-in's threads ask owns() through the statistics source.
  mutable std::mutex mMutex;
  std::map<pid_t, Child> mChildren;
};

}  // namespace vsim
