// The built-in scenario: a day of use of a 4 GB phone. Launches follow the
// popularity of each app, shifted by the time of day (news in the morning,
// games and video in the evening); now and then the user clears an app from
// recents; the device learns when it is idle, every two hours.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "Rng.h"
#include "Scenario.h"

namespace vsim {
namespace {

struct AppUse {
  AppProfile profile;
  double weight;   // launches per day, relative
  double morning;  // multiplier 06:00-10:00
  double evening;  // multiplier 18:00-24:00
};

AppUse app(const char* name, uint64_t rss, uint64_t ion, uint64_t file, std::vector<std::string> services,
           double weight, double morning = 1.0, double evening = 1.0) {
  AppProfile s;
  s.name = name;
  s.rssSwapKB = rss;
  s.ionKgslKB = ion;
  s.fileKB = file;
  s.services = std::move(services);
  s.growKB = rss / 20;
  s.jitter = 0.06;
  return AppUse{s, weight, morning, evening};
}

}  // namespace

Scenario defaultScenario() {
  Scenario sc;
  sc.name = "a day on a 4 GB phone (built in)";
  sc.device = *DeviceProfile::forClass(4);
  sc.samplesThreshold = 3;
  sc.seed = 7;

  sc.services = {
      {"svc.push", 26000, 0, 6000, 800},         {"svc.sync", 34000, 0, 8000, 800},
      {"svc.location", 42000, 0, 9000, 500},     {"svc.audio", 30000, 4000, 7000, 200},
      {"svc.media.codec", 58000, 24000, 10000, 800}, {"svc.camera.provider", 70000, 40000, 12000, 500},
      {"svc.media.scanner", 38000, 0, 9000, 800}, {"svc.sensors", 18000, 0, 4000, 500},
  };

  const std::vector<AppUse> uses = {
      app("com.example.messages", 140000, 30000, 40000, {"svc.push"}, 10),
      app("com.example.chat", 200000, 50000, 50000, {"svc.push"}, 9),
      app("com.example.social", 350000, 110000, 80000, {"svc.push", "svc.media.codec"}, 8, 0.8, 1.5),
      app("com.example.mail", 170000, 35000, 50000, {"svc.push", "svc.sync"}, 6, 2.0, 0.6),
      app("com.example.browser", 320000, 90000, 80000, {"svc.media.codec"}, 6),
      app("com.example.news", 180000, 45000, 45000, {"svc.sync"}, 4, 3.0, 0.7),
      app("com.example.music", 150000, 25000, 40000, {"svc.media.codec", "svc.audio"}, 4, 1.5, 1.0),
      app("com.example.video", 300000, 140000, 70000, {"svc.media.codec", "svc.audio"}, 3, 0.3, 2.5),
      app("com.example.maps", 380000, 150000, 90000, {"svc.location", "svc.sync"}, 3, 1.8, 0.8),
      app("com.example.camera", 260000, 160000, 60000, {"svc.camera.provider", "svc.media.codec"}, 3),
      app("com.example.gallery", 210000, 120000, 50000, {"svc.media.scanner"}, 2),
      app("com.example.game.puzzle", 420000, 200000, 100000, {"svc.audio"}, 2, 0.3, 2.0),
      app("com.example.game.racing", 560000, 260000, 120000, {"svc.audio"}, 1.5, 0.2, 2.5),
      app("com.example.calendar", 110000, 20000, 30000, {"svc.sync"}, 2, 2.5, 0.5),
      app("com.example.notes", 90000, 15000, 25000, {}, 1.5),
      app("com.example.weather", 100000, 25000, 30000, {"svc.location"}, 2, 3.0, 0.5),
      app("com.example.shop", 280000, 80000, 70000, {"svc.push"}, 1.5, 0.5, 1.8),
      app("com.example.bank", 160000, 30000, 45000, {}, 1),
      app("com.example.fitness", 130000, 30000, 35000, {"svc.location", "svc.sensors"}, 1, 2.0, 1.0),
      app("com.example.podcasts", 140000, 25000, 35000, {"svc.audio", "svc.sync"}, 2, 2.5, 0.8),
  };
  for (const auto& u : uses) sc.apps.push_back(u.profile);

  const double dayStart = 6 * 3600.0;
  // Resident services come up with the device; the camera and media scanner
  // start when an app first needs them.
  for (const char* s : {"svc.push", "svc.sync", "svc.location", "svc.audio", "svc.media.codec", "svc.sensors"})
    sc.events.push_back({dayStart, EventType::Service, s, 101, 0});

  Rng rng(sc.seed);
  std::string foreground, previous;
  double t = 7 * 3600.0;
  const double end = 23.5 * 3600.0;
  double nextLearn = 8 * 3600.0;
  while (t < end) {
    while (nextLearn <= t) {
      sc.events.push_back({nextLearn, EventType::Learn, "", 101, 0});
      nextLearn += 2 * 3600.0;
    }
    const double hour = t / 3600.0;
    double total = 0;
    std::vector<double> w;
    for (const auto& u : uses) {
      double x = u.weight * (hour < 10 ? u.morning : hour >= 18 ? u.evening : 1.0);
      if (u.profile.name == foreground) x = 0;
      w.push_back(x);
      total += x;
    }
    double pick = rng.uniform() * total;
    size_t i = 0;
    while (i + 1 < w.size() && pick >= w[i]) pick -= w[i++];
    const std::string& name = uses[i].profile.name;

    sc.events.push_back({t, EventType::Prepare, "", 101, 0});
    sc.events.push_back({t + 1, EventType::Launch, name, 101, 0});
    sc.events.push_back({t + 3, EventType::Complete, name, rng.uniform() < 0.9 ? 101 : 102, 0});
    // Sometimes the user clears the app used before this one from recents.
    if (!previous.empty() && previous != name && rng.uniform() < 0.12)
      sc.events.push_back({t + 60, EventType::Remove, previous, 101, 0});
    previous = foreground;
    foreground = name;
    t += 180 + std::floor(rng.uniform() * 540);  // 3 to 12 minutes of use
  }
  sc.events.push_back({end, EventType::Learn, "", 101, 0});
  std::stable_sort(sc.events.begin(), sc.events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
  return sc;
}

}  // namespace vsim
