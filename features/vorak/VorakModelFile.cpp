#include "VorakModelFile.h"

namespace vorak {

const char* modelSuffixFor(uint64_t totalKB) {
  if (totalKB <= 1048576 || totalKB > 8388608) return "";
  if (totalKB <= 2097152) return "2GB.data";
  if (totalKB <= 4194304) return "4GB.data";
  return "6GB.data";
}

}  // namespace vorak
