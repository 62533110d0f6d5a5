#include "Picture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "Text.h"

namespace vsim {
namespace {

std::string num(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.1f", v);
  return b;
}

}  // namespace

std::string renderSvg(const Report& report) {
  const double W = 1200, H = 520, left = 70, right = 20, top = 50, bottom = 90;
  const double plotW = W - left - right, plotH = H - top - bottom;
  const auto& tl = report.timeline();

  double t0 = 0, t1 = 1, maxKB = 1;
  if (!tl.empty()) {
    t0 = tl.front().at;
    t1 = std::max(tl.back().at, t0 + 1);
  }
  for (const auto& p : tl) maxKB = std::max(maxKB, static_cast<double>(std::max(p.freeKB, p.availableKB)));
  // Round the scale up to whole 256 MB steps.
  const double stepKB = 256.0 * 1024;
  maxKB = std::ceil(maxKB / stepKB) * stepKB;
  auto x = [&](double t) { return left + (t - t0) / (t1 - t0) * plotW; };
  auto y = [&](double kb) { return top + plotH - kb / maxKB * plotH; };

  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << W << "\" height=\"" << H << "\" viewBox=\"0 0 " << W
    << " " << H << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
  o << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  o << "<text x=\"" << left << "\" y=\"22\" font-size=\"16\" font-weight=\"bold\">" << xmlText(report.scenarioName)
    << "</text>\n";
  const Summary s = report.summary();
  o << "<text x=\"" << left << "\" y=\"40\" fill=\"#444\">" << xmlText(report.deviceClass) << " device: " << s.launches
    << " launches, " << s.kills << " kills, " << xmlText(formatMB(s.freedKB)) << " freed by the policy ("
    << xmlText(report.policy) << "), "
    << s.lackingLaunches << " launches short of memory</text>\n";

  // Grid and axes.
  for (double kb = 0; kb <= maxKB + 1; kb += stepKB) {
    o << "<line x1=\"" << left << "\" x2=\"" << left + plotW << "\" y1=\"" << num(y(kb)) << "\" y2=\"" << num(y(kb))
      << "\" stroke=\"#e4e4e4\"/>\n";
    o << "<text x=\"" << left - 6 << "\" y=\"" << num(y(kb) + 4) << "\" text-anchor=\"end\" fill=\"#555\">"
      << xmlText(formatMB(kb)) << "</text>\n";
  }
  // Hours on a day, days on a week.
  const bool days = (t1 - t0) > 2 * 86400.0;
  const double hourStep = days ? 86400 : (t1 - t0) > 12 * 3600 ? 7200 : 3600;
  for (double h = std::ceil(t0 / hourStep) * hourStep; h <= t1; h += hourStep) {
    o << "<line x1=\"" << num(x(h)) << "\" x2=\"" << num(x(h)) << "\" y1=\"" << top << "\" y2=\"" << top + plotH
      << "\" stroke=\"#f0f0f0\"/>\n";
    o << "<text x=\"" << num(x(h)) << "\" y=\"" << top + plotH + 16 << "\" text-anchor=\"middle\" fill=\"#555\">"
      << (days ? dayTime(h).substr(0, 3) : clockTime(h).substr(0, 5)) << "</text>\n";
  }
  o << "<rect x=\"" << left << "\" y=\"" << top << "\" width=\"" << plotW << "\" height=\"" << plotH
    << "\" fill=\"none\" stroke=\"#999\"/>\n";

  // Memory lines: steps, since memory changes at events and holds between them.
  auto polyline = [&](bool available, const char* colour, double width) {
    o << "<polyline fill=\"none\" stroke=\"" << colour << "\" stroke-width=\"" << width << "\" points=\"";
    double lastY = -1;
    for (const auto& p : tl) {
      const double v = static_cast<double>(available ? p.availableKB : p.freeKB);
      if (lastY >= 0) o << num(x(p.at)) << "," << num(lastY) << " ";
      lastY = y(v);
      o << num(x(p.at)) << "," << num(lastY) << " ";
    }
    o << "\"/>\n";
  };
  polyline(true, "#7fbf7f", 1.5);
  polyline(false, "#3465a4", 1.5);

  // Launches: ticks under the plot, red when the launch was short of memory.
  const double tickY = top + plotH + 24;
  for (const auto& r : report.launches()) {
    const bool shortOf = r.lackedKB > 0;
    o << "<line x1=\"" << num(x(r.at)) << "\" x2=\"" << num(x(r.at)) << "\" y1=\"" << tickY << "\" y2=\""
      << tickY + (shortOf ? 14 : 8) << "\" stroke=\"" << (shortOf ? "#cc0000" : "#888") << "\" stroke-width=\"1.2\">"
      << "<title>" << xmlText(report.timeOf(r.at) + " " + r.app + (shortOf ? ", short of " + formatMB(r.lackedKB) : ""))
      << "</title></line>\n";
  }
  // Kills: a circle per victim on the free line, its area after the memory freed.
  auto killMark = [&](double at, const Victim& v) {
    double freeAt = 0;
    for (const auto& p : tl) {
      if (p.at > at) break;
      freeAt = static_cast<double>(p.freeKB);
    }
    const double radius = 2.5 + std::sqrt(static_cast<double>(v.kb) / 1024.0) / 3.0;
    const char* colour = v.by == KillBy::Device       ? "#000000"
                         : v.by == KillBy::Favourite  ? "#f57900"
                         : v.by == KillBy::User       ? "#ad7fa8"
                                                      : "#ef2929";
    o << "<circle cx=\"" << num(x(at)) << "\" cy=\"" << num(y(freeAt)) << "\" r=\"" << num(radius) << "\" fill=\""
      << colour << "\" fill-opacity=\"0.55\"><title>"
      << xmlText(report.timeOf(at) + " killed " + v.name + " (" + killByName(v.by) + ", " + formatMB(v.kb) + ")")
      << "</title></circle>\n";
  };
  for (const auto& r : report.launches())
    for (const auto& v : r.victims) killMark(r.at, v);
  for (const auto& [at, v] : report.deviceKills()) killMark(at, v);

  // Legend.
  const double ly = H - 22;
  auto legend = [&](double lx, const std::string& shape, const char* label) {
    o << shape << "<text x=\"" << lx + 16 << "\" y=\"" << ly + 4 << "\">" << label << "</text>\n";
  };
  legend(left, "<line x1=\"" + num(left) + "\" x2=\"" + num(left + 12) + "\" y1=\"" + num(ly) + "\" y2=\"" + num(ly) +
                   "\" stroke=\"#3465a4\" stroke-width=\"2\"/>",
         "free");
  legend(left + 70, "<line x1=\"" + num(left + 70) + "\" x2=\"" + num(left + 82) + "\" y1=\"" + num(ly) + "\" y2=\"" +
                        num(ly) + "\" stroke=\"#7fbf7f\" stroke-width=\"2\"/>",
         "available");
  const std::pair<const char*, const char*> kinds[] = {{"#ef2929", "killed: background"},
                                                       {"#f57900", "favourite"},
                                                       {"#ad7fa8", "user-launched"},
                                                       {"#000000", "low-memory killer"}};
  double lx = left + 170;
  for (const auto& [colour, label] : kinds) {
    legend(lx, "<circle cx=\"" + num(lx + 6) + "\" cy=\"" + num(ly) + "\" r=\"5\" fill=\"" + colour +
                   "\" fill-opacity=\"0.55\"/>",
           label);
    lx += 40 + 7.0 * std::string(label).size();
  }
  legend(lx, "<line x1=\"" + num(lx + 6) + "\" x2=\"" + num(lx + 6) + "\" y1=\"" + num(ly - 6) + "\" y2=\"" +
                 num(ly + 6) + "\" stroke=\"#888\"/>",
         "launch (red: short of memory)");
  o << "</svg>\n";
  return o.str();
}

}  // namespace vsim

namespace vsim {
namespace {

const char* const kPalette[] = {"#3465a4", "#cc0000", "#4e9a06", "#f57900", "#75507b", "#c4a000", "#555753"};

const char* colourOf(size_t i) { return kPalette[i % (sizeof kPalette / sizeof kPalette[0])]; }

// A round step that divides `span` into about `parts`.
double niceStep(double span, int parts) {
  const double raw = std::max(span / parts, 1e-9);
  const double mag = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 2.5, 5.0, 10.0})
    if (raw <= m * mag) return m * mag;
  return 10.0 * mag;
}

struct Panel {
  double left, top, width, height;
};

void launchTimeCurves(std::ostringstream& o, const Comparison& c, const Panel& p) {
  double maxMs = 1;
  for (const auto& out : c.outcomes())
    for (double ms : out.launchMs) maxMs = std::max(maxMs, ms);
  const double step = niceStep(maxMs, 6);
  maxMs = std::ceil(maxMs / step) * step;
  auto x = [&](double ms) { return p.left + ms / maxMs * p.width; };
  auto y = [&](double share) { return p.top + p.height - share * p.height; };

  o << "<text x=\"" << p.left << "\" y=\"" << p.top - 10 << "\" font-weight=\"bold\">Estimated launch time: "
    << "share of launches at or below</text>\n";
  for (int pct = 0; pct <= 100; pct += 25) {
    o << "<line x1=\"" << p.left << "\" x2=\"" << p.left + p.width << "\" y1=\"" << num(y(pct / 100.0))
      << "\" y2=\"" << num(y(pct / 100.0)) << "\" stroke=\"#e4e4e4\"/>\n";
    o << "<text x=\"" << p.left - 6 << "\" y=\"" << num(y(pct / 100.0) + 4) << "\" text-anchor=\"end\" fill=\"#555\">"
      << pct << " %</text>\n";
  }
  for (double ms = 0; ms <= maxMs + step / 2; ms += step)
    o << "<text x=\"" << num(x(ms)) << "\" y=\"" << p.top + p.height + 16
      << "\" text-anchor=\"middle\" fill=\"#555\">" << xmlText(formatMs(ms)) << "</text>\n";
  o << "<rect x=\"" << p.left << "\" y=\"" << p.top << "\" width=\"" << p.width << "\" height=\"" << p.height
    << "\" fill=\"none\" stroke=\"#999\"/>\n";

  for (size_t i = 0; i < c.outcomes().size(); ++i) {
    std::vector<double> ms = c.outcomes()[i].launchMs;
    std::sort(ms.begin(), ms.end());
    o << "<polyline fill=\"none\" stroke=\"" << colourOf(i) << "\" stroke-width=\"2\" points=\"" << num(x(0)) << ","
      << num(y(0)) << " ";
    for (size_t k = 0; k < ms.size(); ++k) {
      const double n = static_cast<double>(ms.size());
      o << num(x(ms[k])) << "," << num(y(static_cast<double>(k) / n)) << " " << num(x(ms[k])) << ","
        << num(y(static_cast<double>(k + 1) / n)) << " ";
    }
    o << "\"/>\n";
  }
}

void killBars(std::ostringstream& o, const Comparison& c, const Panel& p) {
  struct Figure {
    const char* label;
    size_t (*value)(const Summary&);
  };
  static const Figure kFigures[] = {
      {"cold launches", [](const Summary& s) { return s.coldLaunches; }},
      {"cold, caused by kills", [](const Summary& s) { return s.coldByKills(); }},
      {"kills by the policy", [](const Summary& s) { return s.killsByPolicy; }},
      {"kills by the LMK", [](const Summary& s) { return s.killsDevice; }},
  };
  size_t maxValue = 1;
  for (const auto& out : c.outcomes())
    for (const auto& f : kFigures) maxValue = std::max(maxValue, f.value(out.summary));
  const double step = niceStep(static_cast<double>(maxValue), 5);
  const double top = std::ceil(static_cast<double>(maxValue) / step) * step;
  auto y = [&](double v) { return p.top + p.height - v / top * p.height; };

  o << "<text x=\"" << p.left << "\" y=\"" << p.top - 10 << "\" font-weight=\"bold\">Cold launches and kills</text>\n";
  for (double v = 0; v <= top + step / 2; v += step) {
    o << "<line x1=\"" << p.left << "\" x2=\"" << p.left + p.width << "\" y1=\"" << num(y(v)) << "\" y2=\""
      << num(y(v)) << "\" stroke=\"#e4e4e4\"/>\n";
    o << "<text x=\"" << p.left - 6 << "\" y=\"" << num(y(v) + 4) << "\" text-anchor=\"end\" fill=\"#555\">" << v
      << "</text>\n";
  }
  const size_t n = std::max<size_t>(c.outcomes().size(), 1);
  const double group = p.width / (sizeof kFigures / sizeof kFigures[0]);
  const double bar = (group - 16) / static_cast<double>(n);
  for (size_t f = 0; f < sizeof kFigures / sizeof kFigures[0]; ++f) {
    const double gx = p.left + group * static_cast<double>(f) + 8;
    for (size_t i = 0; i < c.outcomes().size(); ++i) {
      const double v = static_cast<double>(kFigures[f].value(c.outcomes()[i].summary));
      const double bx = gx + bar * static_cast<double>(i);
      o << "<rect x=\"" << num(bx) << "\" y=\"" << num(y(v)) << "\" width=\"" << num(bar - 2) << "\" height=\""
        << num(p.top + p.height - y(v)) << "\" fill=\"" << colourOf(i) << "\"><title>"
        << xmlText(c.outcomes()[i].policy) << ": " << v << "</title></rect>\n";
      o << "<text x=\"" << num(bx + bar / 2 - 1) << "\" y=\"" << num(y(v) - 3)
        << "\" text-anchor=\"middle\" font-size=\"10\">" << v << "</text>\n";
    }
    o << "<text x=\"" << num(gx + group / 2 - 8) << "\" y=\"" << p.top + p.height + 16
      << "\" text-anchor=\"middle\" fill=\"#555\">" << kFigures[f].label << "</text>\n";
  }
  o << "<line x1=\"" << p.left << "\" x2=\"" << p.left + p.width << "\" y1=\"" << p.top + p.height << "\" y2=\""
    << p.top + p.height << "\" stroke=\"#999\"/>\n";
}

}  // namespace

std::string renderComparisonSvg(const Comparison& c) {
  const double W = 1200, H = 560;
  std::ostringstream o;
  o << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << W << "\" height=\"" << H << "\" viewBox=\"0 0 " << W
    << " " << H << "\" font-family=\"sans-serif\" font-size=\"12\">\n";
  o << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  o << "<text x=\"70\" y=\"24\" font-size=\"16\" font-weight=\"bold\">Policies compared: "
    << xmlText(c.scenarioName) << " (" << xmlText(c.deviceClass) << " class)</text>\n";
  launchTimeCurves(o, c, {70, 70, 520, 380});
  killBars(o, c, {700, 70, 470, 380});
  // Legend: each policy with its mean and p95 launch time.
  double lx = 70;
  for (size_t i = 0; i < c.outcomes().size(); ++i) {
    const auto& out = c.outcomes()[i];
    const std::string label = out.policy + ": mean " + formatMs(out.summary.launchMsMean) + ", p95 " +
                              formatMs(out.summary.launchMsP95);
    o << "<rect x=\"" << num(lx) << "\" y=\"" << H - 44 << "\" width=\"12\" height=\"12\" fill=\"" << colourOf(i)
      << "\"/><text x=\"" << num(lx + 16) << "\" y=\"" << H - 34 << "\">" << xmlText(label) << "</text>\n";
    lx += 40 + 6.5 * static_cast<double>(label.size());
  }
  o << "</svg>\n";
  return o.str();
}

}  // namespace vsim
