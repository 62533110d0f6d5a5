#include "VorakModelInputs.h"

#include <limits>
#include <string_view>

namespace {

constexpr size_t input(std::string_view name) {
  for (size_t i = 0; i < kVorakFeatureNames.size(); ++i) {
    if (kVorakFeatureNames[i] == name) return i;
  }
  return kVorakFeatureNames.size();
}

// Index of a model input, checked at compile time.
#define VORAK_INPUT(name)                                                      \
  ([] {                                                                        \
    constexpr size_t i = input(name);                                          \
    static_assert(i < kVorakFeatureNames.size(), "unknown model input " name); \
    return i;                                                                  \
  }())

// A float figure as a whole number, truncated toward zero. Out-of-range
// values saturate, as the target's conversion does, instead of being
// undefined. The figures are differences of finite numbers, never NaN.
int toInt(float v) {
  if (v <= -2147483648.0f) return std::numeric_limits<int>::min();
  if (v >= 2147483648.0f) return std::numeric_limits<int>::max();
  return static_cast<int>(v);
}

}  // namespace

float VorakModelInputs::compute(const SysStats& s, int killsafeANON, int killsafeUNRECLAIM, float safeload,
                                Values& values) {
  const int freeKB = checkOverflowAndAdd(s.dmaFreeKB, s.normalFreeKB, s.movableFreeKB, s.highMemFreeKB);
  const int file = checkOverflowAndAdd(s.dmaActiveFileKB, s.dmaInactiveFileKB, s.normalActiveFileKB,
                                       s.normalInactiveFileKB, s.movableActiveFileKB, s.movableInactiveFileKB,
                                       s.highMemActiveFileKB, s.highMemInactiveFileKB);
  const int anon = checkOverflowAndAdd(s.dmaActiveAnonKB, s.dmaInactiveAnonKB, s.normalActiveAnonKB,
                                       s.normalInactiveAnonKB, s.movableActiveAnonKB, s.movableInactiveAnonKB,
                                       s.highMemActiveAnonKB, s.highMemInactiveAnonKB);
  const int pageCache = toInt(checkAndDiff(file, checkOverflowAndAdd(s.swapCachedKB, s.buffersKB)));
  const int cachedKB = toInt(checkAndDiff(pageCache, s.shmemKB));
  const int accounted = checkOverflowAndAdd(
      checkOverflowAndAdd(freeKB, pageCache, anon),
      checkOverflowAndAdd(s.swapCachedKB, s.buffersKB, s.pageTablesKB, s.kernelStackKB, s.sUnreclaimKB,
                          s.sReclaimableKB, s.zramUsedKB, s.unreclaimableKB, s.reclaimableKB));
  const int other = toInt(checkAndDiff(s.totalKB, accounted));
  const int load =
      checkOverflowAndAdd(anon, other, s.sReclaimableKB, s.sUnreclaimKB, s.zramUsedKB, s.unreclaimableKB);
  const int mload = checkOverflowAndAdd(anon, s.zramUsedKB);
  const int nmload = checkOverflowAndAdd(s.sUnreclaimKB, s.unreclaimableKB, s.sReclaimableKB, other);
  const int available = checkOverflowAndAdd(
      freeKB, checkOverflowAndAdd(s.sReclaimableKB, s.reclaimableKB, s.buffersKB), cachedKB);
  const int aPlusL = checkOverflowAndAdd(available, load);
  const int newLoad = checkOverflowAndAdd(killsafeANON, killsafeUNRECLAIM);
  const float freeAfter = checkAndDiff(available, newLoad);
  const int compressable = checkOverflowAndAdd(anon, s.mappedKB);
  // KB to 4-KB pages.
  const float activeFile = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaActiveFileKB, s.normalActiveFileKB, s.movableActiveFileKB,
                                             s.highMemActiveFileKB)),
      0.25);
  const float activeAnon = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaActiveAnonKB, s.normalActiveAnonKB, s.movableActiveAnonKB,
                                             s.highMemActiveAnonKB)),
      0.25);
  const float inactiveFile = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaInactiveFileKB, s.normalInactiveFileKB,
                                             s.movableInactiveFileKB, s.highMemInactiveFileKB)),
      0.25);
  const float inactiveAnon = checkOverflowAndMult(
      static_cast<float>(checkOverflowAndAdd(s.dmaInactiveAnonKB, s.normalInactiveAnonKB,
                                             s.movableInactiveAnonKB, s.highMemInactiveAnonKB)),
      0.25);

  auto set = [&values](size_t i, float v) { values[i] = v; };
  set(VORAK_INPUT("FreeKB"), freeKB);
  set(VORAK_INPUT("CachedKB"), cachedKB);
  set(VORAK_INPUT("BuffersKB"), s.buffersKB);
  set(VORAK_INPUT("SReclaimKB"), s.sReclaimableKB);
  set(VORAK_INPUT("SlabKB"), checkOverflowAndAdd(s.sReclaimableKB, s.sUnreclaimKB));
  set(VORAK_INPUT("ZUsedKB"), s.zramUsedKB);
  set(VORAK_INPUT("UnReclaimableKB"), s.unreclaimableKB);
  set(VORAK_INPUT("ReclaimableKB"), s.reclaimableKB);
  set(VORAK_INPUT("ZOrigKB"), s.zramOrigKB);
  set(VORAK_INPUT("TotalAnonPages"), anon / 4);
  set(VORAK_INPUT("nrFreeCMAPages"), s.freeCmaKB >> 2);
  set(VORAK_INPUT("MappedFileKB"), s.mappedKB);
  set(VORAK_INPUT("highMem_nr_free_pages"), s.highMemFreeKB >> 2);
  set(VORAK_INPUT("highMem_nr_inactive_anon"), s.highMemInactiveAnonKB >> 2);
  set(VORAK_INPUT("highMem_nr_active_anon"), s.highMemActiveAnonKB >> 2);
  set(VORAK_INPUT("highMem_nr_inactive_file"), s.highMemInactiveFileKB >> 2);
  set(VORAK_INPUT("highMem_nr_active_file"), s.highMemActiveFileKB >> 2);
  set(VORAK_INPUT("dma_nr_free_pages"), s.dmaFreeKB >> 2);
  set(VORAK_INPUT("dma_nr_inactive_anon"), s.dmaInactiveAnonKB >> 2);
  set(VORAK_INPUT("dma_nr_active_anon"), s.dmaActiveAnonKB >> 2);
  set(VORAK_INPUT("dma_nr_inactive_file"), s.dmaInactiveFileKB >> 2);
  set(VORAK_INPUT("dma_nr_active_file"), s.dmaActiveFileKB >> 2);
  set(VORAK_INPUT("normal_nr_free_pages"), s.normalFreeKB >> 2);
  set(VORAK_INPUT("normal_nr_inactive_anon"), s.normalInactiveAnonKB >> 2);
  set(VORAK_INPUT("normal_nr_active_anon"), s.normalActiveAnonKB >> 2);
  set(VORAK_INPUT("normal_nr_inactive_file"), s.normalInactiveFileKB >> 2);
  set(VORAK_INPUT("normal_nr_active_file"), s.normalActiveFileKB >> 2);
  set(VORAK_INPUT("movable_nr_free_pages"), s.movableFreeKB >> 2);
  set(VORAK_INPUT("movable_nr_inactive_anon"), s.movableInactiveAnonKB >> 2);
  set(VORAK_INPUT("movable_nr_active_anon"), s.movableActiveAnonKB >> 2);
  set(VORAK_INPUT("killsafeANON"), killsafeANON);
  set(VORAK_INPUT("killsafeUNRECLAIM"), killsafeUNRECLAIM);
  set(VORAK_INPUT("available"), available);
  set(VORAK_INPUT("load"), load);
  set(VORAK_INPUT("a_plus_l"), aPlusL);
  set(VORAK_INPUT("nmload"), nmload);
  set(VORAK_INPUT("mload"), mload);
  set(VORAK_INPUT("newLoad"), newLoad);
  const float freeByLoad = freeAfter / static_cast<float>(checkOverflowAndAdd(newLoad, load));
  set(VORAK_INPUT("freeByTotal"), freeAfter / static_cast<float>(aPlusL));
  set(VORAK_INPUT("freeByLoad"), freeByLoad);
  const float zramCapacity =
      checkAndDiff(checkOverflowAndMult(2, s.zramSizeKB), s.zramOrigKB) / static_cast<float>(s.zramSizeKB);
  set(VORAK_INPUT("zramCapacity"), zramCapacity);
  set(VORAK_INPUT("compressable"), compressable);
  set(VORAK_INPUT("zramEff"), static_cast<float>(checkOverflowAndMult(compressable, 100)) /
                                  static_cast<float>(checkOverflowAndAdd(s.zramOrigKB, compressable)));
  set(VORAK_INPUT("grandRatio"), freeByLoad / zramCapacity);
  set(VORAK_INPUT("activeFile"), activeFile);
  set(VORAK_INPUT("activeAnon"), activeAnon);
  set(VORAK_INPUT("inactiveFile"), inactiveFile);
  set(VORAK_INPUT("inactiveAnon"), inactiveAnon);
  // Pages and KB mixed on purpose: the model was fitted on this ratio.
  const int vmpUsed = checkOverflowAndAdd(killsafeANON, activeFile, activeAnon);
  const int vmpAll =
      checkOverflowAndAdd(freeKB, killsafeANON, activeFile, activeAnon, inactiveFile, inactiveAnon);
  set(VORAK_INPUT("wholesome_vmp"),
      checkOverflowAndMult(static_cast<float>(vmpUsed) / static_cast<float>(vmpAll), 100));
  const float howMuchToKill = checkAndDiff(checkOverflowAndMult(safeload, aPlusL), freeAfter);
  set(VORAK_INPUT("howMuchToKill"), howMuchToKill);
  return howMuchToKill;
}
