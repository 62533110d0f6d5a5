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
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "DependentServices.h"
#include "FsRoot.h"
#include "Properties.h"
#include "StatsProvider.h"
#include "WallClock.h"
#include "VorakDbFile.h"
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

// The wall clock of the simulated device: the simulated day is a Monday, so
// its time slots are the weekday ones, and they turn with the simulated
// hours rather than with the few seconds the run takes.
std::atomic<time_t> gSimTime{0};

time_t simulatedClock(time_t* out) {
  const time_t now = gSimTime.load();
  if (out != nullptr) *out = now;
  return now;
}

void setSimulatedTime(double secondsIntoDay) {
  static const time_t midnight = [] {
    std::tm monday{};
    monday.tm_year = 2026 - 1900;
    monday.tm_mon = 10;  // November
    monday.tm_mday = 23;
    monday.tm_isdst = -1;
    return std::mktime(&monday);
  }();
  gSimTime.store(midnight + static_cast<time_t>(secondsIntoDay));
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

}  // namespace

void Simulator::stop() { gStop = 1; }

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
  std::ofstream(root / "scenario.json") << mScenario.toJson().dump(2) << "\n";
}

void Simulator::startHost() {
  mDevice = std::make_shared<SimDevice>(mScenario.device, mPool);
  mLog = std::make_shared<PluginLog>((fs::path(mOptions.runDir) / "vorak.log").string());

  kxhost::setFsRoot(mOptions.runDir);
  kxhost::setProperty("ro.vendor.perf.enable.vorak", "true");
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
  if (mHost->disabled()) {
    std::string why;
    for (const auto& e : mLog->take())
      if (e.kind == PluginEvent::Kind::Disabled) why = e.text;
    throw HostError("the plug-in disabled itself" + (why.empty() ? std::string() : ": " + why));
  }
}

Report Simulator::run() {
  gStop = 0;
  prepareRunDir();
  startHost();
  mReport.scenarioName = mScenario.name;
  mReport.deviceClass = mScenario.device.memClass();
  mReport.totalKB = mScenario.device.totalKB;
  mReport.runDir = mOptions.runDir;
  mLog->take();
  setSimulatedTime(0);
  kxhost::setWallClock(simulatedClock);

  for (const auto& e : mScenario.events) {
    if (gStop) {
      mReport.problems.push_back("interrupted at " + clockTime(mNow) + "; the report covers the events before");
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
    case EventType::Service: startService(e.target); break;
    case EventType::Learn: onLearn(); break;
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
  for (const auto& v : settleDeaths())
    mReport.problems.push_back(v.name + " (pid " + std::to_string(v.pid) + ") died outside any launch at " +
                               clockTime(mNow));
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

void Simulator::onLaunch(const Event& e) {
  const AppProfile& profile = *mScenario.app(e.target);
  AppRun& run = mApps[profile.name];
  noteStrayDeaths();
  if (!mForeground.empty() && mForeground != profile.name) demote(mForeground);

  LaunchRecord rec;
  rec.index = ++mLaunchCount;
  rec.at = mNow;
  rec.app = profile.name;
  rec.cold = run.pid == 0;
  rec.trueKB = profile.needKB();
  rec.learntKB = learntNeed(profile.name);
  rec.freeBeforeKB = mDevice->snapshot().freeKB();
  ++run.launches;

  mLog->take();
  const auto p = payload(kHintLaunch, kLaunchType, profile.name, run.pid);
  mHost->trigger(p);
  mHost->hint(p);

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
    if (mPool.owns(pid) && mPool.awaitDeath(pid)) dead.push_back(takeDead(pid, ""));
  for (auto& v : settleDeaths()) dead.push_back(v);
  for (auto v : dead) {
    auto it = said.find(v.pid);
    if (it != said.end()) {
      v.by = it->second.by;
      v.kb = static_cast<uint64_t>(std::max(0L, it->second.kb));
      v.servicePass = it->second.servicePass;
    }
    auto a = mApps.find(v.name);
    if (a != mApps.end()) ++a->second.killed;
    rec.victims.push_back(v);
  }

  // The launching app's own process may have been among the victims.
  if (run.pid == 0) {
    rec.cold = true;
    startApp(profile, rec);
  }
  for (const auto& s : profile.services)
    if (mServices.count(s) == 0) startService(s);
  mForeground = profile.name;
  mRecent.erase(std::remove(mRecent.begin(), mRecent.end(), profile.name), mRecent.end());
  reassignOomAdj();
  rec.freeAfterKB = mDevice->snapshot().freeKB();
  mReport.addLaunch(std::move(rec));
}

void Simulator::startApp(const AppProfile& profile, LaunchRecord& rec) {
  AppRun& run = mApps[profile.name];
  const double f = 1.0 + profile.jitter * variation(mScenario.seed, profile.name, run.jitterSeq++);
  const uint64_t anon = scaled(profile.rssSwapKB, f), gpu = scaled(profile.ionKgslKB, f), file = profile.fileKB;
  const uint64_t need = anon + gpu + file;

  // What the plug-in left: memory the launch cannot get from free memory and
  // clean cache has to come from swapping out other apps, or from the
  // device's low-memory killer, while the user waits.
  const uint64_t clean = mDevice->snapshot().cleanKB();
  const uint64_t low = mScenario.device.lowWatermarkKB;
  rec.lackedKB = need + low > clean ? need + low - clean : 0;
  makeRoom(need, &rec);

  const pid_t pid = mPool.spawn(profile.name);
  run.pid = pid;
  run.grown = false;
  mOwners[pid] = profile.name;
  mDevice->addProcess(pid, profile.name, anon, file, gpu, kForegroundAdj);
}

void Simulator::makeRoom(uint64_t needKB, LaunchRecord* rec) {
  // The device's own low-memory killer: when not even reclaim can find the
  // memory, it kills cached apps, least recently used first.
  while (mDevice->snapshot().headroomKB() < needKB + mScenario.device.lowWatermarkKB && !mRecent.empty()) {
    const std::string victim = mRecent.back();
    const pid_t pid = mApps[victim].pid;
    if (pid <= 0 || !mPool.kill(pid)) {
      mRecent.pop_back();
      continue;
    }
    mPool.awaitDeath(pid);
    Victim v = takeDead(pid, victim);
    v.by = KillBy::Device;
    ++mApps[victim].killed;
    if (rec != nullptr) rec->victims.push_back(v);
    else mReport.addDeviceKill(mNow, v);
  }
}

void Simulator::startService(const std::string& name) {
  if (mServices.count(name) != 0) return;
  const ServiceProfile* profile = mScenario.service(name);
  if (profile == nullptr) return;
  makeRoom(profile->rssSwapKB + profile->ionKgslKB + profile->fileKB, nullptr);
  const pid_t pid = mPool.spawn(name);
  mServices[name] = pid;
  mOwners[pid] = name;
  mDevice->addProcess(pid, name, profile->rssSwapKB, profile->fileKB, profile->ionKgslKB, profile->oomAdj);
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
    takeDead(pid, e.target);
  }
  mHost->trigger(payload(kHintRemoved, 0, e.target, pid));
  letWorkerRun();
}

void Simulator::letWorkerRun() {
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

void Simulator::onLearn() { mHost->learn(); }

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

Victim Simulator::takeDead(pid_t pid, const std::string& poolName) {
  const auto mem = mDevice->process(pid);
  mDevice->removeProcess(pid);
  auto owner = mOwners.find(pid);
  const std::string name = owner == mOwners.end() ? poolName : owner->second;
  forget(pid);
  reassignOomAdj();
  return Victim{name, pid, mem ? mem->totalKB() : 0, KillBy::Background, false};
}

std::vector<Victim> Simulator::settleDeaths() {
  std::vector<Victim> out;
  for (const auto& d : mPool.collectDeaths()) out.push_back(takeDead(d.pid, d.name));
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

std::map<std::string, std::pair<int64_t, int64_t>> Simulator::learntRows() const {
  std::map<std::string, std::pair<int64_t, int64_t>> out;
  const std::string path = (fs::path(mOptions.runDir) / "data/vendor/kx/Vorakaction.db").string();
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
  const auto rows = learntRows();
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
  std::fprintf(stderr, "\r\033[Kvorak-sim %s [%s%s] %3d%%  %d launches", clockTime(at).c_str(),
               std::string(static_cast<size_t>(filled), '#').c_str(), std::string(static_cast<size_t>(20 - filled), '.').c_str(),
               pct, mLaunchCount);
  std::fflush(stderr);
}

void Simulator::finishReport() {
  const auto rows = learntRows();
  for (const auto& a : mScenario.apps) {
    AppOutcome o;
    o.name = a.name;
    o.trueIonKB = a.ionKgslKB;
    o.trueRssKB = a.rssSwapKB;
    auto it = rows.find(a.name);
    if (it != rows.end()) {
      o.learntIonKB = it->second.first;
      o.learntRssKB = it->second.second;
    }
    auto run = mApps.find(a.name);
    if (run != mApps.end()) {
      o.launches = run->second.launches;
      o.killed = run->second.killed;
    }
    const int32_t state = mHost->state(a.name);
    o.state = vorakdb::stateName(state);
    if (o.state.empty()) o.state = std::to_string(state);
    mReport.addApp(o);
  }
}

}  // namespace vsim
