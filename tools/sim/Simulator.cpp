#include "Simulator.h"

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "DependentServices.h"
#include "FeatureState.h"
#include "FetchPreferredApps.h"
#include "FsRoot.h"
#include "Oracle.h"
#include "Properties.h"
#include "StatsProvider.h"
#include "Text.h"
#include "VorakDbFile.h"
#include "WallClock.h"
#include "kxhost/LogCapture.h"

namespace vsim {
namespace fs = std::filesystem;

namespace {

// Trigger and hint codes of the framework.
constexpr int32_t kHintPrepare = 0x1042;
constexpr int32_t kHintLaunch = 0x1081;
constexpr int32_t kHintRemoved = 0x1093;
constexpr int32_t kLaunchType = 2;

// oom_score_adj of the simulated apps: the foreground, the app used just
// before it, and the cached ones behind (the kill action looks at 700..1000).
constexpr int kForegroundAdj = 0;
constexpr int kPreviousAdj = 700;
constexpr int kCachedAdj = 900;
// The kill action's candidates: the host's kill-priority range of background processes.
constexpr int kCandidateAdjMin = 700;
constexpr int kCandidateAdjMax = 1000;

// The wall clock of the simulated device: the simulated day is a Monday, so
// its time slots are the weekday ones, and they turn with the simulated
// hours rather than with the few seconds the run takes.
std::atomic<time_t> gSimTime{0};

time_t simulatedClock(time_t* out) {
  const time_t now = gSimTime.load();
  if (out != nullptr) *out = now;
  return now;
}

void setSimulatedTime(double secondsSinceMonday) {
  static const time_t midnight = [] {
    std::tm monday{};
    monday.tm_year = 2026 - 1900;
    monday.tm_mon = 10;  // November
    monday.tm_mday = 23;
    monday.tm_isdst = -1;
    return std::mktime(&monday);
  }();
  gSimTime.store(midnight + static_cast<time_t>(secondsSinceMonday));
}

// A serialized model followed by one more singular field sets that field:
// parsing keeps the last value. So appending field 3 (fixed32) replaces the
// model's safeload and leaves the rest as shipped.
void appendSafeload(const fs::path& model, float safeload) {
  constexpr char kSafeloadTag = (3 << 3) | 5;
  uint32_t bits;
  std::memcpy(&bits, &safeload, sizeof bits);
  std::string bytes(1, kSafeloadTag);
  for (int i = 0; i < 4; ++i) bytes += static_cast<char>((bits >> (8 * i)) & 0xFF);
  std::ofstream out(model, std::ios::binary | std::ios::app);
  out << bytes;
  if (!out) throw std::runtime_error(model.string() + ": cannot write");
}

volatile std::sig_atomic_t gStop = 0;

uint64_t fnv1a(const std::string& s, uint64_t h = 1469598103934665603ULL) {
  for (unsigned char c : s) h = (h ^ c) * 1099511628211ULL;
  return h;
}

// A repeatable variation in [-1, 1] for the n-th launch of an app.
double variation(uint32_t seed, const std::string& app, uint64_t n) {
  uint64_t z = fnv1a(app, seed * 0x9e3779b97f4a7c15ULL + n + 1);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  z ^= z >> 31;
  return static_cast<double>(z >> 11) / 9007199254740992.0 * 2.0 - 1.0;
}

uint64_t scaled(uint64_t kb, double factor) {
  return static_cast<uint64_t>(std::llround(static_cast<double>(kb) * factor));
}

AsyncTriggerPayload payload(int32_t hint, int32_t type, const std::string& app, pid_t pid) {
  AsyncTriggerPayload p;
  p.hintID = hint;
  p.hintType = type;
  p.appName = app;
  p.pid = pid;
  return p;
}

// Whether a thread of this process other than the caller is running or
// waiting for a CPU (state R in its /proc stat line).
bool othersRunnable() {
  const long self = syscall(SYS_gettid);
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return false;
  bool runnable = false;
  while (dirent* e = readdir(dir)) {
    const long tid = std::strtol(e->d_name, nullptr, 10);
    if (tid <= 0 || tid == self) continue;
    std::ifstream stat(std::string("/proc/self/task/") + e->d_name + "/stat");
    std::string line;
    std::getline(stat, line);
    // "tid (comm) S ...": the name may hold blanks and parentheses.
    const auto close = line.rfind(") ");
    if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'R') {
      runnable = true;
      break;
    }
  }
  closedir(dir);
  return runnable;
}

void addReclaim(LaunchWork& work, const Reclaim& r) {
  work.cacheDroppedKB += r.cacheDroppedKB;
  work.swappedOutKB += r.swappedKB;
  // Memory that even the low-memory killer did not find is waited for too.
  work.lmkWaitKB += r.shortKB;
}

// What swapping `swappedKB` back in takes: decompressing frees the
// compressed copy as it goes.
uint64_t swapInNeedKB(uint64_t swappedKB, double zramRatio) {
  const auto compressed = static_cast<uint64_t>(std::ceil(static_cast<double>(swappedKB) / zramRatio));
  return swappedKB - std::min(swappedKB, compressed);
}

}  // namespace

void Simulator::stop() { gStop = 1; }

bool Simulator::stopped() { return gStop != 0; }

Simulator::Simulator(Scenario scenario, SimOptions options)
    : mScenario(std::move(scenario)), mOptions(std::move(options)) {}

Simulator::~Simulator() {
  // The feature first, so that no thread of it reads statistics or logs any more.
  mHost.reset();
  kxhost::setWallClock(nullptr);
  kxhost::setLogSink(nullptr);
  kxhost::setStatsSource(nullptr);
  mPool.stopAll();
}

void Simulator::prepareRunDir() {
  const fs::path root = mOptions.runDir;
  const fs::path models = root / "vendor/etc/kx/vorak";
  fs::create_directories(models);
  fs::create_directories(root / "data/vendor/kx");
  size_t copied = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(mOptions.modelDir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("vorak_", 0) != 0 || entry.path().extension() != ".data") continue;
    fs::copy_file(entry.path(), models / name, fs::copy_options::overwrite_existing);
    ++copied;
  }
  if (ec) throw std::runtime_error(mOptions.modelDir + ": " + ec.message());
  if (copied == 0) throw std::runtime_error(mOptions.modelDir + ": no vorak_*.data model files");
  const fs::path model = models / ("vorak_" + mScenario.device.memClass() + ".data");
  if (!mOptions.modelFile.empty()) {
    if (!fs::is_regular_file(mOptions.modelFile)) throw std::runtime_error(mOptions.modelFile + ": no such model file");
    fs::copy_file(mOptions.modelFile, model, fs::copy_options::overwrite_existing);
  }
  if (mOptions.policy.safeload) appendSafeload(model, *mOptions.policy.safeload);
  std::ofstream(root / "scenario.json") << dumpJson(mScenario.toJson()) << "\n";
}

void Simulator::startHost() {
  mDevice = std::make_shared<SimDevice>(mScenario.device, mPool);
  mLog = std::make_shared<PluginLog>((fs::path(mOptions.runDir) / "vorak.log").string());

  kxhost::setFsRoot(mOptions.runDir);
  // States and launch history of an earlier run in this process belong to that run.
  kxhost::clearFeatureStates();
  FetchPreferredApps::clearHistory();
  // Without the plug-in acting it is switched off at its enable gate, as on a device.
  const bool acts = mOptions.policy.pluginActs();
  kxhost::setProperty("ro.vendor.perf.enable.vorak", acts ? "true" : "false");
  // Traces on: the decision for each launch is only logged with them.
  kxhost::setProperty("vendor.debug.trace.VORAK", "1");
  kxhost::setStatsSource(mDevice);
  kxhost::setLogSink(mLog, true);
  auto& services = kxhost::ServiceRegistry::instance();
  services.clear();
  for (const auto& a : mScenario.apps) services.setAppServices(a.name, a.services);

  PluginHost::Options o;
  o.pluginPath = mOptions.pluginPath;
  o.samplesThreshold = mScenario.samplesThreshold;
  o.learntRowExists = [this](const std::string& name) { return learntRows().count(name) != 0; };
  mHost = std::make_unique<PluginHost>(o);
  if (!acts && !mHost->disabled()) throw HostError("the plug-in stayed enabled with its enable property off");
  if (acts && mHost->disabled()) {
    std::string why;
    for (const auto& e : mLog->take())
      if (e.kind == PluginEvent::Kind::Disabled) why = e.text;
    throw HostError("the plug-in disabled itself" + (why.empty() ? std::string() : ": " + why));
  }
}

Report Simulator::run() {
  prepareRunDir();
  startHost();
  mReport.scenarioName = mScenario.name;
  mReport.deviceClass = mScenario.device.memClass();
  mReport.totalKB = mScenario.device.totalKB;
  mReport.runDir = mOptions.runDir;
  mReport.policy = mOptions.policy.name();
  mReport.multiDay = mScenario.durationSec() >= 86400.0;
  mLog->take();
  setSimulatedTime(0);
  kxhost::setWallClock(simulatedClock);

  for (const auto& e : mScenario.events) {
    if (gStop) {
      mReport.problems.push_back("interrupted at " + mReport.timeOf(mNow) + "; the report covers the events before");
      break;
    }
    mNow = e.at;
    mLog->setClock(e.at);
    setSimulatedTime(e.at);
    play(e);
    const DeviceModel m = mDevice->snapshot();
    mReport.addPoint({e.at, m.freeKB(), m.availableKB()});
    showProgress(e.at, false);
  }
  showProgress(mNow, true);
  finishReport();
  return mReport;
}

void Simulator::play(const Event& e) {
  switch (e.type) {
    case EventType::Prepare: onPrepare(e); break;
    case EventType::Launch: onLaunch(e); break;
    case EventType::Complete: onComplete(e); break;
    case EventType::Remove: onRemove(e); break;
    case EventType::Service: startService(e.target, nullptr); break;
    case EventType::Learn:
      mLearnt.reset();
      mHost->learn();
      mLearnt.reset();
      break;
    case EventType::Grow: {
      auto it = mApps.find(e.target);
      if (it != mApps.end() && it->second.pid > 0) mDevice->grow(it->second.pid, e.kb);
      break;
    }
  }
  noteStrayDeaths();
}

void Simulator::noteStrayDeaths() {
  // The plug-in kills only while a hint is delivered; a child that dies at
  // any other time was not its doing, but its memory is freed all the same.
  for (const auto& v : settleDeaths(ColdCause::Other))
    mReport.problems.push_back(v.name + " (pid " + std::to_string(v.pid) + ") died outside any launch at " +
                               mReport.timeOf(mNow));
}

void Simulator::onPrepare(const Event& e) {
  const std::string app = e.target.empty() ? mForeground : e.target;
  if (!app.empty() && app == mForeground) demote(app);
  const pid_t pid = app.empty() ? 0 : mApps[app].pid;
  noteStrayDeaths();
  const auto p = payload(kHintPrepare, 0, app, pid);
  // Leaving the home screen names no app: the feature has nothing to record
  // then, but the hub still has the candidates rebuilt.
  if (!app.empty()) {
    mHost->trigger(p);
    letWorkerRun();
  }
  mHost->hint(p);
  // The candidate lists now hold only live children, so the pids of children
  // that died before can be given back to the system.
  mPool.reap();
}

LaunchRecord Simulator::newLaunch(const AppProfile& profile) {
  LaunchRecord rec;
  rec.index = ++mLaunchCount;
  rec.at = mNow;
  rec.app = profile.name;
  rec.trueKB = profile.needKB();
  rec.learntKB = learntNeed(profile.name);
  rec.freeBeforeKB = mDevice->snapshot().freeKB();
  // The slot and its favourites as the host predicts them now, before this launch is noted.
  const time_t now = kxhost::wallTime();
  std::tm local{};
  localtime_r(&now, &local);
  rec.slot = FetchPreferredApps::timeSlotKey(local);
  const auto favourites = FetchPreferredApps::predict(now);
  auto it = favourites.find(rec.slot);
  rec.favourite = it != favourites.end() &&
                  std::find(it->second.begin(), it->second.end(), profile.name) != it->second.end();
  return rec;
}

void Simulator::onLaunch(const Event& e) {
  const AppProfile& profile = *mScenario.app(e.target);
  noteStrayDeaths();
  if (!mForeground.empty() && mForeground != profile.name) demote(mForeground);
  LaunchRecord rec = newLaunch(profile);
  ++mApps[profile.name].launches;

  mLog->take();
  // What the plug-in is about to see, and what truly needs freeing: a model
  // is fitted and judged on these.
  rec.stats = mDevice->snapshot().sysStats();
  rec.shortfallKB = shortfallKB(profile);
  const auto& rows = learntRows();
  if (auto row = rows.find(profile.name); row != rows.end()) rec.learntRow = row->second;
  const auto p = payload(kHintLaunch, kLaunchType, profile.name, mApps[profile.name].pid);
  mHost->trigger(p);
  mHost->hint(p);
  std::vector<Victim> dead = mOptions.policy.kind == Policy::Kind::Oracle ? oracleKills(profile, rec)
                                                                          : pluginKills(profile, rec);
  for (const auto& v : dead) {
    ++mKills[v.name];
    rec.victims.push_back(v);
  }
  bringUp(profile, rec);
  mForeground = profile.name;
  mRecent.erase(std::remove(mRecent.begin(), mRecent.end(), profile.name), mRecent.end());
  reassignOomAdj();
  rec.freeAfterKB = mDevice->snapshot().freeKB();
  mReport.addLaunch(std::move(rec));
}

std::vector<Victim> Simulator::pluginKills(const AppProfile& profile, LaunchRecord& rec) {
  // What the kill action said, in order: its kills for the app, the app's
  // decision line, then the kills of the service pass.
  struct Said {
    KillBy by;
    long kb;
    bool servicePass;
  };
  std::map<int, Said> said;
  bool afterAppPass = false;
  for (const auto& ev : mLog->take()) {
    switch (ev.kind) {
      case PluginEvent::Kind::Kill: said[ev.pid] = {ev.by, ev.kb, afterAppPass}; break;
      case PluginEvent::Kind::AppPass:
        if (ev.app != profile.name) break;
        afterAppPass = rec.answered = true;
        rec.amountKB = ev.amountKB;
        rec.freedKB = ev.freedKB;
        break;
      case PluginEvent::Kind::Score:
        if (!afterAppPass) rec.modelSum = ev.amountKB;
        break;
      case PluginEvent::Kind::ServicePass:
        if (ev.app != profile.name) break;
        rec.serviceAmountKB = ev.amountKB;
        rec.serviceFreedKB = ev.freedKB;
        break;
      default: break;
    }
  }
  // SIGKILL is delivered at once but the exit completes a moment later: wait
  // for each child the plug-in reports killed, so that it counts for this launch.
  std::vector<Victim> dead;
  for (const auto& [pid, what] : said)
    if (mPool.owns(pid) && mPool.awaitDeath(pid)) dead.push_back(takeDead(pid, "", ColdCause::KilledByPolicy));
  for (auto& v : settleDeaths(ColdCause::KilledByPolicy)) dead.push_back(v);
  for (auto& v : dead) {
    auto it = said.find(v.pid);
    if (it == said.end()) continue;
    v.by = it->second.by;
    v.kb = static_cast<uint64_t>(std::max(0L, it->second.kb));
    v.servicePass = it->second.servicePass;
  }
  return dead;
}

std::vector<Victim> Simulator::oracleKills(const AppProfile& profile, LaunchRecord& rec) {
  const DeviceModel m = mDevice->snapshot();
  const auto shortfall = static_cast<int64_t>(rec.shortfallKB);
  rec.answered = true;
  rec.amountKB = static_cast<double>(shortfall);
  // What a kill truly gives a launch: its anonymous and graphics memory, and
  // the compressed copy of what it had swapped; its file pages were free to
  // drop anyway.
  std::vector<Candidate> candidates;
  for (const auto& [pid, name] : mOwners) {
    const auto mem = m.process(pid);
    if (!mem || mem->oomAdj < kCandidateAdjMin || mem->oomAdj > kCandidateAdjMax) continue;
    if (mServices.count(name) != 0 || name == profile.name) continue;
    const auto zram = static_cast<uint64_t>(std::ceil(static_cast<double>(mem->swappedKB) / mScenario.device.zramRatio));
    candidates.push_back({pid, mem->anonKB + mem->gpuKB + zram});
  }
  std::vector<Victim> dead;
  for (const Candidate& c : oracleVictims(candidates, shortfall)) {
    if (!mPool.kill(c.pid)) continue;
    mPool.awaitDeath(c.pid);
    Victim v = takeDead(c.pid, "", ColdCause::KilledByPolicy);
    v.by = KillBy::Oracle;
    v.kb = c.kb;
    rec.freedKB += static_cast<double>(c.kb);
    dead.push_back(v);
  }
  return dead;
}

Simulator::Sizes Simulator::sizesOf(const AppProfile& profile, uint64_t seq) const {
  const double f = 1.0 + profile.jitter * variation(mScenario.seed, profile.name, seq);
  return Sizes{scaled(profile.rssSwapKB, f), scaled(profile.ionKgslKB, f), profile.fileKB};
}

uint64_t Simulator::demandKB(const AppProfile& profile) const {
  uint64_t kb = 0;
  auto run = mApps.find(profile.name);
  const pid_t pid = run == mApps.end() ? 0 : run->second.pid;
  if (pid == 0) {
    kb += sizesOf(profile, run == mApps.end() ? 0 : run->second.jitterSeq).total();
  } else if (const auto mem = mDevice->process(pid)) {
    kb += swapInNeedKB(mem->swappedKB, mScenario.device.zramRatio);
  }
  for (const auto& s : profile.services) {
    const ServiceProfile* sp = mScenario.service(s);
    if (sp != nullptr && mServices.count(s) == 0) kb += sp->rssSwapKB + sp->ionKgslKB + sp->fileKB;
  }
  return kb;
}

uint64_t Simulator::shortfallKB(const AppProfile& profile) const {
  const uint64_t want = demandKB(profile) + mScenario.device.lowWatermarkKB;
  const uint64_t clean = mDevice->snapshot().cleanKB();
  return want > clean ? want - clean : 0;
}

void Simulator::bringUp(const AppProfile& profile, LaunchRecord& rec) {
  AppRun& run = mApps[profile.name];
  rec.cold = run.pid == 0;
  rec.coldCause = rec.cold ? run.lostTo : ColdCause::Warm;
  // What the policy left: memory the launch cannot get from free memory and
  // clean cache has to come from swapping out other apps, or from the
  // device's low-memory killer, while the user waits.
  rec.lackedKB = shortfallKB(profile);
  if (rec.cold) startApp(profile, rec);
  else swapInApp(profile, rec);
  for (const auto& s : profile.services)
    if (mServices.count(s) == 0) startService(s, &rec);
  rec.work.cold = rec.cold;
  rec.work.baseMs = rec.cold ? profile.coldLaunchMs : profile.warmLaunchMs;
  rec.launchMs = estimateLaunchMs(mScenario.device.costs, rec.work);
}

void Simulator::startApp(const AppProfile& profile, LaunchRecord& rec) {
  AppRun& run = mApps[profile.name];
  const Sizes sizes = sizesOf(profile, run.jitterSeq++);
  makeRoom(sizes.total(), &rec);
  const pid_t pid = mPool.spawn(profile.name);
  run.pid = pid;
  run.grown = false;
  mOwners[pid] = profile.name;
  const auto r = mDevice->addProcess(pid, profile.name, sizes.anon, sizes.file, sizes.gpu, kForegroundAdj);
  if (r) addReclaim(rec.work, *r);
}

void Simulator::swapInApp(const AppProfile& profile, LaunchRecord& rec) {
  const pid_t pid = mApps[profile.name].pid;
  // In front now: its pages are touched, and it is no candidate for swapping.
  mDevice->setOomAdj(pid, kForegroundAdj);
  const auto mem = mDevice->process(pid);
  if (!mem || mem->swappedKB == 0) return;
  makeRoom(swapInNeedKB(mem->swappedKB, mScenario.device.zramRatio), &rec);
  uint64_t back = 0;
  addReclaim(rec.work, mDevice->swapIn(pid, &back));
  rec.work.swappedInKB += back;
}

void Simulator::makeRoom(uint64_t needKB, LaunchRecord* rec) {
  const uint64_t want = needKB + mScenario.device.lowWatermarkKB;
  const uint64_t room = mDevice->snapshot().headroomKB();
  // What not even reclaim can find waits for the low-memory killer.
  if (rec != nullptr && want > room) rec->work.lmkWaitKB += want - room;
  // The device's own low-memory killer kills cached apps, least recently used first.
  while (mDevice->snapshot().headroomKB() < want && !mRecent.empty()) {
    const std::string victim = mRecent.back();
    const pid_t pid = mApps[victim].pid;
    if (pid <= 0 || !mPool.kill(pid)) {
      mRecent.pop_back();
      continue;
    }
    mPool.awaitDeath(pid);
    Victim v = takeDead(pid, victim, ColdCause::KilledByDevice);
    v.by = KillBy::Device;
    ++mKills[victim];
    if (rec != nullptr) rec->victims.push_back(v);
    else mReport.addDeviceKill(mNow, v);
  }
}

void Simulator::startService(const std::string& name, LaunchRecord* rec) {
  if (mServices.count(name) != 0) return;
  const ServiceProfile* profile = mScenario.service(name);
  if (profile == nullptr) return;
  makeRoom(profile->rssSwapKB + profile->ionKgslKB + profile->fileKB, rec);
  const pid_t pid = mPool.spawn(name);
  mServices[name] = pid;
  mOwners[pid] = name;
  const auto r = mDevice->addProcess(pid, name, profile->rssSwapKB, profile->fileKB, profile->ionKgslKB, profile->oomAdj);
  if (r && rec != nullptr) addReclaim(rec->work, *r);
  kxhost::ServiceRegistry::instance().setServicePid(name, pid);
}

void Simulator::onComplete(const Event& e) {
  // An app killed between its launch and the completion is reported with
  // pid 0: the framework's meter then finds nothing to sample.
  auto it = mApps.find(e.target);
  const pid_t pid = it == mApps.end() ? 0 : it->second.pid;
  mHost->trigger(payload(kHintLaunch, e.hintType, e.target, pid));
  mHost->waitForMetering();
  letWorkerRun();
}

void Simulator::onRemove(const Event& e) {
  auto it = mApps.find(e.target);
  const pid_t pid = it == mApps.end() ? 0 : it->second.pid;
  if (pid > 0 && mPool.kill(pid)) {
    mPool.awaitDeath(pid);
    takeDead(pid, e.target, ColdCause::Removed);
  }
  mHost->trigger(payload(kHintRemoved, 0, e.target, pid));
  letWorkerRun();
}

void Simulator::letWorkerRun() {
  // A switched-off plug-in has no worker to wait for.
  if (!mOptions.policy.pluginActs()) return;
  // The feature records user launches on its own worker thread, and nothing
  // tells when it is done; the hint hub's next rebuild of the candidate lists
  // reads what it wrote. On a device seconds pass in between: here, wait until
  // no other thread of the process is runnable (the trigger made the worker
  // runnable before runAsync returned), within a bound.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
  do {
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  } while (othersRunnable() && std::chrono::steady_clock::now() < deadline);
}

void Simulator::demote(const std::string& app) {
  auto it = mApps.find(app);
  if (it == mApps.end()) return;
  if (mForeground == app) mForeground.clear();
  if (it->second.pid <= 0) return;
  // The app grew while it was first in use; later visits reuse that memory.
  const AppProfile* profile = mScenario.app(app);
  if (profile != nullptr && profile->growKB > 0 && !it->second.grown) mDevice->grow(it->second.pid, profile->growKB);
  it->second.grown = true;
  mRecent.erase(std::remove(mRecent.begin(), mRecent.end(), app), mRecent.end());
  mRecent.insert(mRecent.begin(), app);
  reassignOomAdj();
}

void Simulator::reassignOomAdj() {
  if (!mForeground.empty() && mApps[mForeground].pid > 0) mDevice->setOomAdj(mApps[mForeground].pid, kForegroundAdj);
  for (size_t i = 0; i < mRecent.size(); ++i) {
    const pid_t pid = mApps[mRecent[i]].pid;
    if (pid > 0) mDevice->setOomAdj(pid, i == 0 ? kPreviousAdj : kCachedAdj + static_cast<int>(std::min<size_t>(i, 99)));
  }
}

Victim Simulator::takeDead(pid_t pid, const std::string& poolName, ColdCause cause) {
  const auto mem = mDevice->process(pid);
  mDevice->removeProcess(pid);
  auto owner = mOwners.find(pid);
  const std::string name = owner == mOwners.end() ? poolName : owner->second;
  auto app = mApps.find(name);
  if (app != mApps.end() && app->second.pid == pid) app->second.lostTo = cause;
  forget(pid);
  reassignOomAdj();
  return Victim{name, pid, mem ? mem->totalKB() : 0, KillBy::Background, false};
}

std::vector<Victim> Simulator::settleDeaths(ColdCause cause) {
  std::vector<Victim> out;
  for (const auto& d : mPool.collectDeaths()) out.push_back(takeDead(d.pid, d.name, cause));
  return out;
}

void Simulator::forget(pid_t pid) {
  auto owner = mOwners.find(pid);
  if (owner == mOwners.end()) return;
  const std::string name = owner->second;
  mOwners.erase(owner);
  auto app = mApps.find(name);
  if (app != mApps.end() && app->second.pid == pid) {
    app->second.pid = 0;
    mRecent.erase(std::remove(mRecent.begin(), mRecent.end(), name), mRecent.end());
    if (mForeground == name) mForeground.clear();
  }
  auto svc = mServices.find(name);
  if (svc != mServices.end() && svc->second == pid) {
    mServices.erase(svc);
    kxhost::ServiceRegistry::instance().removeService(name);
  }
}

const std::map<std::string, std::pair<int64_t, int64_t>>& Simulator::learntRows() const {
  if (mLearnt) return *mLearnt;
  auto& out = mLearnt.emplace();
  const std::string path = (fs::path(mOptions.runDir) / "data/vendor/kx/Vorakaction.db").string();
  if (!fs::exists(path)) return out;
  try {
    vorakdb::DbFile db(path);
    for (const auto& r : db.rows(db.resolveTable(""))) {
      const auto d = vorakdb::decodeBlob(vorakdb::RowType::Needs, r.blob);
      if (d.contains("error")) continue;
      out[r.appName] = {d["ionKgsl"].get<int64_t>(), d["rssSwap"].get<int64_t>()};
    }
  } catch (const vorakdb::DbError&) {
    // Nothing learnt yet (or no table yet): no needs.
  }
  return out;
}

std::optional<uint64_t> Simulator::learntNeed(const std::string& app) const {
  const auto& rows = learntRows();
  auto it = rows.find(app);
  if (it == rows.end()) return std::nullopt;
  // The sentinels of a missing figure (-1) count as nothing, as in the decision.
  return static_cast<uint64_t>(std::max<int64_t>(0, it->second.first) + std::max<int64_t>(0, it->second.second));
}

void Simulator::showProgress(double at, bool final) {
  if (!mOptions.progress) return;
  if (final) {
    if (mLastProgress >= 0) std::fputs("\r\033[K", stderr);
    return;
  }
  const double start = mScenario.events.empty() ? 0 : mScenario.events.front().at;
  const double span = std::max(1.0, mScenario.durationSec() - start);
  const int pct = static_cast<int>((at - start) / span * 100.0);
  if (pct == mLastProgress) return;
  mLastProgress = pct;
  const int filled = pct / 5;
  std::fprintf(stderr, "\r\033[Kvorak-sim %s %s [%s%s] %3d%%  %d launches", mReport.policy.c_str(),
               mReport.timeOf(at).c_str(), std::string(static_cast<size_t>(filled), '#').c_str(),
               std::string(static_cast<size_t>(20 - filled), '.').c_str(), pct, mLaunchCount);
  std::fflush(stderr);
}

AppOutcome Simulator::outcome(const std::string& name, uint64_t ionKB, uint64_t rssKB,
                              const std::map<std::string, std::pair<int64_t, int64_t>>& rows) const {
  AppOutcome o;
  o.name = name;
  o.trueIonKB = ionKB;
  o.trueRssKB = rssKB;
  auto it = rows.find(name);
  if (it != rows.end()) {
    o.learntIonKB = it->second.first;
    o.learntRssKB = it->second.second;
  }
  auto k = mKills.find(name);
  if (k != mKills.end()) o.killed = k->second;
  return o;
}

void Simulator::finishReport() {
  const auto rows = learntRows();
  for (const auto& a : mScenario.apps) {
    AppOutcome o = outcome(a.name, a.ionKgslKB, a.rssSwapKB, rows);
    auto run = mApps.find(a.name);
    if (run != mApps.end()) {
      o.launches = run->second.launches;
      mReport.appsAliveAtEnd += run->second.pid > 0;
    }
    const int32_t state = mHost->state(a.name);
    o.state = vorakdb::stateName(state);
    if (o.state.empty()) o.state = std::to_string(state);
    mReport.addApp(o);
  }
  for (const auto& s : mScenario.services) mReport.addService(outcome(s.name, s.ionKgslKB, s.rssSwapKB, rows));
  mReport.favourites = FetchPreferredApps::predict(kxhost::wallTime());
}

}  // namespace vsim
