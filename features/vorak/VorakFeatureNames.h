// Names of the model inputs that the kill decision computes, in the order it
// stores them. A model file needs an entry (min, max, weight) for each name;
// a name it lacks has min == max == 0 in memory and never enters the score.
#pragma once

#include <array>
#include <string_view>

inline constexpr std::array<std::string_view, 50> kVorakFeatureNames = {
    // Memory statistics taken as they are.
    "FreeKB",
    "CachedKB",
    "BuffersKB",
    "SReclaimKB",
    "SlabKB",
    "ZUsedKB",
    "UnReclaimableKB",
    "ReclaimableKB",
    "ZOrigKB",
    "TotalAnonPages",
    "nrFreeCMAPages",
    "MappedFileKB",
    // Per-zone counters in 4-KB pages; the movable zone has no file counters.
    "highMem_nr_free_pages",
    "highMem_nr_inactive_anon",
    "highMem_nr_active_anon",
    "highMem_nr_inactive_file",
    "highMem_nr_active_file",
    "dma_nr_free_pages",
    "dma_nr_inactive_anon",
    "dma_nr_active_anon",
    "dma_nr_inactive_file",
    "dma_nr_active_file",
    "normal_nr_free_pages",
    "normal_nr_inactive_anon",
    "normal_nr_active_anon",
    "normal_nr_inactive_file",
    "normal_nr_active_file",
    "movable_nr_free_pages",
    "movable_nr_inactive_anon",
    "movable_nr_active_anon",
    // The launching application's learnt needs.
    "killsafeANON",
    "killsafeUNRECLAIM",
    // Derived figures.
    "available",
    "load",
    "a_plus_l",
    "nmload",
    "mload",
    "newLoad",
    "freeByTotal",
    "freeByLoad",
    "zramCapacity",
    "compressable",
    "zramEff",
    "grandRatio",
    "activeFile",
    "activeAnon",
    "inactiveFile",
    "inactiveAnon",
    "wholesome_vmp",
    "howMuchToKill",
};
