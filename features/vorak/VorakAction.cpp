#include "VorakAction.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <limits>
#include <string_view>
#include <vector>

#include "DependentServices.h"
#include "FetchPreferredApps.h"
#include "FsRoot.h"
#include "Hidl.h"
#include "StatsProvider.h"
#include "Vorak.pb.h"
#include "VorakAppName.h"
#include "VorakFeature.h"
#include "VorakModelFile.h"
#include "VorakModelInputs.h"
#include "WallClock.h"
#include "kxdb/KxFailFast.h"
#include "kxdb/KxLog.h"

namespace {

// At most one kill pass between two preparation hints, whichever action
// object handles them: set when a launch is acted on, cleared by the next
// preparation hint. The hub delivers both hints on its one thread.
bool sLaunchHandled = false;

std::atomic<VorakAction::PauseFn> sPause{nullptr};
std::atomic<VorakAction::PidfdOpenFn> sPidfdOpen{nullptr};

// Background processes, by the host's kill-priority range (oom_score_adj).
constexpr int kBackgroundMinAdj = 700;
constexpr int kBackgroundMaxAdj = 1000;

// Pause taken before every fifth kill, so that the kernel can reap the
// memory of a burst before the next one.
constexpr int kKillsPerBurst = 4;
constexpr useconds_t kBurstPauseUs = 10000;

// A NUL-terminated text in a fixed-size field, bounded by the field.
std::string fieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

// Through syscall(): C libraries wrap these only in recent versions, while a
// kernel without them answers ENOSYS either way.
int sysPidfdOpen(pid_t pid, unsigned int flags) { return static_cast<int>(syscall(SYS_pidfd_open, pid, flags)); }

int pidfdSendSignal(int fd, int sig) {
  return static_cast<int>(syscall(SYS_pidfd_send_signal, fd, sig, nullptr, 0));
}

// Owns a pidfd, or -1 when there is none (closing -1 is a harmless EBADF).
class PidFd {
 public:
  explicit PidFd(int fd) : mFd(fd) {}
  ~PidFd() { close(mFd); }
  PidFd(const PidFd&) = delete;
  PidFd& operator=(const PidFd&) = delete;
  int get() const { return mFd; }

 private:
  int mFd;
};

struct KillResult {
  enum Outcome { kKilled, kGone, kReplaced, kFailed } outcome;
  int error{};           // errno, for kFailed
  uint64_t startTime{};  // the pid's process now, for kReplaced
};

// SIGKILL to `pid` only while it is the process that was listed: once that
// process has exited, its pid may have been handed to another. The pidfd
// pins the process whose start time is then compared, so no reuse can slip
// in between the check and the signal. Without pidfds (old kernels,
// qemu-user) the check is still made, and only that short gap stays open.
KillResult killIfListed(int pid, uint64_t listedStart) {
  const VorakAction::PidfdOpenFn open = sPidfdOpen.load();
  const PidFd fd(open != nullptr ? open(pid, 0) : sysPidfdOpen(pid, 0));
  if (fd.get() == -1 && errno != ENOSYS) {
    return errno == ESRCH ? KillResult{KillResult::kGone} : KillResult{KillResult::kFailed, errno};
  }
  const std::optional<uint64_t> now = StatsProvider::getPIDStartTime(pid);
  if (!now) return {KillResult::kGone};
  if (*now != listedStart) return {KillResult::kReplaced, {}, *now};
  const int rc = fd.get() != -1 ? pidfdSendSignal(fd.get(), SIGKILL) : kill(pid, SIGKILL);
  return rc == 0 ? KillResult{KillResult::kKilled} : KillResult{KillResult::kFailed, errno};
}

bool byPid(const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; }

// What killing the process frees (KB): its graphics, anonymous-plus-swap
// and file memory, 0 when their sum overflows.
long memoryOf(const PIDStats& p) {
  return static_cast<long>(VorakCheckedArithmetic::checkOverflowAndAdd(p.gpuKB, p.rssAnonSwapKB, p.rssFileKB));
}

std::string_view commOf(const PIDStats& p) { return std::string_view(p.comm, strnlen(p.comm, sizeof(p.comm))); }

// Whether a process name as the kernel keeps it belongs to `app`. Android
// names an app's processes after its package, the others "package:suffix",
// and `comm` keeps at most their last 15 characters: a shorter one is the
// whole name, a cut one shows the tail of the package before any ':'. A
// name cut within its suffix shows no package and is not recognised.
bool namedAfter(std::string_view comm, std::string_view app) {
  constexpr size_t kCommChars = sizeof(PIDStats::comm) - 1;
  const std::string_view package = comm.substr(0, comm.find(':'));
  if (comm.size() < kCommChars) return package == app;
  return !package.empty() && package.size() <= app.size() &&
         app.substr(app.size() - package.size()) == package;
}

// Hands each row named `name` (every row for an empty name) to `onRow` as a
// view, without copying the rows out; returns their number. No limit of
// the caller's: the store's own cap applies. Departs from taking the rows
// with readAllocateDR and freeing them: the query is the same, but the
// launch path only looks at its rows, and a heap object per row was most
// of its cost beyond SQLite's.
template <typename T, typename OnRow>
size_t eachRow(KxDatabase<T>* db, const std::string& name, OnRow&& onRow) {
  if (db == nullptr) return 0;
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  return db->readEachDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE, onRow);
}

template <typename T>
size_t countRows(KxDatabase<T>* db, const std::string& name) {
  return eachRow(db, name, [](KxDBDataRowView<T>&) {});
}

}  // namespace

VorakAction::VorakAction(VorakFeature& feature, float safeload, KxDatabase<_vorak_User_Launched_Data>* userDb,
                         KxDatabase<_vorak_User_Launched_Data>* favPidDb,
                         KxDatabase<_vorak_Favorite_Time_Slot_Data>* favTimeSlotDb,
                         KxDatabase<_vorak_App_Service_Out>* serviceOutDb,
                         KxDatabase<_vorak_User_Launched_Data>* startProcDb)
    : mUserDb(userDb),
      mFavTimeSlotDb(favTimeSlotDb),
      mServiceOutDb(serviceOutDb),
      mFavPidDb(favPidDb),
      mStartProcDb(startProcDb),
      mSafeload(safeload),
      mFeature(feature) {
  try {
    loadModel();
    for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) {
      mInputs[i] = &mFeatures[std::string(kVorakFeatureNames[i])];
    }
    // The map is complete: its iteration order, which the score follows,
    // no longer changes.
    for (auto& [name, f] : mFeatures) {
      if (f.min != f.max) mScored.push_back(&f);
    }

    mActionDb = new (std::nothrow) KxDatabase<_vorak_Feature_Action_Data>(1000, "Vorakaction.db", "Vorak");
    if (mActionDb == nullptr) {
      KXLOGE("VorakAction", "Failed to Create KxDatabase for VorakFeatureActionData.");
    } else {
      const int rc = mActionDb->KxDatabaseInit();
      if (rc != KXDB_SUCCESS) {
        KXLOGE("VorakAction", "Error in DB initialization. %d ", rc);
      }
    }

    MemPerfd* hub = MemPerfd::getInstance();
    hub->registerToPerfHint(this, kLaunchHint, false);
    hub->registerToPerfHint(this, kPreparationHint, false);
  } catch (const std::exception& e) {
    KXLOGE("VorakAction", "Exception caught: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE("VorakAction", "Exception caught in %s", __func__);
  }
}

VorakAction::~VorakAction() {
  // Deregistration waits for a delivery in progress, so nothing below runs
  // under the hub's thread.
  MemPerfd* hub = MemPerfd::getInstance();
  hub->deregisterPerfHint(this, kLaunchHint);
  hub->deregisterPerfHint(this, kPreparationHint);
  delete mActionDb;
  mActionDb = nullptr;
  // The lists and sets go with the object.
}

void VorakAction::loadModel() {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  // The prefix alone, when total memory fits no class, fails to open.
  const std::string fileName =
      std::string(vorak::kModelPrefix) + vorak::modelSuffixFor(StatsProvider::getSysStats().totalKB);
  std::ifstream in(kxhost::devicePath(fileName), std::ios::in | std::ios::binary);
  if (!in.is_open()) {
    KXLOGE("VorakAction", "Fatal! %s: File not found. Error = %s", fileName.c_str(), strerror(errno));
    return;
  }
  VorakModel model;
  if (!model.ParseFromIstream(&in)) {
    KXLOGE("VorakAction", "Failed to parse model from file: %s. Err = %s", fileName.c_str(), strerror(errno));
    return;
  }
  for (const auto& [name, f] : model.features()) {
    MLModelFeature& entry = mFeatures[name];
    entry.min = f.min();
    entry.max = f.max();
    entry.weight = f.weight();
  }
  mBias = model.bias();
}

bool VorakAction::traceOn() const { return mFeature.isTraceVorak(); }

void VorakAction::setPause(PauseFn fn) { sPause.store(fn); }

void VorakAction::setPidfdOpen(PidfdOpenFn fn) { sPidfdOpen.store(fn); }

void VorakAction::clearAllMaps() {
  mBackgroundList.clear();
  mFavoriteList.clear();
  mUserLaunchedList.clear();
  mAppServiceNames.clear();
  mAppServicePids.clear();
  mProtectedPids.clear();
}

void VorakAction::applyAction(const AsyncTriggerPayload& payload) {
  if (payload.hintID == static_cast<int32_t>(kPreparationHint)) {
    generateTaskList();
    sLaunchHandled = false;
    return;
  }
  if (payload.hintID != static_cast<int32_t>(kLaunchHint) || payload.hintType != kLaunchHintType) return;
  // A name that cannot be a package would key no row or every row: such a
  // launch is refused before it can spend the one kill pass. The name is
  // not printed, it may be what breaks the log.
  if (const char* problem = vorak::appNameProblem(payload.appName)) {
    KXLOGW("VorakAction", "Launch hint ignored: invalid app name (%s)", problem);
    return;
  }
  if (sLaunchHandled) return;
  sLaunchHandled = true;
  // The launch must not wait on a table that another thread or process has
  // locked: a read that fails finds no learnt row, and nothing is killed.
  kxdb::FailFastScope failFast;

  // With nothing learnt about the user yet, let the host seed the favourites.
  if (mUserDb != nullptr && mFavTimeSlotDb != nullptr) {
    const size_t users = countRows(mUserDb, std::string());
    const size_t slots = countRows(mFavTimeSlotDb, std::string());
    if (users == 0 && slots == 0) FetchPreferredApps().populateFavoriteApps(mUserDb, mStartProcDb, mFavTimeSlotDb);
  }

  const std::string appName = payload.appName;

  const float amount = decideKill(appName);
  updateAppServices(appName);
  getAllServices();

  float freed = 0;
  if (amount > 0) {
    spareLaunchingApp(appName);
    freed = vorak(amount);
    mSurplus = checkAndDiff(freed, amount);
  } else {
    mSurplus = checkAndDiff(0.0f, amount);
  }
  if (traceOn()) {
    KXLOGE("VorakAction",
           "(appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = (%s ,%d, %f, %f, %f)",
           appName.c_str(), payload.hintID, amount, freed, mSurplus);
  }

  // Services the app will start and that are not in memory yet need room
  // too; what the first pass freed beyond its budget counts towards it.
  float need = 0;
  float freed2 = 0;
  if (amount > 0) {
    const float serviceMemory = getNonRAMServicesMemory(appName);
    const float want = checkAndDiff(serviceMemory, mSurplus);
    if (want > 0) {
      need = want;
      freed2 = vorak(need);
      mSurplus = checkAndDiff(freed2, need);
    }
  }
  if (traceOn()) {
    KXLOGE("VorakAction",
           "(Service - appName,hintID,memoryToGenerate,memoryGenerated, surplusServiceMemory) = (%s ,%d, %f, %f, "
           "%f)",
           appName.c_str(), payload.hintID, need, freed2, mSurplus);
  }
}

void VorakAction::killFrom(CandidateList& list, bool spareProtected, const char* phase, float& remaining,
                           float& freed, int& kills) {
  while (remaining > 0 && !list.empty()) {
    if (kills >= kKillsPerBurst) {
      if (PauseFn pause = sPause.load()) {
        pause(kBurstPauseUs);
      } else {
        usleep(kBurstPauseUs);
      }
      kills = 0;
    }
    // The smallest process that alone covers the rest, else the largest.
    const auto it = list.choose(static_cast<long>(remaining));
    const long memKB = it->first;
    const int pid = it->second;

    // A pid of 0 or below would address a process group, never one process.
    const PIDStats* seen = listed(pid);
    if (pid > 0 && !(spareProtected && mProtectedPids.count(pid) != 0) && seen != nullptr && getpgid(pid) != -1) {
      // Departure from a plain kill after getpgid: the pid must still name
      // the process that was listed (same start time), as it may have been
      // reused since the preparation hint. A mismatch is spared, logged,
      // and frees nothing.
      const KillResult r = killIfListed(pid, seen->startTime);
      if (r.outcome == KillResult::kKilled) {
        if (phase == nullptr) {
          KXLOGE("VorakAction", "Killed PID = %d, to Free Memory = %ld KB", pid, memKB);
        } else {
          KXLOGE("VorakAction", "Killed %s PID = %d, to Free Memory = %ld KB", phase, pid, memKB);
        }
        remaining = checkAndDiff(remaining, static_cast<float>(memKB));
        freed = checkOverflowAndAdd(freed, memKB);
        ++kills;
      } else if (r.outcome == KillResult::kReplaced) {
        KXLOGE("VorakAction", "Spared PID = %d: not the process listed (started at %" PRIu64 ", listed %" PRIu64 ")",
               pid, r.startTime, seen->startTime);
      } else if (r.outcome == KillResult::kFailed && (phase != nullptr || traceOn())) {
        KXLOGE("VorakAction", "Couldnt kill the PID = %d. Error = %s", pid, strerror(r.error));
      }
    }
    list.erase(it);
  }
}

float VorakAction::vorak(float memoryToGenerate) {
  if (!(memoryToGenerate > kMinBudgetKB && memoryToGenerate <= kMaxBudgetKB)) return 0;

  float remaining = memoryToGenerate;
  float freed = 0;
  int kills = 0;
  // Active services are looked for among the background processes only;
  // favourites and user-launched candidates are applications.
  // Each pass stops as soon as nothing remains to free.
  killFrom(mBackgroundList, true, nullptr, remaining, freed, kills);
  killFrom(mFavoriteList, false, "Fav", remaining, freed, kills);
  killFrom(mUserLaunchedList, false, "User", remaining, freed, kills);
  return freed;
}

float VorakAction::decideKill(std::string appName) {
  const bool trace = traceOn();

  // The app's learnt needs, narrowed to 32 bits as the model was fitted on.
  int killsafeANON{};  // both set by the first learnt row, which any use follows
  int killsafeUNRECLAIM{};
  bool first = true;
  const size_t learnt = eachRow(mActionDb, appName, [&](KxDBDataRowView<_vorak_Feature_Action_Data>& row) {
    if (!first) return;
    first = false;
    killsafeANON = static_cast<int32_t>(static_cast<uint32_t>(row.blob().rssSwap));
    killsafeUNRECLAIM = static_cast<int32_t>(static_cast<uint32_t>(row.blob().ionKgsl));
  });
  if (learnt == 0) {
    if (trace) KXLOGE("VorakAction", "No entry in O/P DB for App = (%s)", appName.c_str());
    return 0;
  }

  VorakModelInputs::Values values;
  const float howMuchToKill = VorakModelInputs::compute(StatsProvider::getSysStats(), killsafeANON,
                                                        killsafeUNRECLAIM, mSafeload, values);
  for (size_t i = 0; i < values.size(); ++i) mInputs[i]->value = values[i];

  // Linear score. Every step saturates to 0; -1.0 is the failure value of
  // the float operations, so a result of exactly -1.0 counts as 0 as well.
  float sum = 0;
  for (MLModelFeature* f : mScored) {
    f->normalised = checkAndDiff(f->value, f->min) / checkAndDiff(f->max, f->min);
    const float term = checkOverflowAndMult(f->weight, f->normalised);
    sum = checkOverflowAndAdd(sum, term);
  }
  sum = checkOverflowAndAdd(sum, mBias);
  if (trace) KXLOGE("VorakAction", " Sum of weights = (%f)", sum);

  // The score only chooses the report: a positive budget is acted on
  // whatever the model says.
  const float score = 1.0f / (1.0f + expf(-sum));
  if (howMuchToKill <= 0 && score < 0.5f) {
    if (trace) KXLOGE("VorakAction", "We need not kill here.");
    return 0;
  }
  if (trace) KXLOGE("VorakAction", "(appName,memToGenerate) = (%s, %f)", appName.c_str(), howMuchToKill);
  // Departure from passing on any budget that is not negative: a safeload
  // that is not a number (a damaged model) makes the budget NaN, which is
  // no amount to free, and the launch gets 0.
  return howMuchToKill > 0 ? howMuchToKill : 0;
}

int VorakAction::getWeekdayTimeslot(std::string& slotKey) {
  const time_t now = kxhost::wallTime();
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) {
    KXLOGE("VorakAction",
           "Couldnt get current week_day and tim_slot info. Return empty string to not kill Fav Apps.");
    return -1;
  }
  slotKey += (local.tm_wday >= 1 && local.tm_wday <= 5) ? "week_day_" : "week_end_";
  const int hour = local.tm_hour;
  if (hour >= 4 && hour <= 11) {
    slotKey += "1";
  } else if (hour >= 12 && hour <= 16) {
    slotKey += "2";
  } else if (hour >= 17 && hour <= 20) {
    slotKey += "3";
  } else {
    slotKey += "4";
  }
  return 0;
}

void VorakAction::moveFromBackground(int pid, CandidateList& to) {
  // The first listed entry of the pid, as a multimap keyed by pid would
  // find it; an entry moved once is not moved again.
  const auto it = std::lower_bound(mByPid.begin(), mByPid.end(), std::make_pair(pid, size_t{0}));
  if (it == mByPid.end() || it->first != pid || mMoved[it->second]) return;
  mMoved[it->second] = true;
  mMoves.emplace_back(it->second, &to);
}

void VorakAction::generateTaskList() {
  mBackgroundList.clear();
  mFavoriteList.clear();
  mUserLaunchedList.clear();

  // Killing a process frees about its file, anonymous-plus-swap and
  // graphics memory together. Favourites and user-launched apps are first
  // marked and then taken out, in the order they are found, as entries
  // taken out of a multimap and put into another would be ordered.
  mListed = StatsProvider::getPIDStatsRange(kBackgroundMinAdj, kBackgroundMaxAdj);
  const size_t n = mListed.size();
  mByPid.resize(n);
  for (size_t i = 0; i < n; ++i) mByPid[i] = {mListed[i].pid, i};
  if (!std::is_sorted(mByPid.begin(), mByPid.end())) std::sort(mByPid.begin(), mByPid.end());
  mMoved.assign(n, false);
  mMoves.clear();

  // Favourites of the current slot go last among the background processes.
  std::string slot;
  if (getWeekdayTimeslot(slot) == 0 && mFavTimeSlotDb != nullptr) {
    std::vector<std::string> favorites;
    bool firstRow = true;
    const size_t slots = eachRow(mFavTimeSlotDb, slot, [&](KxDBDataRowView<_vorak_Favorite_Time_Slot_Data>& row) {
      if (!firstRow) return;
      firstRow = false;
      const auto& field = row.blob().favoriteApps;
      std::string_view apps(field, strnlen(field, sizeof(field)));
      while (!apps.empty()) {
        const size_t end = std::min(apps.find('/'), apps.size());
        // An empty name (from "a//b") is no app: as a key it would select
        // every row of the table.
        if (end > 0) favorites.emplace_back(apps.substr(0, end));
        apps.remove_prefix(std::min(end + 1, apps.size()));
      }
    });
    // A slot with several rows is reported and its first row still used:
    // one broken slot should not cost the user every favourite.
    if (slots > 1) {
      KXLOGE("VorakAction", "There is some problem with FavTimeSlotDb as it has > 1 entries for current Time Slot.");
    }

    for (const std::string& app : favorites) {
      int pid{};  // read only when the app has exactly one row, which set it
      const size_t rows =
          eachRow(mFavPidDb, app, [&](KxDBDataRowView<_vorak_User_Launched_Data>& row) { pid = row.blob().value; });
      if (rows == 0) {
        KXLOGE("VorakAction", "The App (%s) entry is missing from FavPID DB", app.c_str());
      } else if (rows > 1) {
        KXLOGE("VorakAction", "There is some problem with App = (%s) as it has > 1 entries in FavPID DB.",
               app.c_str());
      } else {
        moveFromBackground(pid, mFavoriteList);
      }
    }
  }

  // The user-launched list comes from the StartProc table: its pid is the
  // app's own process, recorded when the launch completed, and it is not
  // being rewritten for the very hint that triggers this rebuild, as the
  // User table is (the worker updates it on the same preparation hint).
  eachRow(mStartProcDb, std::string(), [&](KxDBDataRowView<_vorak_User_Launched_Data>& row) {
    moveFromBackground(row.blob().value, mUserLaunchedList);
  });

  mBackgroundList.reserve(n - mMoves.size());
  for (size_t i = 0; i < n; ++i) {
    if (!mMoved[i]) mBackgroundList.add(memoryOf(mListed[i]), mListed[i].pid);
  }
  for (const auto& [i, list] : mMoves) list->add(memoryOf(mListed[i]), mListed[i].pid);
  for (CandidateList* list : {&mBackgroundList, &mFavoriteList, &mUserLaunchedList}) list->sortByMemory();
  if (!std::is_sorted(mListed.begin(), mListed.end(), byPid)) std::sort(mListed.begin(), mListed.end(), byPid);
}

// Departure from the plain kill order: the launching app's own processes (an
// earlier instance, its ":suffix" processes) are never victims, for the first
// pass nor the service pass; killing them turns the warm start the host is
// attempting into a cold one. They are known by the pids the user-launched
// tables hold for the app and by their process names.
void VorakAction::spareLaunchingApp(const std::string& appName) {
  std::vector<int> own;
  for (KxDatabase<_vorak_User_Launched_Data>* db : {mUserDb, mStartProcDb, mFavPidDb}) {
    eachRow(db, appName, [&](KxDBDataRowView<_vorak_User_Launched_Data>& row) { own.push_back(row.blob().value); });
  }
  auto isOwn = [&](int pid) {
    if (std::find(own.begin(), own.end(), pid) != own.end()) return true;
    const PIDStats* seen = listed(pid);
    return seen != nullptr && namedAfter(commOf(*seen), appName);
  };
  for (CandidateList* list : {&mBackgroundList, &mFavoriteList, &mUserLaunchedList}) list->eraseIf(isOwn);
}

const PIDStats* VorakAction::listed(int pid) const {
  const auto it = std::lower_bound(mListed.begin(), mListed.end(), pid,
                                   [](const PIDStats& p, int wanted) { return p.pid < wanted; });
  return it != mListed.end() && it->pid == pid ? &*it : nullptr;
}

void VorakAction::getAllServices() {
  std::vector<int> pids;
  DependentServices().getAllActiveServicePIDs(pids);
  mProtectedPids.clear();
  mProtectedPids.insert(pids.begin(), pids.end());
}

void VorakAction::updateAppServices(const std::string& appName) {
  try {
    mAppServicePids.clear();
    mAppServiceNames.clear();

    std::vector<hidl_string> names;
    eachRow(mServiceOutDb, appName, [&](KxDBDataRowView<_vorak_App_Service_Out>& row) {
      for (const auto& slot : row.blob().serviceNames) {
        std::string name = fieldText(slot, sizeof(slot));
        if (name.empty()) continue;
        if (mAppServiceNames.insert(name).second) names.emplace_back(name);
      }
    });

    hidl_vec<int> pids;
    DependentServices().getServicePIDs(hidl_vec<hidl_string>(names), pids);
    const bool trace = traceOn();
    for (size_t i = 0; i < pids.size(); ++i) {
      // -1 stands for a service that is not running.
      if (pids[i] <= 0) continue;
      mAppServicePids.insert(pids[i]);
      if (trace) {
        KXLOGE("VorakAction", "AppName = %s, service Name = %s service PID = %d", appName.c_str(),
               i < names.size() ? names[i].c_str() : "", pids[i]);
      }
    }
    if (trace) {
      KXLOGE("VorakAction", "inRAMServiceSet size for AppName = %s is %u", appName.c_str(),
             static_cast<unsigned>(mAppServicePids.size()));
    }
  } catch (const std::exception& e) {
    KXLOGE("VorakAction", "Exception caught: %s in %s", e.what(), __func__);
  } catch (...) {
    KXLOGE("VorakAction", "Exception caught in %s", __func__);
  }
}

float VorakAction::getNonRAMServicesMemory(const std::string& appName) {
  float sum = 0;
  eachRow(mServiceOutDb, appName, [&](KxDBDataRowView<_vorak_App_Service_Out>& row) {
    for (const auto& slot : row.blob().serviceNames) {
      const std::string name = fieldText(slot, sizeof(slot));
      if (name.empty() || mAppServiceNames.count(name) != 0) continue;
      // A service's anonymous-plus-swap figure is what its process will take
      // once started; its graphics memory is negligible.
      bool first = true;
      eachRow(mActionDb, name, [&](KxDBDataRowView<_vorak_Feature_Action_Data>& learnt) {
        if (first) sum = checkOverflowAndAdd(sum, static_cast<int64_t>(learnt.blob().rssSwap));
        first = false;
      });
    }
  });
  return sum;
}
