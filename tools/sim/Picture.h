// Self-contained SVG pictures: a run (free and available memory over time,
// with each launch and each kill marked) and a comparison of policies.
#pragma once

#include <string>

#include "Comparison.h"
#include "Report.h"

namespace vsim {

std::string renderSvg(const Report& report);

// Left, the distribution of estimated launch times per policy (the share of
// launches at or below each time); right, cold launches, those caused by
// kills, and kills by the policy and by the low-memory killer per policy.
std::string renderComparisonSvg(const Comparison& comparison);

}  // namespace vsim
