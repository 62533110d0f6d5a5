// A self-contained SVG of a run: free and available memory over the day,
// with each launch and each kill marked.
#pragma once

#include <string>

#include "Report.h"

namespace vsim {

std::string renderSvg(const Report& report);

}  // namespace vsim
