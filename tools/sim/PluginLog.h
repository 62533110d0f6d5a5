// The plug-in's log as the simulator reads it: every line goes to a file in
// the run directory, and the lines that tell what the kill action decided and
// did are turned into events for the report.
#pragma once

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Report.h"
#include "kxhost/LogCapture.h"

namespace vsim {

struct PluginEvent {
  enum class Kind {
    Kill,           // a process killed; pid, kb, by
    AppPass,        // the decision for the app: app, amount, freed
    ServicePass,    // the pass for its services: app, amount, freed
    Score,          // the model's biased sum for the launch: amountKB holds it
    Disabled,       // the feature gave up while starting
  };
  Kind kind;
  int pid = 0;
  long kb = 0;
  KillBy by = KillBy::Background;
  std::string app;
  double amountKB = 0;
  double freedKB = 0;
  std::string text;  // the message, for Disabled
};

// One message of the plug-in (without logcat's header) as an event, if it is one.
std::optional<PluginEvent> parsePluginLine(const std::string& message);

class PluginLog : public kxhost::LogSink {
 public:
  // Appends to `path`; throws std::runtime_error when it cannot be opened.
  explicit PluginLog(const std::string& path);
  ~PluginLog() override;

  void write(const kxhost::LogLine& line) override;
  // Simulated time stamped on the lines that follow.
  void setClock(double seconds);
  // Events since the last call.
  std::vector<PluginEvent> take();
  size_t lineCount() const;

 private:
  // Guards everything below: the plug-in logs from its worker, the hint hub,
  // the metering thread and the simulator's own thread.
  mutable std::mutex mMutex;
  FILE* mFile;
  double mClock = 0;
  size_t mLines = 0;
  std::vector<PluginEvent> mEvents;
};

}  // namespace vsim
