#include "ProcessPool.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vsim {

ProcessPool::ProcessPool() : mSelf(getpid()) {}

ProcessPool::~ProcessPool() { stopAll(); }

pid_t ProcessPool::spawn(const std::string& name) {
  // The kernel keeps 15 characters of a process name; keep the distinctive end.
  char comm[16] = {};
  const std::string shown = name.size() > 15 ? name.substr(name.size() - 15) : name;
  std::memcpy(comm, shown.data(), shown.size());

  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("cannot start a process for ") + name + ": " + std::strerror(errno));
  if (pid == 0) {
    // The simulator has threads: only async-signal-safe calls from here on.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != mSelf) _exit(0);  // the simulator died before the line above
    prctl(PR_SET_NAME, comm);
    struct sigaction ign {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ign, nullptr);  // an interrupt is for the simulator, which stops its children
    sigaction(SIGQUIT, &ign, nullptr);
    for (;;) pause();
  }
  std::lock_guard<std::mutex> lock(mMutex);
  mChildren[pid] = Child{name, State::Live};
  return pid;
}

bool ProcessPool::owns(pid_t pid) const {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mChildren.find(pid);
  return it != mChildren.end() && it->second.state == State::Live;
}

std::string ProcessPool::nameOf(pid_t pid) const {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mChildren.find(pid);
  return it == mChildren.end() ? std::string() : it->second.name;
}

bool ProcessPool::kill(pid_t pid) {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mChildren.find(pid);
  if (pid <= 0 || it == mChildren.end() || it->second.state != State::Live) return false;
  return ::kill(pid, SIGKILL) == 0;
}

std::vector<Death> ProcessPool::collectDeaths() {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Death> deaths;
  for (auto& [pid, child] : mChildren) {
    if (child.state != State::Live) continue;
    siginfo_t info{};
    // WNOWAIT leaves the child a zombie: its pid stays ours until reap().
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid) {
      child.state = State::Dead;
      deaths.push_back({pid, child.name, info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED ? info.si_status : 0});
    }
  }
  return deaths;
}

std::optional<Death> ProcessPool::awaitDeath(pid_t pid) {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mChildren.find(pid);
  if (pid <= 0 || it == mChildren.end() || it->second.state != State::Live) return std::nullopt;
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
  }
  it->second.state = State::Dead;
  return Death{pid, it->second.name, info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED ? info.si_status : 0};
}

size_t ProcessPool::reap() {
  std::lock_guard<std::mutex> lock(mMutex);
  size_t n = 0;
  for (auto it = mChildren.begin(); it != mChildren.end();) {
    if (it->second.state == State::Dead) {
      int status;
      while (waitpid(it->first, &status, 0) < 0 && errno == EINTR) {
      }
      it = mChildren.erase(it);
      ++n;
    } else {
      ++it;
    }
  }
  return n;
}

void ProcessPool::stopAll() {
  std::lock_guard<std::mutex> lock(mMutex);
  for (auto& [pid, child] : mChildren)
    if (child.state == State::Live) ::kill(pid, SIGKILL);
  for (auto& [pid, child] : mChildren) {
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  mChildren.clear();
}

size_t ProcessPool::liveCount() const {
  std::lock_guard<std::mutex> lock(mMutex);
  size_t n = 0;
  for (const auto& [pid, child] : mChildren) n += child.state == State::Live;
  return n;
}

std::vector<pid_t> ProcessPool::livePids() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<pid_t> pids;
  for (const auto& [pid, child] : mChildren)
    if (child.state == State::Live) pids.push_back(pid);
  return pids;
}

}  // namespace vsim
