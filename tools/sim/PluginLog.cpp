#include "PluginLog.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Scenario.h"

namespace vsim {
namespace {

// The text after `marker`, or nullptr.
const char* after(const std::string& msg, const char* marker) {
  const auto p = msg.find(marker);
  return p == std::string::npos ? nullptr : msg.c_str() + p + std::strlen(marker);
}

char letter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return prio >= 0 && prio <= 8 ? kLetters[prio] : '?';
}

// "(name ,hint, amount, freed, surplus)": the name may hold anything but " ,".
bool parsePass(const char* p, PluginEvent& e) {
  if (p == nullptr) return false;
  const char* sep = std::strstr(p, " ,");
  if (sep == nullptr) return false;
  e.app.assign(p, sep);
  int hint;
  double surplus;
  return std::sscanf(sep, " ,%d, %lf, %lf, %lf)", &hint, &e.amountKB, &e.freedKB, &surplus) == 4;
}

}  // namespace

std::optional<PluginEvent> parsePluginLine(const std::string& msg) {
  PluginEvent e{};
  struct KillForm {
    const char* marker;
    KillBy by;
  };
  static const KillForm kKills[] = {{"Killed Fav PID = ", KillBy::Favourite},
                                    {"Killed User PID = ", KillBy::User},
                                    {"Killed PID = ", KillBy::Background}};
  for (const auto& k : kKills) {
    if (const char* p = after(msg, k.marker)) {
      if (std::sscanf(p, "%d, to Free Memory = %ld KB", &e.pid, &e.kb) != 2) return std::nullopt;
      e.kind = PluginEvent::Kind::Kill;
      e.by = k.by;
      return e;
    }
  }
  if (parsePass(after(msg, "(Service - appName,hintID,memoryToGenerate,memoryGenerated, surplusServiceMemory) = ("),
                e)) {
    e.kind = PluginEvent::Kind::ServicePass;
    return e;
  }
  if (parsePass(after(msg, "(appName,hintID,memoryToGenerate,memoryGenerated, surplusMemory) = ("), e)) {
    e.kind = PluginEvent::Kind::AppPass;
    return e;
  }
  // Traced only: the simulator turns traces on.
  if (const char* p = after(msg, " Sum of weights = (")) {
    if (std::sscanf(p, "%lf)", &e.amountKB) != 1) return std::nullopt;
    e.kind = PluginEvent::Kind::Score;
    return e;
  }
  if (msg.find("Disabling") != std::string::npos) {
    e.kind = PluginEvent::Kind::Disabled;
    const auto colon = msg.find(": ", msg.find("() "));
    e.text = colon == std::string::npos ? msg : msg.substr(colon + 2);
    while (!e.text.empty() && (e.text.back() == '\n' || e.text.back() == ' ')) e.text.pop_back();
    return e;
  }
  return std::nullopt;
}

PluginLog::PluginLog(const std::string& path) : mFile(std::fopen(path.c_str(), "a")) {
  if (mFile == nullptr) throw std::runtime_error(path + ": " + std::strerror(errno));
}

PluginLog::~PluginLog() { std::fclose(mFile); }

void PluginLog::write(const kxhost::LogLine& line) {
  std::string msg = line.msg;
  while (!msg.empty() && msg.back() == '\n') msg.pop_back();
  auto event = parsePluginLine(msg);
  std::lock_guard<std::mutex> lock(mMutex);
  // Simulated time of day, then logcat's priority and tag.
  std::fprintf(mFile, "%s %c %s: %s\n", clockTime(mClock).c_str(), letter(line.prio), line.tag.c_str(), msg.c_str());
  ++mLines;
  if (event) mEvents.push_back(std::move(*event));
}

void PluginLog::setClock(double seconds) {
  std::lock_guard<std::mutex> lock(mMutex);
  mClock = seconds;
  std::fflush(mFile);
}

std::vector<PluginEvent> PluginLog::take() {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<PluginEvent> out;
  out.swap(mEvents);
  return out;
}

size_t PluginLog::lineCount() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mLines;
}

}  // namespace vsim
