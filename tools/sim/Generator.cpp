#include "Generator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <string>
#include <vector>

#include "Rng.h"

namespace vsim {
namespace {

constexpr double kHour = 3600.0;
constexpr double kDay = 24 * kHour;

// A time of day the category is used at, and how strongly.
struct Peak {
  double hour;
  double weight;
};

// A kind of app: its size, the services it needs and its hours of use.
struct Category {
  const char* stem;
  uint64_t minRssKB, maxRssKB;
  double ionShare;  // graphics memory as a share of rss_swap
  std::vector<std::string> services;
  double base;  // use at any waking hour
  std::vector<Peak> weekday, weekend;
};

const std::vector<Category>& categories() {
  static const std::vector<Category> kCategories = {
      {"messages", 120000, 200000, 0.2, {"svc.push"}, 0.6, {{8, 1}, {12.5, 1}, {19, 1}}, {{11, 1}, {20, 1}}},
      {"chat", 180000, 260000, 0.25, {"svc.push"}, 0.6, {{9, 1}, {13, 1}, {21, 1}}, {{12, 1}, {18, 1.5}}},
      {"social", 300000, 420000, 0.3, {"svc.push", "svc.media.codec"}, 0.3, {{8, 0.6}, {13, 0.8}, {21.5, 1.5}},
       {{11, 1}, {16, 1}, {22, 1.5}}},
      {"mail", 150000, 220000, 0.2, {"svc.push", "svc.sync"}, 0.1, {{8, 2}, {10.5, 1}, {14, 1}, {17, 0.8}},
       {{10, 0.3}}},
      {"browser", 280000, 380000, 0.28, {"svc.media.codec"}, 0.3, {{10, 1}, {15, 1}, {21, 1}}, {{12, 1}, {20, 1}}},
      {"news", 160000, 240000, 0.25, {"svc.sync"}, 0.1, {{7.5, 2.5}, {12.5, 1}}, {{9.5, 1.5}}},
      {"music", 130000, 180000, 0.17, {"svc.media.codec", "svc.audio"}, 0.1, {{8, 2}, {18, 2}}, {{11, 1}, {16, 1}}},
      {"video", 280000, 450000, 0.45, {"svc.media.codec", "svc.audio"}, 0.05, {{21, 2.5}}, {{14, 1.5}, {21, 2.5}}},
      {"maps", 350000, 520000, 0.4, {"svc.location", "svc.sync"}, 0.05, {{8, 1.5}, {18, 1.5}}, {{11, 1.5}, {15, 1}}},
      {"camera", 240000, 400000, 0.6, {"svc.camera.provider", "svc.media.codec"}, 0.05, {{13, 0.5}},
       {{12, 1.5}, {16, 1.5}}},
      {"game", 400000, 700000, 0.45, {"svc.audio"}, 0.02, {{13, 0.5}, {21, 2}}, {{15, 2}, {20, 2}}},
      {"notes", 90000, 150000, 0.15, {"svc.sync"}, 0.1, {{9, 2}, {14, 2}}, {{10, 0.2}}},
      {"shop", 250000, 330000, 0.28, {"svc.push"}, 0.05, {{21, 1}}, {{14, 1.5}}},
      {"bank", 150000, 190000, 0.18, {}, 0.05, {{12, 0.5}}, {{10, 0.5}}},
      {"fitness", 120000, 160000, 0.2, {"svc.location", "svc.sensors"}, 0.02, {{7, 1.5}, {18.5, 1.5}}, {{9, 2}}},
      {"podcasts", 130000, 170000, 0.17, {"svc.audio", "svc.sync"}, 0.05, {{8, 1.5}, {17.5, 1.5}}, {{10, 1}}},
  };
  return kCategories;
}

// Resident services come up with the device; the camera provider and the
// media scanner start when an app first needs them.
const std::vector<ServiceProfile>& services() {
  static const std::vector<ServiceProfile> kServices = {
      {"svc.push", 26000, 0, 6000, 800},           {"svc.sync", 34000, 0, 8000, 800},
      {"svc.location", 42000, 0, 9000, 500},       {"svc.audio", 30000, 4000, 7000, 200},
      {"svc.media.codec", 58000, 24000, 10000, 800}, {"svc.camera.provider", 70000, 40000, 12000, 500},
      {"svc.sensors", 18000, 0, 4000, 500},
  };
  return kServices;
}
constexpr std::array<const char*, 6> kResident = {"svc.push",  "svc.sync",        "svc.location",
                                                  "svc.audio", "svc.media.codec", "svc.sensors"};

// One app of the generated scenario and its habits.
struct Habit {
  AppProfile profile;
  const Category* category;
  double popularity;
  double weekdayPeak, weekendPeak;  // the user's own hour for the app, per kind of day
  int installDay = 0;               // not launched before this day
  int removeDay = -1;               // removed at noon of this day; -1: never
};

double bump(double hour, double at) {
  const double d = (hour - at) / 1.5;
  return std::exp(-0.5 * d * d);
}

bool weekend(int day) { return day % 7 >= 5; }

// How much the user wants the app at `hour` of `day`: the category's hours,
// the user's own peak hour, and the app's popularity.
double want(const Habit& h, int day, double hour) {
  if (day < h.installDay) return 0;
  if (h.removeDay >= 0 && (day > h.removeDay || (day == h.removeDay && hour >= 12))) return 0;
  const bool we = weekend(day);
  double w = h.category->base;
  for (const Peak& p : we ? h.category->weekend : h.category->weekday) w += p.weight * bump(hour, p.hour);
  w += 2.0 * bump(hour, we ? h.weekendPeak : h.weekdayPeak);
  return w * h.popularity;
}

// Apps on smaller phones are leaner (lower resolution, lighter builds).
double sizeScale(int gb) { return gb == 2 ? 0.7 : gb == 6 ? 1.2 : 1.0; }

std::vector<Habit> makeHabits(const GeneratorOptions& o, const DeviceProfile& device, Rng& rng) {
  const auto& cats = categories();
  std::vector<size_t> rank(static_cast<size_t>(o.apps));
  for (size_t i = 0; i < rank.size(); ++i) rank[i] = i;
  for (size_t i = rank.size(); i > 1; --i) std::swap(rank[i - 1], rank[rng.below(i)]);

  std::vector<Habit> habits;
  for (int i = 0; i < o.apps; ++i) {
    Habit h;
    h.category = &cats[static_cast<size_t>(i) % cats.size()];
    AppProfile& p = h.profile;
    p.name = std::string("com.gen.") + h.category->stem + std::to_string(i / cats.size() + 1);
    const double rss = rng.between(static_cast<double>(h.category->minRssKB), static_cast<double>(h.category->maxRssKB));
    p.rssSwapKB = static_cast<uint64_t>(rss * sizeScale(o.deviceGb));
    p.ionKgslKB = static_cast<uint64_t>(static_cast<double>(p.rssSwapKB) * h.category->ionShare);
    p.fileKB = p.rssSwapKB / 4;
    p.services = h.category->services;
    p.growKB = p.rssSwapKB / 20;
    p.jitter = 0.06;
    // Bigger apps take longer to start.
    const double size = static_cast<double>(p.needKB()) / (512.0 * 1024.0);
    p.coldLaunchMs = std::round(device.costs.coldLaunchMs * (0.7 + 0.6 * size));
    p.warmLaunchMs = std::round(device.costs.warmLaunchMs * (0.8 + 0.4 * size));
    h.popularity = 1.0 / std::pow(static_cast<double>(rank[static_cast<size_t>(i)]) + 1.0, 0.8);
    h.weekdayPeak = rng.between(7, 23);
    h.weekendPeak = rng.between(9, 24);
    if (o.days >= 3 && rng.uniform() < 0.08) h.installDay = 1 + static_cast<int>(rng.below(static_cast<uint64_t>(o.days - 1)));
    if (o.days >= 3 && rng.uniform() < 0.05)
      h.removeDay = std::max(h.installDay, 1 + static_cast<int>(rng.below(static_cast<uint64_t>(o.days - 1))));
    habits.push_back(std::move(h));
  }
  return habits;
}

// Picks the app the user opens at `hour` of `day`, never the one in front; -1 when none is wanted.
int pick(const std::vector<Habit>& habits, int day, double hour, int foreground, Rng& rng) {
  std::vector<double> w;
  double total = 0;
  for (size_t i = 0; i < habits.size(); ++i) {
    w.push_back(static_cast<int>(i) == foreground ? 0 : want(habits[i], day, hour));
    total += w.back();
  }
  if (total <= 0) return -1;
  double x = rng.uniform() * total;
  for (size_t i = 0; i < w.size(); ++i) {
    if (x < w[i]) return static_cast<int>(i);
    x -= w[i];
  }
  return static_cast<int>(w.size()) - 1;
}

class DayWriter {
 public:
  DayWriter(Scenario& sc, const std::vector<Habit>& habits, Rng& rng) : mSc(sc), mHabits(habits), mRng(rng) {}

  void write(int day) {
    const double start = day * kDay;
    const bool we = weekend(day);
    for (double h = 8; h <= 22; h += 2) learn(start + h * kHour);
    learn(start + 3 * kHour);
    for (const Habit& h : mHabits)
      if (h.removeDay == day) mSc.events.push_back({start + 12 * kHour, EventType::Remove, h.profile.name, 101, 0});

    double t = start + (we ? mRng.between(8.5, 10) : mRng.between(6.5, 7.5)) * kHour;
    const double sleep = start + (we ? mRng.between(23.5, 24.5) : mRng.between(23, 24)) * kHour;
    while (t < sleep) {
      t = session(day, t);
      // Minutes until the phone is picked up again.
      t += std::floor(-std::log(1.0 - mRng.uniform()) * (we ? 14 : 10) * 60) + 60;
    }
  }

 private:
  void learn(double at) { mSc.events.push_back({at, EventType::Learn, "", 101, 0}); }

  // A few apps in a row; returns when the screen goes off.
  double session(int day, double t) {
    const int opens = 1 + static_cast<int>(mRng.below(3));
    for (int k = 0; k < opens; ++k) {
      const int app = pick(mHabits, day, std::fmod(t, kDay) / kHour, mForeground, mRng);
      if (app < 0) break;
      const std::string& name = mHabits[static_cast<size_t>(app)].profile.name;
      mSc.events.push_back({t, EventType::Prepare, "", 101, 0});
      mSc.events.push_back({t + 1, EventType::Launch, name, 101, 0});
      mSc.events.push_back({t + 3, EventType::Complete, name, mRng.uniform() < 0.9 ? 101 : 102, 0});
      // Sometimes the user clears the app used before from recents.
      if (mForeground >= 0 && mRng.uniform() < 0.1)
        mSc.events.push_back({t + 60, EventType::Remove, mHabits[static_cast<size_t>(mForeground)].profile.name, 101, 0});
      mForeground = app;
      t += 60 + std::floor(mRng.uniform() * 300);  // one to six minutes of use
    }
    return t;
  }

  Scenario& mSc;
  const std::vector<Habit>& mHabits;
  Rng& mRng;
  int mForeground = -1;
};

}  // namespace

Scenario generateScenario(const GeneratorOptions& o) {
  const auto device = DeviceProfile::forClass(o.deviceGb);
  if (!device) throw ScenarioError("device: expected 2, 4 or 6 (GB)");
  if (o.days < 1 || o.days > kMaxDays) throw ScenarioError("days: expected 1 to " + std::to_string(kMaxDays));
  if (o.apps < 1 || static_cast<size_t>(o.apps) > kMaxApps)
    throw ScenarioError("apps: expected 1 to " + std::to_string(kMaxApps));

  Scenario sc;
  sc.name = std::to_string(o.days) + " days, " + std::to_string(o.apps) + " apps, " + device->memClass() +
            " class, seed " + std::to_string(o.seed) + " (generated)";
  sc.device = *device;
  sc.seed = o.seed;
  sc.services = services();
  Rng rng(o.seed * 0x2545f4914f6cdd1dULL + 1);
  const std::vector<Habit> habits = makeHabits(o, sc.device, rng);
  for (const Habit& h : habits) sc.apps.push_back(h.profile);
  for (const char* s : kResident) sc.events.push_back({6 * kHour, EventType::Service, s, 101, 0});
  DayWriter writer(sc, habits, rng);
  for (int day = 0; day < o.days; ++day) writer.write(day);
  std::stable_sort(sc.events.begin(), sc.events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
  return sc;
}

Scenario builtinWeek(int deviceGb) {
  Scenario sc = generateScenario({7, 24, deviceGb, 7});
  sc.name = "a week on a " + std::to_string(deviceGb) + " GB phone (built in)";
  return sc;
}

}  // namespace vsim
