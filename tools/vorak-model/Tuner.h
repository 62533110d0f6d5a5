// Choosing a model's safeload, the one figure that moves how much the kill
// action frees: the scenarios are played once per value of a grid and the
// value with the least estimated launch time wins, the fewest cold launches
// caused by kills breaking a tie.
#pragma once

#include <string>
#include <vector>

#include "RunPool.h"

namespace vmodel {

// "0.1:0.4:0.05" (from, to, step; both ends included) or "0.1,0.2,0.3".
// Every value must lie in (0, 1); the result is sorted, without repeats.
// Throws ModelError(kExitBadInput) naming what is wrong.
std::vector<float> parseGrid(const std::string& text);

struct TunePoint {
  float safeload = 0;
  RunFigures total;  // summed over the scenarios
};

// The index of the best point: least total launch time, then fewest cold
// launches caused by kills, then the smaller safeload (it kills less).
size_t choosePoint(const std::vector<TunePoint>& points);

// Points of the grid from per-run results laid out grid-major (each grid
// value's runs of every scenario in a row).
std::vector<TunePoint> sumByPoint(const std::vector<float>& grid, const std::vector<RunResult>& runs);

// One line a point, the chosen one marked.
std::string tuneTable(const std::vector<TunePoint>& points, size_t chosen);

// Total launch time and kills against safeload, the chosen point marked.
std::string tuneSvg(const std::vector<TunePoint>& points, size_t chosen, const std::string& title);

}  // namespace vmodel
