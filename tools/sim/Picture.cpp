#include "Picture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace vsim {
namespace {

std::string escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

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
  o << "<text x=\"" << left << "\" y=\"22\" font-size=\"16\" font-weight=\"bold\">" << escape(report.scenarioName)
    << "</text>\n";
  const Summary s = report.summary();
  o << "<text x=\"" << left << "\" y=\"40\" fill=\"#444\">" << escape(report.deviceClass) << " device: " << s.launches
    << " launches, " << s.kills << " kills, " << escape(formatMB(s.freedKB)) << " freed by the plug-in, "
    << s.lackingLaunches << " launches short of memory</text>\n";

  // Grid and axes.
  for (double kb = 0; kb <= maxKB + 1; kb += stepKB) {
    o << "<line x1=\"" << left << "\" x2=\"" << left + plotW << "\" y1=\"" << num(y(kb)) << "\" y2=\"" << num(y(kb))
      << "\" stroke=\"#e4e4e4\"/>\n";
    o << "<text x=\"" << left - 6 << "\" y=\"" << num(y(kb) + 4) << "\" text-anchor=\"end\" fill=\"#555\">"
      << escape(formatMB(kb)) << "</text>\n";
  }
  const double hourStep = (t1 - t0) > 12 * 3600 ? 7200 : 3600;
  for (double h = std::ceil(t0 / hourStep) * hourStep; h <= t1; h += hourStep) {
    o << "<line x1=\"" << num(x(h)) << "\" x2=\"" << num(x(h)) << "\" y1=\"" << top << "\" y2=\"" << top + plotH
      << "\" stroke=\"#f0f0f0\"/>\n";
    o << "<text x=\"" << num(x(h)) << "\" y=\"" << top + plotH + 16 << "\" text-anchor=\"middle\" fill=\"#555\">"
      << clockTime(h).substr(0, 5) << "</text>\n";
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
      << "<title>" << escape(clockTime(r.at) + " " + r.app + (shortOf ? ", short of " + formatMB(r.lackedKB) : ""))
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
    const char* colour = v.by == KillBy::Device ? "#000000" : v.by == KillBy::Background ? "#ef2929"
                         : v.by == KillBy::Favourite                               ? "#f57900"
                                                                                   : "#ad7fa8";
    o << "<circle cx=\"" << num(x(at)) << "\" cy=\"" << num(y(freeAt)) << "\" r=\"" << num(radius) << "\" fill=\""
      << colour << "\" fill-opacity=\"0.55\"><title>"
      << escape(clockTime(at) + " killed " + v.name + " (" + killByName(v.by) + ", " + formatMB(v.kb) + ")")
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
