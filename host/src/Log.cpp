// Reference implementation of the Android log: one logcat "threadtime" line
// per call ("MM-DD HH:MM:SS.mmm  PID  TID P TAG: message") on stderr, or
// appended to the file named by $KX_LOG_FILE.
#include "AndroidLog.h"
#include "kxhost/LogCapture.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <sys/time.h>

namespace kxhost {
namespace {

// Guards gSink, gExclusive and the output stream.
std::mutex gLogMutex;
std::shared_ptr<LogSink> gSink;
bool gExclusive = false;

char priorityLetter(int prio) {
  static const char kLetters[] = "??VDIWEFS";
  return (prio >= 0 && prio <= ANDROID_LOG_SILENT) ? kLetters[prio] : '?';
}

FILE* logStream() {
  // Opened once; the file stays open for the life of the process.
  static FILE* stream = [] {
    const char* path = std::getenv("KX_LOG_FILE");
    if (path != nullptr && *path != '\0') {
      if (FILE* f = std::fopen(path, "a")) {
        setvbuf(f, nullptr, _IOLBF, 0);
        return f;
      }
    }
    return stderr;
  }();
  return stream;
}

void writeThreadtime(int prio, const char* tag, const std::string& msg) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm);
  std::fprintf(logStream(), "%s.%03ld %5d %5ld %c %s: %s\n", stamp, static_cast<long>(tv.tv_usec / 1000),
               static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)), priorityLetter(prio),
               tag != nullptr ? tag : "", msg.c_str());
}

}  // namespace

void setLogSink(std::shared_ptr<LogSink> sink, bool exclusive) {
  std::lock_guard<std::mutex> lock(gLogMutex);
  gSink = std::move(sink);
  gExclusive = gSink != nullptr && exclusive;
}

void logLine(int prio, const char* tag, std::string msg) {
  // A message that already ends in a newline (several do, by design) is not
  // given a second one on output.
  std::string shown = msg;
  while (!shown.empty() && shown.back() == '\n') shown.pop_back();
  std::lock_guard<std::mutex> lock(gLogMutex);
  if (gSink) gSink->write(LogLine{prio, tag != nullptr ? tag : "", std::move(msg)});
  if (!gExclusive) writeThreadtime(prio, tag, shown);
}

class LogCapture::Sink : public LogSink {
 public:
  void write(const LogLine& line) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.push_back(line);
  }
  // Guards mLines: the log is written from any thread.
  mutable std::mutex mMutex;
  std::vector<LogLine> mLines;
};

LogCapture::LogCapture() : mSink(std::make_shared<Sink>()) { setLogSink(mSink, true); }
LogCapture::~LogCapture() { setLogSink(nullptr); }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mSink->mMutex);
  return mSink->mLines;
}

size_t LogCapture::count(const std::string& text, int prio) const {
  std::lock_guard<std::mutex> lock(mSink->mMutex);
  size_t n = 0;
  for (const LogLine& l : mSink->mLines)
    if ((prio < 0 || l.prio == prio) && l.msg.find(text) != std::string::npos) ++n;
  return n;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mSink->mMutex);
  mSink->mLines.clear();
}

}  // namespace kxhost

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string msg(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(&msg[0], msg.size() + 1, fmt, ap);
  va_end(ap);
  kxhost::logLine(prio, tag, std::move(msg));
  return n;
}
