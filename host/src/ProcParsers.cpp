#include "ProcParsers.h"

#include <charconv>
#include <string_view>
#include <vector>

namespace kxhost {
namespace {

// Keeps the first problem of a file; later ones are usually its echoes.
class FirstError {
 public:
  explicit FirstError(std::string* out) : mOut(out) {}
  // lineNo 0: a problem of the file as a whole.
  void note(int lineNo, const std::string& what) {
    if (mOk && mOut != nullptr) *mOut = lineNo > 0 ? "line " + std::to_string(lineNo) + ": " + what : what;
    mOk = false;
  }
  bool ok() const { return mOk; }

 private:
  std::string* mOut;
  bool mOk = true;
};

// Calls `fn(lineNo, line)` for every line, numbering from 1.
template <typename Fn>
void forEachLine(const std::string& text, Fn&& fn) {
  std::string_view rest(text);
  for (int lineNo = 1; !rest.empty(); ++lineNo) {
    size_t end = rest.find('\n');
    fn(lineNo, rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
}

// The blank-separated words of a line: the first kMax kept, all counted.
// On the stack, since every line of every read passes through here.
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view skipBlanks(std::string_view line) {
  const char* p = line.data();
  const char* const end = p + line.size();
  while (p != end && isBlank(*p)) ++p;
  return std::string_view(p, static_cast<size_t>(end - p));
}

class Words {
 public:
  static constexpr size_t kMax = 24;

  explicit Words(std::string_view line) {
    const char* p = line.data();
    const char* const end = p + line.size();
    while (true) {
      while (p != end && isBlank(*p)) ++p;
      if (p == end) return;
      const char* word = p;
      while (p != end && !isBlank(*p)) ++p;
      if (mCount < kMax) mWords[mCount] = std::string_view(word, static_cast<size_t>(p - word));
      ++mCount;
    }
  }
  size_t size() const { return mCount; }
  // Empty beyond the words kept.
  std::string_view operator[](size_t i) const { return i < kMax ? mWords[i] : std::string_view(); }

 private:
  std::string_view mWords[kMax];
  size_t mCount = 0;
};

std::string_view trim(std::string_view s) {
  size_t begin = s.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  return s.substr(begin, s.find_last_not_of(" \t\r\n") - begin + 1);
}

// The whole word must be the number; `out` is left alone otherwise.
template <typename Int>
bool parseNumber(std::string_view word, Int* out) {
  Int value{};
  auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (ec != std::errc() || end != word.data() + word.size()) return false;
  *out = value;
  return true;
}

// What a file held, for an error line: a control or non-ASCII byte shows as
// \xNN, so that no content of the file can end the line or reach a log raw.
std::string quoted(std::string_view s) {
  std::string out = "'";
  for (unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      static constexpr char kDigits[] = "0123456789abcdef";
      out += "\\x";
      out += kDigits[c >> 4];
      out += kDigits[c & 0xf];
    }
  }
  return out + "'";
}

// Parses "Key:   123 kB" (the unit is optional). Shared by meminfo and the
// numeric lines of a process's status.
bool parseKeyValue(std::string_view line, std::string_view* key, uint64_t* value, std::string* what) {
  size_t colon = line.find(':');
  const Words words(colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1));
  bool unitOk = words.size() == 1 || (words.size() == 2 && words[1] == "kB");
  if (colon == 0 || colon == std::string_view::npos || !unitOk) {
    *what = "expected 'Key: value [kB]', got " + quoted(line);
    return false;
  }
  *key = trim(line.substr(0, colon));
  if (!parseNumber(words[0], value)) {
    *what = "value of " + std::string(*key) + " is not a number: " + quoted(words[0]);
    return false;
  }
  return true;
}

// DMA32 is folded into DMA: both are the address-limited low zones, and which
// of the two a kernel has (or whether it has both) depends on the architecture
// and kernel version (arm64 moved its 4 GB zone from DMA32 to DMA and back),
// so one slot keeps the record comparable across devices.
ZonePages* zoneSlot(ZoneInfo* info, std::string_view name) {
  if (name == "DMA" || name == "DMA32") return &info->dma;
  if (name == "Normal") return &info->normal;
  if (name == "Movable") return &info->movable;
  if (name == "HighMem") return &info->highMem;
  return nullptr;  // Device and other zones hold no general-purpose memory
}

// Kernels before 4.8 kept the LRU lists per zone and named the counters
// nr_active_anon etc.; later ones say nr_zone_active_anon and print the
// unprefixed names once per node, under "per-node stats".
uint64_t* zoneCounter(ZonePages* zone, std::string_view name) {
  if (name.substr(0, 8) == "nr_zone_") name.remove_prefix(8);
  else if (name.substr(0, 3) == "nr_") name.remove_prefix(3);
  else return nullptr;
  if (name == "active_anon") return &zone->activeAnon;
  if (name == "inactive_anon") return &zone->inactiveAnon;
  if (name == "active_file") return &zone->activeFile;
  if (name == "inactive_file") return &zone->inactiveFile;
  return nullptr;
}

// Walks zoneinfo one line at a time. Only the lines that feed the record are
// checked; the rest (protection, pagesets, ...) vary too much between kernels.
class ZoneinfoReader {
 public:
  ZoneinfoReader(ZoneInfo* out, FirstError* errors) : mOut(out), mErrors(errors) {}

  void line(int lineNo, std::string_view line) {
    // Most lines (pagesets, watermarks, protection, node counters) feed
    // nothing: they are passed over on how they begin, unsplit.
    const std::string_view rest = skipBlanks(line);
    auto startsWith = [rest](std::string_view prefix) { return rest.substr(0, prefix.size()) == prefix; };
    const bool counter = !mInNodeStats && startsWith("nr_");
    if (!counter && !startsWith("Node") && !startsWith("per-node") && !startsWith("pages")) return;
    const Words words(line);
    if (words[0] == "Node") return header(lineNo, line, words);
    if (words[0] == "per-node") {
      mInNodeStats = true;
    } else if (words[0] == "pages" && words.size() > 1 && words[1] == "free") {
      mInNodeStats = false;  // the node block ends where the zone's own lines start
      add(lineNo, line, words, 2, mZone != nullptr ? &mZone->freePages : nullptr);
    } else if (!mInNodeStats && words[0].substr(0, 3) == "nr_") {
      add(lineNo, line, words, 1, mZone != nullptr ? zoneCounter(mZone, words[0]) : nullptr);
    }
  }

 private:
  // "Node 0, zone   Normal"
  void header(int lineNo, std::string_view line, const Words& words) {
    mInNodeStats = false;
    mSeenHeader = true;
    mZone = nullptr;
    if (words.size() != 4 || words[2] != "zone") {
      mErrors->note(lineNo, "expected 'Node N, zone NAME', got " + quoted(line));
      return;
    }
    mZone = zoneSlot(mOut, words[3]);
  }

  // Adds the number in words[index] to `counter` (null: a line not kept).
  void add(int lineNo, std::string_view line, const Words& words, size_t index,
           uint64_t* counter) {
    if (!mSeenHeader) return mErrors->note(lineNo, "counter before any zone header: " + quoted(line));
    if (counter == nullptr) return;
    uint64_t value{};
    if (words.size() != index + 1 || !parseNumber(words[index], &value)) {
      return mErrors->note(lineNo, "expected a page count, got " + quoted(line));
    }
    *counter += value;
  }

  ZoneInfo* mOut;
  FirstError* mErrors;
  ZonePages* mZone = nullptr;
  bool mSeenHeader = false;
  bool mInNodeStats = false;
};

}  // namespace

int MemInfo::slot(std::string_view key) {
  for (size_t i = 0; i < std::size(kKeys); ++i) {
    if (kKeys[i] == key) return static_cast<int>(i);
  }
  return -1;
}

uint64_t MemInfo::get(std::string_view key) const {
  const int i = slot(key);
  return i >= 0 ? values[i] : 0;
}

bool parseMeminfo(const std::string& text, MemInfo* out, std::string* error) {
  FirstError errors(error);
  forEachLine(text, [&](int lineNo, std::string_view line) {
    if (trim(line).empty()) return;
    std::string_view key;
    uint64_t value{};
    std::string what;
    if (parseKeyValue(line, &key, &value, &what)) {
      // A key given twice counts as its last value.
      if (const int i = MemInfo::slot(key); i >= 0) out->values[i] = value;
    } else {
      errors.note(lineNo, what);
    }
  });
  return errors.ok();
}

bool parseZoneinfo(const std::string& text, ZoneInfo* out, std::string* error) {
  FirstError errors(error);
  ZoneinfoReader reader(out, &errors);
  forEachLine(text, [&](int lineNo, std::string_view line) { reader.line(lineNo, line); });
  return errors.ok();
}

// mm_stat is one line of byte counts: orig_data_size compr_data_size
// mem_used_total mem_limit mem_used_max, then page counts that newer
// kernels append. Only the first three columns are relied on.
bool parseZramMmStat(const std::string& text, ZramStat* out, std::string* error) {
  FirstError errors(error);
  const Words words(trim(text));
  uint64_t orig{};
  uint64_t used{};
  if (words.size() < 3) {
    errors.note(1, "expected at least 3 columns, got " + quoted(trim(text)));
  } else if (!parseNumber(words[0], &orig) || !parseNumber(words[2], &used)) {
    errors.note(1, "expected byte counts, got " + quoted(trim(text)));
  } else {
    out->origDataKB = orig / 1024;
    out->memUsedTotalKB = used / 1024;
  }
  return errors.ok();
}

bool parseProcStatus(const std::string& text, ProcStatus* out, std::string* error) {
  FirstError errors(error);
  bool named = false;
  forEachLine(text, [&](int lineNo, std::string_view line) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    std::string_view field = line.substr(0, colon);
    if (field == "Name") {
      // The name may hold blanks; only the separator after the colon goes.
      out->name = std::string(trim(line.substr(colon + 1)));
      named = true;
      return;
    }
    uint64_t* target = field == "RssFile" ? &out->rssFileKB
                     : field == "RssAnon" ? &out->rssAnonKB
                     : field == "VmSwap"  ? &out->swapKB
                                          : nullptr;
    if (target == nullptr) return;
    std::string_view key;
    std::string what;
    if (!parseKeyValue(line, &key, target, &what)) errors.note(lineNo, what);
  });
  if (!named) errors.note(0, "no Name line");
  return errors.ok();
}

// "pid (comm) state ppid ...": the name may hold blanks and parentheses, so
// the fields are counted from the last ')'. Field 3 (state) is the first
// word after it, field 22 the twentieth.
bool parseProcStatStartTime(const std::string& text, uint64_t* out, std::string* error) {
  FirstError errors(error);
  size_t close = text.rfind(')');
  if (close == std::string::npos) {
    errors.note(1, "no ')' after the process name");
    return errors.ok();
  }
  const Words words(trim(std::string_view(text).substr(close + 1)));
  if (words.size() < 20) {
    errors.note(1, "expected at least 22 fields, got " + std::to_string(words.size() + 2));
  } else if (!parseNumber(words[19], out)) {
    errors.note(1, "start time is not a number: " + quoted(words[19]));
  }
  return errors.ok();
}

bool parseSingleInt(const std::string& text, int64_t* out, std::string* error) {
  FirstError errors(error);
  if (!parseNumber(trim(text), out)) errors.note(1, "expected one integer, got " + quoted(trim(text)));
  return errors.ok();
}

}  // namespace kxhost
