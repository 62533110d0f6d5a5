// The raw twin of the kill action's two hints: the same statements on the
// same tables through SQLite's C interface, the same statistics calls, the
// same model arithmetic and the same system calls per kill (the identity
// check included), with the candidate lists in plain sorted vectors and no
// row ever copied out of a statement.
#pragma once

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "AndroidLog.h"
#include "DependentServices.h"
#include "Hidl.h"
#include "MemPerfd.h"
#include "RawProcStats.h"
#include "StatsProvider.h"
#include "VorakAppName.h"
#include "VorakCheckedArithmetic.h"
#include "VorakModelInputs.h"
#include "WallClock.h"
#include "kxdb/VorakRecords.h"

namespace kxbench {

class RawLaunch : public Action, private VorakCheckedArithmetic {
 public:
  // Hint identifiers of the twin on the reference host's hub, apart from
  // the action's own.
  static constexpr int kPrepareHint = 0x7a01;
  static constexpr int kLaunchHint = 0x7a02;

  struct Tables {
    sqlite3* user;
    sqlite3* favPid;
    sqlite3* startProc;
    sqlite3* favSlot;
    sqlite3* action;
    sqlite3* serviceOut;
  };
  // One entry of the score, in the order the action walks its model.
  struct Term {
    float min, max, weight;
    int input;  // index into VorakModelInputs::Values, -1 for a value of 0
  };
  // Where statistics come from: the host's StatsProvider, or, for
  // `procSys` and `procStart`, the files read directly.
  struct Stats {
    const RawProcStats* procSys = nullptr;
    const char* procStart = nullptr;  // proc root for start times
  };

  RawLaunch(Tables tables, float safeload, std::vector<Term> terms, float bias)
      : mDb(tables), mSafeload(safeload), mTerms(std::move(terms)), mBias(bias) {}

  void setStats(Stats stats) { mStats = stats; }

  void applyAction(const AsyncTriggerPayload& p) override {
    if (p.hintID == kPrepareHint) prepare();
    if (p.hintID == kLaunchHint) launch(p.appName);
  }

  void prepare() {
    mListed = StatsProvider::getPIDStatsRange(700, 1000);
    const size_t n = mListed.size();
    mByPid.clear();
    for (size_t i = 0; i < n; ++i) mByPid.emplace_back(mListed[i].pid, i);
    if (!std::is_sorted(mByPid.begin(), mByPid.end())) std::sort(mByPid.begin(), mByPid.end());
    mMoved.assign(n, 0);
    mMoves.clear();

    char slot[16];
    if (slotKey(slot)) {
      char apps[sizeof(_vorak_Favorite_Time_Slot_Data) + 1] = "";
      char sql[kSqlSize];
      const int slots = select(mDb.favSlot, byName(sql, slot), [&](sqlite3_stmt* s, int row) {
        if (row == 0) copyBlob(s, apps, sizeof(_vorak_Favorite_Time_Slot_Data));
      });
      if (slots > 1) log("generateTaskList", "There is some problem with FavTimeSlotDb as it has > 1 entries for current Time Slot.");
      for (char* app = std::strtok(apps, "/"); app != nullptr; app = std::strtok(nullptr, "/")) {
        int pid = 0;
        const int rows = select(mDb.favPid, byName(sql, app), [&](sqlite3_stmt* s, int) { pid = intBlob(s); });
        if (rows == 0) log("generateTaskList", "The App (%s) entry is missing from FavPID DB", app);
        else if (rows > 1) log("generateTaskList", "There is some problem with App = (%s) as it has > 1 entries in FavPID DB.", app);
        else move(pid, 1);
      }
    }
    select(mDb.startProc, "SELECT *, rowid FROM Vorak ", [&](sqlite3_stmt* s, int) { move(intBlob(s), 2); });

    for (auto& list : mLists) list.clear();
    mLists[0].reserve(n);
    for (size_t i = 0; i < n; ++i)
      if (mMoved[i] == 0) mLists[0].emplace_back(memoryOf(mListed[i]), mListed[i].pid);
    for (const auto& [i, list] : mMoves) mLists[list].emplace_back(memoryOf(mListed[i]), mListed[i].pid);
    for (auto& list : mLists)
      std::stable_sort(list.begin(), list.end(), [](const Cand& a, const Cand& b) { return a.first < b.first; });
    if (!std::is_sorted(mListed.begin(), mListed.end(), byPid)) std::sort(mListed.begin(), mListed.end(), byPid);
    mArmed = true;
  }

  void launch(const std::string& app) {
    if (vorak::appNameProblem(app) != nullptr || !mArmed) return;
    mArmed = false;
    // The benchmark's tables always hold users, so the host is never asked
    // to seed the favourites.
    const int users = select(mDb.user, "SELECT *, rowid FROM Vorak ", [](sqlite3_stmt*, int) {});
    const int slots = select(mDb.favSlot, "SELECT *, rowid FROM Vorak ", [](sqlite3_stmt*, int) {});
    benchmark::DoNotOptimize(users + slots);

    const float amount = decide(app);
    appServices(app);
    std::vector<int> active;
    DependentServices().getAllActiveServicePIDs(active);
    mProtected.assign(active.begin(), active.end());
    std::sort(mProtected.begin(), mProtected.end());

    float freed = 0;
    float surplus;
    if (amount > 0) {
      spare(app);
      freed = kill(amount);
      surplus = checkAndDiff(freed, amount);
    } else {
      surplus = checkAndDiff(0.0f, amount);
    }
    if (amount > 0) {
      const float need = checkAndDiff(servicesMemory(app), surplus);
      if (need > 0) kill(need);
    }
  }

  const std::vector<std::pair<long, int>>& list(int i) const { return mLists[i]; }

 private:
  using Cand = std::pair<long, int>;
  static constexpr size_t kSqlSize = 640;

  template <typename OnRow>
  static int select(sqlite3* db, const char* sql, OnRow onRow) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) return 0;
    int rows = 0;
    for (; rows < 10000 && sqlite3_step(stmt) == SQLITE_ROW; ++rows) onRow(stmt, rows);
    if (rows < 10000) sqlite3_reset(stmt);
    sqlite3_finalize(stmt);
    return rows;
  }
  static const char* byName(char (&sql)[kSqlSize], const char* name) {
    std::snprintf(sql, sizeof sql, "SELECT *, rowid FROM Vorak WHERE (appName) = ('%s') ", name);
    return sql;
  }
  static void copyBlob(sqlite3_stmt* s, void* out, size_t size) {
    const void* blob = sqlite3_column_blob(s, 3);
    const size_t stored = static_cast<size_t>(sqlite3_column_bytes(s, 3));
    std::memcpy(out, blob, std::min(size, stored));
  }
  static int intBlob(sqlite3_stmt* s) {
    _vorak_User_Launched_Data d{};
    copyBlob(s, &d, sizeof d);
    return d.value;
  }
  template <typename... Args>
  static void log(const char* function, const char* fmt, Args... args) {
    char line[512];
    std::snprintf(line, sizeof line, fmt, args...);
    __android_log_print(ANDROID_LOG_ERROR, "ANDR-PERF-KX", "%s: %s() %d: %s", "VorakAction", function, __LINE__, line);
  }
  static bool byPid(const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; }
  static long memoryOf(const PIDStats& p) {
    return static_cast<long>(checkOverflowAndAdd(p.gpuKB, p.rssAnonSwapKB, p.rssFileKB));
  }

  static bool slotKey(char (&key)[16]) {
    const time_t now = kxhost::wallTime();
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) return false;
    const int h = local.tm_hour;
    const int slot = h >= 4 && h <= 11 ? 1 : h >= 12 && h <= 16 ? 2 : h >= 17 && h <= 20 ? 3 : 4;
    std::snprintf(key, sizeof key, "%s%d", local.tm_wday >= 1 && local.tm_wday <= 5 ? "week_day_" : "week_end_", slot);
    return true;
  }

  void move(int pid, int list) {
    const auto it = std::lower_bound(mByPid.begin(), mByPid.end(), std::make_pair(pid, size_t{0}));
    if (it == mByPid.end() || it->first != pid || mMoved[it->second] != 0) return;
    mMoved[it->second] = 1;
    mMoves.emplace_back(it->second, list);
  }

  const PIDStats* listed(int pid) const {
    const auto it = std::lower_bound(mListed.begin(), mListed.end(), pid,
                                     [](const PIDStats& p, int wanted) { return p.pid < wanted; });
    return it != mListed.end() && it->pid == pid ? &*it : nullptr;
  }

  float decide(const std::string& app) {
    char sql[kSqlSize];
    _vorak_Feature_Action_Data learnt{};
    if (select(mDb.action, byName(sql, app.c_str()), [&](sqlite3_stmt* s, int row) {
          if (row == 0) copyBlob(s, &learnt, sizeof learnt);
        }) == 0)
      return 0;
    const SysStats s = mStats.procSys != nullptr ? mStats.procSys->sysStats() : StatsProvider::getSysStats();
    VorakModelInputs::Values values;
    const float howMuchToKill =
        VorakModelInputs::compute(s, static_cast<int32_t>(static_cast<uint32_t>(learnt.rssSwap)),
                                  static_cast<int32_t>(static_cast<uint32_t>(learnt.ionKgsl)), mSafeload, values);
    float sum = 0;
    for (const Term& t : mTerms) {
      const float value = t.input >= 0 ? values[static_cast<size_t>(t.input)] : 0.0f;
      sum = checkOverflowAndAdd(sum, checkOverflowAndMult(t.weight, checkAndDiff(value, t.min) / checkAndDiff(t.max, t.min)));
    }
    sum = checkOverflowAndAdd(sum, mBias);
    const float score = 1.0f / (1.0f + expf(-sum));
    benchmark::DoNotOptimize(score);
    return howMuchToKill <= 0 ? 0 : howMuchToKill;
  }

  void appServices(const std::string& app) {
    mServiceNames.clear();
    char sql[kSqlSize];
    select(mDb.serviceOut, byName(sql, app.c_str()), [&](sqlite3_stmt* s, int) {
      _vorak_App_Service_Out out;
      copyBlob(s, &out, sizeof out);
      for (const auto& slot : out.serviceNames) {
        std::string name(slot, strnlen(slot, sizeof slot));
        if (!name.empty() && std::find(mServiceNames.begin(), mServiceNames.end(), name) == mServiceNames.end())
          mServiceNames.push_back(std::move(name));
      }
    });
    std::vector<hidl_string> names(mServiceNames.begin(), mServiceNames.end());
    hidl_vec<int> pids;
    DependentServices().getServicePIDs(hidl_vec<hidl_string>(names), pids);
    mServicePids.clear();
    for (size_t i = 0; i < pids.size(); ++i)
      if (pids[i] > 0) mServicePids.push_back(pids[i]);
  }

  float servicesMemory(const std::string& app) {
    float sum = 0;
    char sql[kSqlSize];
    char learntSql[kSqlSize];
    select(mDb.serviceOut, byName(sql, app.c_str()), [&](sqlite3_stmt* s, int) {
      _vorak_App_Service_Out out;
      copyBlob(s, &out, sizeof out);
      for (const auto& slot : out.serviceNames) {
        const std::string name(slot, strnlen(slot, sizeof slot));
        if (name.empty() || std::find(mServiceNames.begin(), mServiceNames.end(), name) != mServiceNames.end()) continue;
        select(mDb.action, byName(learntSql, name.c_str()), [&](sqlite3_stmt* l, int row) {
          _vorak_Feature_Action_Data learnt;
          copyBlob(l, &learnt, sizeof learnt);
          if (row == 0) sum = checkOverflowAndAdd(sum, static_cast<int64_t>(learnt.rssSwap));
        });
      }
    });
    return sum;
  }

  // Known by the pids the user tables hold for the app and by process name.
  void spare(const std::string& app) {
    std::vector<int> own;
    char sql[kSqlSize];
    byName(sql, app.c_str());
    for (sqlite3* db : {mDb.user, mDb.startProc, mDb.favPid})
      select(db, sql, [&](sqlite3_stmt* s, int) { own.push_back(intBlob(s)); });
    const std::string_view name(app);
    auto isOwn = [&](const Cand& c) {
      if (std::find(own.begin(), own.end(), c.second) != own.end()) return true;
      const PIDStats* p = listed(c.second);
      if (p == nullptr) return false;
      const std::string_view comm(p->comm, strnlen(p->comm, sizeof p->comm));
      const std::string_view package = comm.substr(0, comm.find(':'));
      if (comm.size() < sizeof p->comm - 1) return package == name;
      return !package.empty() && package.size() <= name.size() && name.substr(name.size() - package.size()) == package;
    };
    for (auto& list : mLists) list.erase(std::remove_if(list.begin(), list.end(), isOwn), list.end());
  }

  float kill(float amount) {
    if (!(amount > 20480.0f && amount <= 614400.0f)) return 0;
    float remaining = amount;
    float freed = 0;
    int kills = 0;
    for (int i = 0; i < 3 && (i == 0 || remaining > 0); ++i) {
      auto& list = mLists[i];
      while (remaining > 0 && !list.empty()) {
        if (kills >= 4) {
          usleep(10000);
          kills = 0;
        }
        auto it = std::lower_bound(list.begin(), list.end(), static_cast<long>(remaining),
                                   [](const Cand& c, long wanted) { return c.first < wanted; });
        if (it == list.end()) --it;
        const long memKB = it->first;
        const int pid = it->second;
        const PIDStats* seen = listed(pid);
        const bool isProtected = i == 0 && std::binary_search(mProtected.begin(), mProtected.end(), pid);
        if (pid > 0 && !isProtected && seen != nullptr && getpgid(pid) != -1 && killListed(pid, seen->startTime)) {
          if (i == 0) log("killFrom", "Killed PID = %d, to Free Memory = %ld KB", pid, memKB);
          else log("killFrom", "Killed %s PID = %d, to Free Memory = %ld KB", i == 1 ? "Fav" : "User", pid, memKB);
          remaining = checkAndDiff(remaining, static_cast<float>(memKB));
          freed = checkOverflowAndAdd(freed, memKB);
          ++kills;
        }
        list.erase(it);
      }
    }
    return freed;
  }

  bool killListed(int pid, uint64_t listedStart) const {
    // Without pidfds (old kernels, emulators) the check is still made and
    // the signal sent by pid, as the action does.
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0 && errno != ENOSYS) return false;
    uint64_t now = 0;
    bool same;
    if (mStats.procStart != nullptr) {
      same = RawProcStats::startTime(mStats.procStart, pid, &now) && now == listedStart;
    } else {
      const auto started = StatsProvider::getPIDStartTime(pid);
      same = started && *started == listedStart;
    }
    if (!same) return false;
    const bool killed = (fd >= 0 ? syscall(SYS_pidfd_send_signal, fd, SIGKILL, nullptr, 0) : ::kill(pid, SIGKILL)) == 0;
    if (fd >= 0) close(fd);
    return killed;
  }

  Tables mDb;
  float mSafeload;
  std::vector<Term> mTerms;
  float mBias;
  Stats mStats;
  bool mArmed = false;
  std::vector<PIDStats> mListed;
  std::vector<std::pair<int, size_t>> mByPid;
  std::vector<char> mMoved;
  std::vector<std::pair<size_t, int>> mMoves;
  std::vector<Cand> mLists[3];  // background, favourite, user-launched
  std::vector<std::string> mServiceNames;
  std::vector<int> mServicePids;
  std::vector<int> mProtected;
};

}  // namespace kxbench
