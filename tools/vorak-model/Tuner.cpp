#include "Tuner.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "ModelFile.h"
#include "Text.h"

namespace vmodel {
namespace {

// Grids are stated in steps of 1/1000 and at most this many values long:
// each value is a whole simulation of every scenario.
constexpr int kGridUnit = 1000;
constexpr size_t kMaxGrid = 200;

float gridValue(const std::string& text, const std::string& grid) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || end == text.c_str() || *end != '\0' || !std::isfinite(v))
    throw ModelError(kExitBadInput, "--grid '" + grid + "': '" + text + "' is not a number");
  if (!(v > 0 && v < 1))
    throw ModelError(kExitBadInput, "--grid '" + grid + "': " + text + " lies outside (0, 1): safeload is a share of memory");
  return static_cast<float>(v);
}

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::istringstream in(s);
  for (std::string p; std::getline(in, p, sep);) parts.push_back(p);
  if (!s.empty() && s.back() == sep) parts.emplace_back();
  return parts;
}

std::string fixed(double v, int decimals) {
  char b[48];
  std::snprintf(b, sizeof b, "%.*f", decimals, v);
  return b;
}

std::string safeloadText(float v) {
  char b[16];
  std::snprintf(b, sizeof b, "%.3g", v);
  return b;
}

}  // namespace

std::vector<float> parseGrid(const std::string& text) {
  std::vector<float> grid;
  const auto range = split(text, ':');
  if (range.size() == 3) {
    const float from = gridValue(range[0], text), to = gridValue(range[1], text);
    char* end = nullptr;
    const double step = std::strtod(range[2].c_str(), &end);
    if (range[2].empty() || *end != '\0' || !(step > 0) || !std::isfinite(step))
      throw ModelError(kExitBadInput, "--grid '" + text + "': the step must be a number above 0");
    if (to < from) throw ModelError(kExitBadInput, "--grid '" + text + "': the range runs backwards");
    // Whole thousandths, so that 0.1:0.4:0.05 ends on 0.4 and not just short of it.
    const long a = std::lround(from * kGridUnit), b = std::lround(to * kGridUnit);
    const long d = std::max(1L, std::lround(step * kGridUnit));
    if ((b - a) / d + 1 > static_cast<long>(kMaxGrid))
      throw ModelError(kExitBadInput, "--grid '" + text + "': more than " + std::to_string(kMaxGrid) + " values");
    for (long v = a; v <= b; v += d) grid.push_back(static_cast<float>(v) / kGridUnit);
  } else if (range.size() == 1) {
    for (const auto& part : split(text, ',')) grid.push_back(gridValue(part, text));
  } else {
    throw ModelError(kExitBadInput, "--grid '" + text + "': expected FROM:TO:STEP or a comma-separated list");
  }
  if (grid.empty() || grid.size() > kMaxGrid)
    throw ModelError(kExitBadInput, "--grid '" + text + "': expected 1 to " + std::to_string(kMaxGrid) + " values");
  std::sort(grid.begin(), grid.end());
  grid.erase(std::unique(grid.begin(), grid.end()), grid.end());
  return grid;
}

std::vector<TunePoint> sumByPoint(const std::vector<float>& grid, const std::vector<RunResult>& runs) {
  const size_t perPoint = grid.empty() ? 0 : runs.size() / grid.size();
  std::vector<TunePoint> points;
  for (size_t i = 0; i < grid.size(); ++i) {
    TunePoint p;
    p.safeload = grid[i];
    RunFigures& t = p.total;
    // Added in scenario order whatever order the runs ended in: the same grid
    // gives the same sums, to the last bit.
    for (size_t k = 0; k < perPoint; ++k) {
      const RunFigures& f = runs[i * perPoint + k].figures;
      t.launches += f.launches;
      t.coldLaunches += f.coldLaunches;
      t.coldByKills += f.coldByKills;
      t.killsByPolicy += f.killsByPolicy;
      t.killsDevice += f.killsDevice;
      t.lackingLaunches += f.lackingLaunches;
      t.launchMsTotal += f.launchMsTotal;
      t.launchMsP95 = std::max(t.launchMsP95, f.launchMsP95);
      t.freedKB += f.freedKB;
      t.overKillKB += f.overKillKB;
    }
    t.launchMsMean = t.launches == 0 ? 0 : t.launchMsTotal / static_cast<double>(t.launches);
    points.push_back(p);
  }
  return points;
}

size_t choosePoint(const std::vector<TunePoint>& points) {
  size_t best = 0;
  for (size_t i = 1; i < points.size(); ++i) {
    const RunFigures &a = points[i].total, &b = points[best].total;
    if (a.launchMsTotal != b.launchMsTotal) {
      if (a.launchMsTotal < b.launchMsTotal) best = i;
    } else if (a.coldByKills != b.coldByKills) {
      if (a.coldByKills < b.coldByKills) best = i;
    } else if (points[i].safeload < points[best].safeload) {
      best = i;
    }
  }
  return best;
}

std::string tuneTable(const std::vector<TunePoint>& points, size_t chosen) {
  std::ostringstream o;
  char line[256];
  std::snprintf(line, sizeof line, "  %-9s %9s %12s %10s %8s %12s %8s %8s %9s %10s\n", "safeload", "launches",
                "total time", "mean", "p95", "cold/kills", "kills", "lmk", "short", "freed");
  o << line;
  for (size_t i = 0; i < points.size(); ++i) {
    const RunFigures& t = points[i].total;
    std::snprintf(line, sizeof line, "%s %-9s %9zu %12s %10s %8s %12zu %8zu %8zu %9zu %10s\n", i == chosen ? "*" : " ",
                  safeloadText(points[i].safeload).c_str(), t.launches, vsim::formatMs(t.launchMsTotal).c_str(),
                  vsim::formatMs(t.launchMsMean).c_str(), vsim::formatMs(t.launchMsP95).c_str(), t.coldByKills,
                  t.killsByPolicy, t.killsDevice, t.lackingLaunches, vsim::formatMB(t.freedKB).c_str());
    o << line;
  }
  return o.str();
}

std::string tuneSvg(const std::vector<TunePoint>& points, size_t chosen, const std::string& title) {
  const double W = 960, left = 80, right = 30, plotW = W - left - right, panelH = 200, gap = 80, top = 80;
  const double H = top + 2 * panelH + gap + 50;
  double lo = 0, hi = 1, timeMax = 1, countMax = 1;
  if (!points.empty()) {
    lo = points.front().safeload;
    hi = std::max<double>(points.back().safeload, lo + 0.01);
  }
  for (const auto& p : points) {
    timeMax = std::max(timeMax, p.total.launchMsTotal / 1000.0);
    countMax = std::max({countMax, static_cast<double>(p.total.killsByPolicy), static_cast<double>(p.total.coldByKills)});
  }
  auto x = [&](double v) { return left + (v - lo) / (hi - lo) * plotW; };
  auto yIn = [&](double v, double max, double panelTop) { return panelTop + panelH - v / max * panelH; };

  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << W << "\" height=\"" << H << "\" viewBox=\"0 0 " << W << " "
    << H << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  o << "<text x=\"" << left << "\" y=\"24\" font-size=\"14\" font-weight=\"bold\">" << vsim::xmlText(title) << "</text>\n";
  if (!points.empty()) {
    o << "<text x=\"" << left << "\" y=\"44\" fill=\"#444\">chosen safeload " << safeloadText(points[chosen].safeload)
      << ": least estimated launch time, then fewest cold launches caused by kills</text>\n";
  }
  struct Series {
    const char* label;
    const char* colour;
    double panelTop, max;
    double (*value)(const RunFigures&);
  };
  const Series series[] = {
      {"estimated launch time, total (s)", "#1f77b4", top, timeMax,
       [](const RunFigures& f) { return f.launchMsTotal / 1000.0; }},
      {"kills by the plug-in", "#d62728", top + panelH + gap, countMax,
       [](const RunFigures& f) { return static_cast<double>(f.killsByPolicy); }},
      {"cold launches caused by kills", "#ff7f0e", top + panelH + gap, countMax,
       [](const RunFigures& f) { return static_cast<double>(f.coldByKills); }},
  };
  for (double panelTop : {top, top + panelH + gap}) {
    o << "<rect x=\"" << left << "\" y=\"" << panelTop << "\" width=\"" << plotW << "\" height=\"" << panelH
      << "\" fill=\"none\" stroke=\"#999\"/>\n";
    for (const auto& p : points) {
      o << "<text x=\"" << fixed(x(p.safeload), 1) << "\" y=\"" << panelTop + panelH + 16
        << "\" text-anchor=\"middle\" fill=\"#555\">" << safeloadText(p.safeload) << "</text>\n";
    }
  }
  // Each panel's series named above it, in its colour; its scale at the left.
  double legendX[2] = {left, left};
  for (const Series& s : series) {
    const int panel = s.panelTop == top ? 0 : 1;
    std::string path;
    for (const auto& p : points) {
      path += (path.empty() ? "M" : " L") + fixed(x(p.safeload), 1) + " " + fixed(yIn(s.value(p.total), s.max, s.panelTop), 1);
    }
    o << "<path d=\"" << path << "\" fill=\"none\" stroke=\"" << s.colour << "\" stroke-width=\"2\"/>\n";
    for (const auto& p : points) {
      o << "<circle cx=\"" << fixed(x(p.safeload), 1) << "\" cy=\"" << fixed(yIn(s.value(p.total), s.max, s.panelTop), 1)
        << "\" r=\"3\" fill=\"" << s.colour << "\"/>\n";
    }
    o << "<text x=\"" << legendX[panel] << "\" y=\"" << s.panelTop - 8 << "\" fill=\"" << s.colour << "\">" << s.label
      << "</text>\n";
    legendX[panel] += 7.0 * static_cast<double>(std::string(s.label).size()) + 24;
    o << "<text x=\"" << left - 6 << "\" y=\"" << s.panelTop + 4 << "\" text-anchor=\"end\" fill=\"#555\">"
      << fixed(s.max, 0) << "</text>\n<text x=\"" << left - 6 << "\" y=\"" << s.panelTop + panelH + 4
      << "\" text-anchor=\"end\" fill=\"#555\">0</text>\n";
  }
  if (!points.empty()) {
    const double cx = x(points[chosen].safeload);
    o << "<line x1=\"" << fixed(cx, 1) << "\" x2=\"" << fixed(cx, 1) << "\" y1=\"" << top << "\" y2=\""
      << top + 2 * panelH + gap << "\" stroke=\"#2ca02c\" stroke-dasharray=\"5,4\" stroke-width=\"2\"/>\n";
  }
  o << "<text x=\"" << left + plotW / 2 << "\" y=\"" << H - 12 << "\" text-anchor=\"middle\">safeload</text>\n";
  o << "</svg>\n";
  return o.str();
}

}  // namespace vmodel
