// Which shipped model a device runs: one per memory class.
#pragma once

#include <cstdint>

namespace vorak {

constexpr const char* kModelPrefix = "/vendor/etc/kx/vorak/vorak_";

// The model file's suffix for a device of `totalKB` of memory; empty when
// no class holds it (1 GiB or less, more than 8 GiB).
const char* modelSuffixFor(uint64_t totalKB);

}  // namespace vorak
