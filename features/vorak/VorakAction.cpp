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
#include <sstream>
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
#include "WallClock.h"
#include "kxdb/KxFailFast.h"
#include "kxdb/KxLog.h"

namespace {

constexpr const char* kModelPrefix = "/vendor/etc/kx/vorak/vorak_";

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

// Model file of the device's memory class; the prefix alone when total
// memory fits no class, which then fails to open.
std::string modelFileName(uint64_t totalKB) {
  std::string name = kModelPrefix;
  if (totalKB > 1048576 && totalKB <= 2097152) {
    name += "2GB.data";
  } else if (totalKB > 2097152 && totalKB <= 4194304) {
    name += "4GB.data";
  } else if (totalKB > 4194304 && totalKB <= 8388608) {
    name += "6GB.data";
  }
  return name;
}

constexpr size_t input(std::string_view name) {
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) {
    if (kVorakFeatureNames[i] == name) return i;
  }
  return kVorakFeatureNames.size();
}

// Index of a model input, checked at compile time.
#define VORAK_INPUT(name)                                                      \
  ([] {                                                                        \
    constexpr size_t i = input(name);                                          \
    static_assert(i < kVorakFeatureNames.size(), "unknown model input " name); \
    return i;                                                                  \
  }())

// A float figure as a whole number, truncated toward zero. Out-of-range
// values saturate and NaN gives 0, as the target's conversion does, instead
// of being undefined.
int toInt(float v) {
  if (v != v) return 0;
  if (v <= -2147483648.0f) return std::numeric_limits<int>::min();
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  return static_cast<int>(v);
}

// A NUL-terminated text in a fixed-size field, bounded by the field.
std::string fieldText(const char* field, size_t size) { return std::string(field, strnlen(field, size)); }

// Through syscall(): C libraries wrap these only in recent versions, while a
// kernel without them answers ENOSYS either way.
int sysPidfdOpen(pid_t pid, unsigned int flags) { return static_cast<int>(syscall(SYS_pidfd_open, pid, flags)); }

int pidfdSendSignal(int fd, int sig) {
  return static_cast<int>(syscall(SYS_pidfd_send_signal, fd, sig, nullptr, 0));
}

// Owns a pidfd; a negative one holds nothing.
class PidFd {
 public:
  explicit PidFd(int fd) : mFd(fd) {}
  ~PidFd() {
    if (mFd >= 0) close(mFd);
  }
  PidFd(const PidFd&) = delete;
  PidFd& operator=(const PidFd&) = delete;
  int get() const { return mFd; }

 private:
  int mFd;
};

struct KillResult {
  enum Outcome { kKilled, kGone, kReplaced, kFailed } outcome;
  int error = 0;           // errno, for kFailed
  uint64_t startTime = 0;  // the pid's process now, for kReplaced
};

// SIGKILL to `pid` only while it is the process that was listed: once that
// process has exited, its pid may have been handed to another. The pidfd
// pins the process whose start time is then compared, so no reuse can slip
// in between the check and the signal. Without pidfds (old kernels,
// qemu-user) the check is still made, and only that short gap stays open.
KillResult killIfListed(int pid, uint64_t listedStart) {
  const VorakAction::PidfdOpenFn open = sPidfdOpen.load();
  const PidFd fd(open != nullptr ? open(pid, 0) : sysPidfdOpen(pid, 0));
  if (fd.get() < 0 && errno != ENOSYS) {
    return errno == ESRCH ? KillResult{KillResult::kGone} : KillResult{KillResult::kFailed, errno};
  }
  const std::optional<uint64_t> now = StatsProvider::getPIDStartTime(pid);
  if (!now) return {KillResult::kGone};
  if (*now != listedStart) return {KillResult::kReplaced, 0, *now};
  const int rc = fd.get() >= 0 ? pidfdSendSignal(fd.get(), SIGKILL) : kill(pid, SIGKILL);
  return rc == 0 ? KillResult{KillResult::kKilled} : KillResult{KillResult::kFailed, errno};
}

bool byPid(const PIDStats& a, const PIDStats& b) { return a.pid < b.pid; }

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

template <typename T>
void release(KxDatabase<T>* db, typename KxDBDataTable<T>::vecT& rows) {
  if (db != nullptr) {
    db->deallocateDR(rows);
  }
}

// Rows named `name` (every row for an empty name); a limit of 0 means the
// store's own cap.
template <typename T>
typename KxDBDataTable<T>::vecT readRows(KxDatabase<T>* db, const std::string& name) {
  if (db == nullptr) return {};
  KxDBDataRowKey key(name, KXDB_INTCOL_UNSET);
  return db->readAllocateDR(key, 0, KXDB_ORDER_BY_NONE, KXDB_DIR_NONE);
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
  clearAllMaps();
}

void VorakAction::loadModel() {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  const std::string fileName = modelFileName(StatsProvider::getSysStats().totalKB);
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
    auto users = readRows(mUserDb, std::string());
    auto slots = readRows(mFavTimeSlotDb, std::string());
    if (users.empty() && slots.empty())
      FetchPreferredApps().populateFavoriteApps(mUserDb, mStartProcDb, mFavTimeSlotDb);
    release(mUserDb, users);
    release(mFavTimeSlotDb, slots);
  }

  mSurplus = 0;
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
    auto it = list.lower_bound(static_cast<long>(remaining));
    if (it == list.end()) it = std::prev(it);
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
  killFrom(mBackgroundList, true, nullptr, remaining, freed, kills);
  if (remaining > 0) {
    killFrom(mFavoriteList, false, "Fav", remaining, freed, kills);
    killFrom(mUserLaunchedList, false, "User", remaining, freed, kills);
  }
  return freed;
}

float VorakAction::decideKill(std::string appName) {
  const bool trace = traceOn();

  // The app's learnt needs, narrowed to 32 bits as the model was fitted on.
  int killsafeANON = 0;
  int killsafeUNRECLAIM = 0;
  {
    auto rows = readRows(mActionDb, appName);
    if (rows.empty() || rows.front() == nullptr) {
      release(mActionDb, rows);
      if (trace) KXLOGE("VorakAction", "No entry in O/P DB for App = (%s)", appName.c_str());
      return 0;
    }
    killsafeANON = static_cast<int32_t>(static_cast<uint32_t>(rows.front()->blob.rssSwap));
    killsafeUNRECLAIM = static_cast<int32_t>(static_cast<uint32_t>(rows.front()->blob.ionKgsl));
    release(mActionDb, rows);
  }

  const SysStats s = StatsProvider::getSysStats();

  const int freeKB = checkOverflowAndAdd(s.dmaFreeKB, s.normalFreeKB, s.movableFreeKB, s.highMemFreeKB);
  const int file = checkOverflowAndAdd(s.dmaActiveFileKB, s.dmaInactiveFileKB, s.normalActiveFileKB,
                                       s.normalInactiveFileKB, s.movableActiveFileKB, s.movableInactiveFileKB,
                                       s.highMemActiveFileKB, s.highMemInactiveFileKB);
  const int anon = checkOverflowAndAdd(s.dmaActiveAnonKB, s.dmaInactiveAnonKB, s.normalActiveAnonKB,
                                       s.normalInactiveAnonKB, s.movableActiveAnonKB, s.movableInactiveAnonKB,
                                       s.highMemActiveAnonKB, s.highMemInactiveAnonKB);
  const int pageCache = toInt(checkAndDiff(file, checkOverflowAndAdd(s.swapCachedKB, s.buffersKB)));
  const int cachedKB = toInt(checkAndDiff(pageCache, s.shmemKB));
  const int accounted = checkOverflowAndAdd(
      checkOverflowAndAdd(freeKB, pageCache, anon),
      checkOverflowAndAdd(s.swapCachedKB, s.buffersKB, s.pageTablesKB, s.kernelStackKB, s.sUnreclaimKB,
                          s.sReclaimableKB, s.zramUsedKB, s.unreclaimableKB, s.reclaimableKB));
  const int other = toInt(checkAndDiff(s.totalKB, accounted));
  const int load =
      checkOverflowAndAdd(anon, other, s.sReclaimableKB, s.sUnreclaimKB, s.zramUsedKB, s.unreclaimableKB);
  const int mload = checkOverflowAndAdd(anon, s.zramUsedKB);
  const int nmload = checkOverflowAndAdd(s.sUnreclaimKB, s.unreclaimableKB, s.sReclaimableKB, other);
  const int available = checkOverflowAndAdd(
      freeKB, checkOverflowAndAdd(s.sReclaimableKB, s.reclaimableKB, s.buffersKB), cachedKB);
  const int aPlusL = checkOverflowAndAdd(available, load);
  const int newLoad = checkOverflowAndAdd(killsafeANON, killsafeUNRECLAIM);
  const float freeAfter = checkAndDiff(available, newLoad);
  const int compressable = checkOverflowAndAdd(anon, s.mappedKB);
  // KB to 4-KB pages.
  const float activeFile = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaActiveFileKB, s.normalActiveFileKB, s.movableActiveFileKB,
                                             s.highMemActiveFileKB)),
      0.25);
  const float activeAnon = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaActiveAnonKB, s.normalActiveAnonKB, s.movableActiveAnonKB,
                                             s.highMemActiveAnonKB)),
      0.25);
  const float inactiveFile = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaInactiveFileKB, s.normalInactiveFileKB,
                                             s.movableInactiveFileKB, s.highMemInactiveFileKB)),
      0.25);
  const float inactiveAnon = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaInactiveAnonKB, s.normalInactiveAnonKB,
                                             s.movableInactiveAnonKB, s.highMemInactiveAnonKB)),
      0.25);

  auto set = [this](size_t i, float v) { mInputs[i]->value = v; };
  set(VORAK_INPUT("FreeKB"), freeKB);
  set(VORAK_INPUT("CachedKB"), cachedKB);
  set(VORAK_INPUT("BuffersKB"), s.buffersKB);
  set(VORAK_INPUT("SReclaimKB"), s.sReclaimableKB);
  set(VORAK_INPUT("SlabKB"), checkOverflowAndAdd(s.sReclaimableKB, s.sUnreclaimKB));
  set(VORAK_INPUT("ZUsedKB"), s.zramUsedKB);
  set(VORAK_INPUT("UnReclaimableKB"), s.unreclaimableKB);
  set(VORAK_INPUT("ReclaimableKB"), s.reclaimableKB);
  set(VORAK_INPUT("ZOrigKB"), s.zramOrigKB);
  set(VORAK_INPUT("TotalAnonPages"), anon / 4);
  set(VORAK_INPUT("nrFreeCMAPages"), s.freeCmaKB >> 2);
  set(VORAK_INPUT("MappedFileKB"), s.mappedKB);
  set(VORAK_INPUT("highMem_nr_free_pages"), s.highMemFreeKB >> 2);
  set(VORAK_INPUT("highMem_nr_inactive_anon"), s.highMemInactiveAnonKB >> 2);
  set(VORAK_INPUT("highMem_nr_active_anon"), s.highMemActiveAnonKB >> 2);
  set(VORAK_INPUT("highMem_nr_inactive_file"), s.highMemInactiveFileKB >> 2);
  set(VORAK_INPUT("highMem_nr_active_file"), s.highMemActiveFileKB >> 2);
  set(VORAK_INPUT("dma_nr_free_pages"), s.dmaFreeKB >> 2);
  set(VORAK_INPUT("dma_nr_inactive_anon"), s.dmaInactiveAnonKB >> 2);
  set(VORAK_INPUT("dma_nr_active_anon"), s.dmaActiveAnonKB >> 2);
  set(VORAK_INPUT("dma_nr_inactive_file"), s.dmaInactiveFileKB >> 2);
  set(VORAK_INPUT("dma_nr_active_file"), s.dmaActiveFileKB >> 2);
  set(VORAK_INPUT("normal_nr_free_pages"), s.normalFreeKB >> 2);
  set(VORAK_INPUT("normal_nr_inactive_anon"), s.normalInactiveAnonKB >> 2);
  set(VORAK_INPUT("normal_nr_active_anon"), s.normalActiveAnonKB >> 2);
  set(VORAK_INPUT("normal_nr_inactive_file"), s.normalInactiveFileKB >> 2);
  set(VORAK_INPUT("normal_nr_active_file"), s.normalActiveFileKB >> 2);
  set(VORAK_INPUT("movable_nr_free_pages"), s.movableFreeKB >> 2);
  set(VORAK_INPUT("movable_nr_inactive_anon"), s.movableInactiveAnonKB >> 2);
  set(VORAK_INPUT("movable_nr_active_anon"), s.movableActiveAnonKB >> 2);
  set(VORAK_INPUT("killsafeANON"), killsafeANON);
  set(VORAK_INPUT("killsafeUNRECLAIM"), killsafeUNRECLAIM);
  set(VORAK_INPUT("available"), available);
  set(VORAK_INPUT("load"), load);
  set(VORAK_INPUT("a_plus_l"), aPlusL);
  set(VORAK_INPUT("nmload"), nmload);
  set(VORAK_INPUT("mload"), mload);
  set(VORAK_INPUT("newLoad"), newLoad);
  const float freeByLoad = freeAfter / static_cast<float>(checkOverflowAndAdd(newLoad, load));
  set(VORAK_INPUT("freeByTotal"), freeAfter / static_cast<float>(aPlusL));
  set(VORAK_INPUT("freeByLoad"), freeByLoad);
  const float zramCapacity =
      checkAndDiff(checkOverflowAndMult(2, s.zramSizeKB), s.zramOrigKB) / static_cast<float>(s.zramSizeKB);
  set(VORAK_INPUT("zramCapacity"), zramCapacity);
  set(VORAK_INPUT("compressable"), compressable);
  set(VORAK_INPUT("zramEff"), static_cast<float>(checkOverflowAndMult(compressable, 100)) /
                                  static_cast<float>(checkOverflowAndAdd(s.zramOrigKB, compressable)));
  set(VORAK_INPUT("grandRatio"), freeByLoad / zramCapacity);
  set(VORAK_INPUT("activeFile"), activeFile);
  set(VORAK_INPUT("activeAnon"), activeAnon);
  set(VORAK_INPUT("inactiveFile"), inactiveFile);
  set(VORAK_INPUT("inactiveAnon"), inactiveAnon);
  // Pages and KB mixed on purpose: the model was fitted on this ratio.
  const int vmpUsed = checkOverflowAndAdd(killsafeANON, activeFile, activeAnon);
  const int vmpAll =
      checkOverflowAndAdd(freeKB, killsafeANON, activeFile, activeAnon, inactiveFile, inactiveAnon);
  set(VORAK_INPUT("wholesome_vmp"),
      checkOverflowAndMult(static_cast<float>(vmpUsed) / static_cast<float>(vmpAll), 100));
  const float howMuchToKill = checkAndDiff(checkOverflowAndMult(mSafeload, aPlusL), freeAfter);
  set(VORAK_INPUT("howMuchToKill"), howMuchToKill);

  // Linear score. Every step saturates to 0; -1.0 is the failure value of
  // the float operations, so a result of exactly -1.0 counts as 0 as well.
  float sum = 0;
  for (auto& [name, f] : mFeatures) {
    if (f.min == f.max) continue;
    f.normalised = checkAndDiff(f.value, f.min) / checkAndDiff(f.max, f.min);
    const float term = checkOverflowAndMult(f.weight, f.normalised);
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
  return howMuchToKill <= 0 ? 0 : howMuchToKill;
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

bool VorakAction::moveFromBackground(int pid, CandidateList& to) {
  auto found = mBackgroundByPid.find(pid);
  if (found == mBackgroundByPid.end()) return false;
  to.emplace(found->second->first, pid);
  mBackgroundList.erase(found->second);
  mBackgroundByPid.erase(found);
  return true;
}

void VorakAction::generateTaskList() {
  mBackgroundList.clear();
  mBackgroundByPid.clear();
  mFavoriteList.clear();
  mUserLaunchedList.clear();

  // Killing a process frees about its file, anonymous-plus-swap and
  // graphics memory together.
  mListed = StatsProvider::getPIDStatsRange(kBackgroundMinAdj, kBackgroundMaxAdj);
  for (const PIDStats& p : mListed) {
    const long key = static_cast<long>(checkOverflowAndAdd(p.gpuKB, p.rssAnonSwapKB, p.rssFileKB));
    mBackgroundByPid.emplace(p.pid, mBackgroundList.emplace(key, p.pid));
  }
  if (!std::is_sorted(mListed.begin(), mListed.end(), byPid)) std::sort(mListed.begin(), mListed.end(), byPid);

  // Favourites of the current slot go last among the background processes.
  std::string slot;
  if (getWeekdayTimeslot(slot) == 0 && mFavTimeSlotDb != nullptr) {
    auto rows = readRows(mFavTimeSlotDb, slot);
    std::vector<std::string> favorites;
    // A slot with several rows is reported and its first row still used:
    // one broken slot should not cost the user every favourite.
    if (rows.size() > 1) {
      KXLOGE("VorakAction", "There is some problem with FavTimeSlotDb as it has > 1 entries for current Time Slot.");
    }
    if (!rows.empty() && rows.front() != nullptr) {
      std::istringstream apps(
          fieldText(rows.front()->blob.favoriteApps, sizeof(rows.front()->blob.favoriteApps)));
      for (std::string app; std::getline(apps, app, '/');) {
        // An empty name (from "a//b") is no app: as a key it would select
        // every row of the table.
        if (!app.empty()) favorites.push_back(app);
      }
    }
    release(mFavTimeSlotDb, rows);

    for (const std::string& app : favorites) {
      auto pidRows = readRows(mFavPidDb, app);
      if (pidRows.empty()) {
        KXLOGE("VorakAction", "The App (%s) entry is missing from FavPID DB", app.c_str());
      } else if (pidRows.size() > 1) {
        KXLOGE("VorakAction", "There is some problem with App = (%s) as it has > 1 entries in FavPID DB.",
               app.c_str());
      } else if (pidRows.front() != nullptr) {
        moveFromBackground(pidRows.front()->blob.value, mFavoriteList);
      }
      release(mFavPidDb, pidRows);
    }
  }

  // The user-launched list comes from the StartProc table: its pid is the
  // app's own process, recorded when the launch completed, and it is not
  // being rewritten for the very hint that triggers this rebuild, as the
  // User table is (the worker updates it on the same preparation hint).
  auto users = readRows(mStartProcDb, std::string());
  for (const auto* row : users) {
    if (row != nullptr) moveFromBackground(row->blob.value, mUserLaunchedList);
  }
  release(mStartProcDb, users);
  mBackgroundByPid.clear();
}

// Departure from the plain kill order: the launching app's own processes (an
// earlier instance, its ":suffix" processes) are never victims, for the first
// pass nor the service pass; killing them turns the warm start the host is
// attempting into a cold one. They are known by the pids the user-launched
// tables hold for the app and by their process names.
void VorakAction::spareLaunchingApp(const std::string& appName) {
  std::vector<int> own;
  for (KxDatabase<_vorak_User_Launched_Data>* db : {mUserDb, mStartProcDb, mFavPidDb}) {
    auto rows = readRows(db, appName);
    for (const auto* row : rows) {
      if (row != nullptr) own.push_back(row->blob.value);
    }
    release(db, rows);
  }
  auto isOwn = [&](int pid) {
    if (std::find(own.begin(), own.end(), pid) != own.end()) return true;
    const PIDStats* seen = listed(pid);
    return seen != nullptr && namedAfter(commOf(*seen), appName);
  };
  for (CandidateList* list : {&mBackgroundList, &mFavoriteList, &mUserLaunchedList}) {
    for (auto it = list->begin(); it != list->end();) it = isOwn(it->second) ? list->erase(it) : std::next(it);
  }
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
    auto rows = readRows(mServiceOutDb, appName);
    for (const auto* row : rows) {
      if (row == nullptr) continue;
      for (const auto& slot : row->blob.serviceNames) {
        std::string name = fieldText(slot, sizeof(slot));
        if (name.empty()) continue;
        if (mAppServiceNames.insert(name).second) names.emplace_back(name);
      }
    }
    release(mServiceOutDb, rows);

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
  auto rows = readRows(mServiceOutDb, appName);
  for (const auto* row : rows) {
    if (row == nullptr) continue;
    for (const auto& slot : row->blob.serviceNames) {
      const std::string name = fieldText(slot, sizeof(slot));
      if (name.empty() || mAppServiceNames.count(name) != 0) continue;
      // A service's anonymous-plus-swap figure is what its process will take
      // once started; its graphics memory is negligible.
      auto learnt = readRows(mActionDb, name);
      if (!learnt.empty() && learnt.front() != nullptr) {
        sum = checkOverflowAndAdd(sum, static_cast<int64_t>(learnt.front()->blob.rssSwap));
      }
      release(mActionDb, learnt);
    }
  }
  release(mServiceOutDb, rows);
  return sum;
}
