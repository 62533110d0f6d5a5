// Kill candidates ordered by the memory (KB) that killing each would free.
//
// It keeps the order of a multimap from memory to pid: ascending memory,
// equal memories in the order they were added, a lookup by lower bound, the
// last entry as the largest, entries removed as they are looked at. Departs
// from the multimap itself for a sorted vector: the lists are rebuilt at
// every preparation hint and read at every launch, and one contiguous
// allocation costs a fraction of a node per candidate.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

class VorakCandidateList {
 public:
  using Entry = std::pair<long, int>;  // memory (KB), pid
  using const_iterator = std::vector<Entry>::const_iterator;

  void clear() { mEntries.clear(); }
  void reserve(size_t n) { mEntries.reserve(n); }
  // Appends an entry after every other one; sortByMemory() then puts it in
  // place. Adding and then sorting is what a multimap's insertions do.
  void add(long memoryKB, int pid) { mEntries.emplace_back(memoryKB, pid); }
  void sortByMemory() {
    std::stable_sort(mEntries.begin(), mEntries.end(),
                     [](const Entry& a, const Entry& b) { return a.first < b.first; });
  }

  bool empty() const { return mEntries.empty(); }
  size_t size() const { return mEntries.size(); }
  const_iterator begin() const { return mEntries.begin(); }
  const_iterator end() const { return mEntries.end(); }

  // The first entry of at least `memoryKB`, else the last (the largest).
  // The list must not be empty.
  const_iterator choose(long memoryKB) const {
    auto it = std::lower_bound(mEntries.begin(), mEntries.end(), memoryKB,
                               [](const Entry& e, long wanted) { return e.first < wanted; });
    return it != mEntries.end() ? it : std::prev(it);
  }
  void erase(const_iterator it) { mEntries.erase(it); }
  template <typename Pred>
  void eraseIf(Pred pred) {
    mEntries.erase(std::remove_if(mEntries.begin(), mEntries.end(), [&](const Entry& e) { return pred(e.second); }),
                   mEntries.end());
  }

 private:
  std::vector<Entry> mEntries;
};
