// Test seam of the reference host's log: captures the lines written through
// __android_log_print instead of (or besides) the normal output.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kxhost {

struct LogLine {
  int prio;
  std::string tag;
  std::string msg;  // the formatted message, without logcat's own header
};

class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogLine& line) = 0;
};

// Installs an extra process-wide sink (null removes it). Lines still go to
// the normal output (stderr or $KX_LOG_FILE) unless `exclusive` is set.
void setLogSink(std::shared_ptr<LogSink> sink, bool exclusive = true);

// RAII capture for tests: installed on construction, removed on destruction.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // Lines whose message contains `text` (and whose priority is `prio` if >= 0).
  size_t count(const std::string& text, int prio = -1) const;
  bool contains(const std::string& text, int prio = -1) const { return count(text, prio) > 0; }
  void clear();

 private:
  class Sink;
  std::shared_ptr<Sink> mSink;
};

}  // namespace kxhost
