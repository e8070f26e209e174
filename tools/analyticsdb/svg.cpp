// svg.cpp - SVG rendering of a device's series: geometry, nice axis steps, polylines.
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

#include "output.h"
#include "top.h"

namespace adbtool {

namespace {

constexpr double kLeft = 90;
constexpr double kRightMargin = 30;
constexpr double kTitleHeight = 62; // title line, then the first panel's own title
constexpr double kPanelGap = 48;    // room for a panel's title and legend
constexpr double kAxisHeight = 60;  // time labels, dates and the zone under the last panel

struct Panel {
  double top;
  double bottom;
};

// Where everything goes for the requested picture size: panels stacked over one time axis.
struct Layout {
  double width;
  double height;
  double right;
  std::vector<Panel> panels;
  std::size_t maxPoints() const {
    // Beyond one point per two pixels a line turns into a solid block: points are then gathered
    // into buckets drawn as their mean with a light band from minimum to maximum.
    return static_cast<std::size_t>(std::max(2.0, (right - kLeft) / 2));
  }
};

Layout layoutFor(double width, double height, std::size_t panels) {
  Layout layout{width, height, width - kRightMargin, {}};
  double room = height - kTitleHeight - kAxisHeight - kPanelGap * static_cast<double>(panels - 1);
  double each = room / static_cast<double>(panels);
  double top = kTitleHeight;
  for (std::size_t i = 0; i < panels; ++i) {
    layout.panels.push_back({top, top + each});
    top += each + kPanelGap;
  }
  return layout;
}

// RSSI scale: at least this stretch, so that -91 dBm and -52 dBm sit where they belong against
// the good/fair/weak bands instead of filling the panel either way.
constexpr double kRssiFloor = -95.0;
constexpr double kRssiCeiling = -30.0;

const char *const kRssiColour = "#1f6fb4";
const char *const kRxColour = "#2a9d3a";
const char *const kTxColour = "#d1492e";

// printf onto the end of `out`; long path data must arrive whole, so nothing is cut.
__attribute__((format(printf, 2, 3))) void appendf(std::string &out, const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (length > 0) {
    std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(length) + 1);
    std::vsnprintf(out.data() + at, static_cast<std::size_t>(length) + 1, format, again);
    out.pop_back(); // the terminator vsnprintf wrote
  }
  va_end(again);
}

// 1, 2 or 5 times a power of ten, the smallest such step giving at most `ticks` intervals.
double niceStep(double range, int ticks) {
  double raw = range / ticks;
  double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (double factor : {1.0, 2.0, 5.0, 10.0})
    if (factor * power >= raw)
      return factor * power;
  return 10.0 * power;
}

struct Scale {
  double low;
  double high;
  double step;
  double divisor; // values are shown divided by this (kbit/s -> Mbit/s)
  const char *unit;
};

Scale valueScale(double low, double high, bool zeroBased, bool rate) {
  Scale scale{low, high, 1.0, 1.0, rate ? "kbit/s" : "dBm"};
  // The same switch as the titles' figures, so an axis never says kbit/s under a title in Mbit/s.
  if (rate && high >= 1000.0) {
    scale.divisor = 1000.0;
    scale.unit = "Mbit/s";
  }
  if (zeroBased)
    scale.low = std::min(0.0, low);
  if (rate && scale.high - scale.low < 10.0)
    scale.high = scale.low + 10.0;
  if (!rate) {
    scale.low = std::min(scale.low, kRssiFloor);
    scale.high = std::max(scale.high, kRssiCeiling);
  }
  scale.step = niceStep((scale.high - scale.low) / scale.divisor, 5) * scale.divisor;
  scale.low = std::floor(scale.low / scale.step) * scale.step;
  scale.high = std::ceil(scale.high / scale.step) * scale.step;
  return scale;
}

struct TimeAxis {
  uint32_t from;
  uint32_t to;
  double right;
  double x(uint32_t t) const {
    if (to == from)
      return (kLeft + right) / 2;
    return kLeft + (right - kLeft) * (static_cast<double>(t - from) / (to - from));
  }
};

double yOf(const Scale &scale, const Panel &panel, double value) {
  return panel.bottom - (panel.bottom - panel.top) * (value - scale.low) / (scale.high - scale.low);
}

std::string formatTick(double value, double step) {
  char text[32];
  std::snprintf(text, sizeof text, step < 1.0 ? "%.1f" : "%.0f", value);
  return text;
}

void drawValueAxis(std::string &svg, const Layout &layout, const Scale &scale, const Panel &panel,
                   const std::string &title) {
  const double right = layout.right;
  for (double v = scale.low; v <= scale.high + scale.step / 2; v += scale.step) {
    double y = yOf(scale, panel, v);
    appendf(svg, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e3e3e3\"/>\n",
            kLeft, y, right, y);
    appendf(svg, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%s</text>\n", kLeft - 8, y + 4,
            formatTick(v / scale.divisor, scale.step / scale.divisor).c_str());
  }
  appendf(svg,
          "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" transform=\"rotate(-90 %.1f %.1f)\">"
          "%s</text>\n",
          28.0, (panel.top + panel.bottom) / 2, 28.0, (panel.top + panel.bottom) / 2, scale.unit);
  appendf(svg, "<text x=\"%.1f\" y=\"%.1f\" font-size=\"14\" font-weight=\"bold\">%s</text>\n",
          kLeft, panel.top - 12, xmlEscape(title).c_str());
  appendf(svg,
          "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" "
          "stroke=\"#888\"/>\n",
          kLeft, panel.top, right - kLeft, panel.bottom - panel.top);
}

// Ticks at whole local hours or days, so labels read 06:00, 12:00, ... rather than 06:05.
void drawTimeAxis(std::string &svg, const Layout &layout, const TimeAxis &axis) {
  const double bottom = layout.panels.back().bottom;
  static const uint32_t kSteps[] = {900, 1800, 3600, 7200, 10800, 21600, 43200, 86400, 172800};
  uint32_t span = std::max<uint32_t>(axis.to - axis.from, 1);
  uint32_t step = kSteps[std::size(kSteps) - 1];
  for (uint32_t candidate : kSteps) {
    if (span / candidate <= 8) {
      step = candidate;
      break;
    }
  }
  std::time_t fromSeconds = axis.from;
  std::tm local{};
  localtime_r(&fromSeconds, &local);
  long offset = local.tm_gmtoff;
  int64_t first = ((static_cast<int64_t>(axis.from) + offset + step - 1) / step) * step - offset;
  for (int64_t t = first; t <= axis.to; t += step) {
    double x = axis.x(static_cast<uint32_t>(t));
    for (const Panel &panel : layout.panels) {
      appendf(svg, "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#e3e3e3\"/>\n",
              x, panel.top, x, panel.bottom);
    }
    std::string clock = localTime(static_cast<uint32_t>(t), step >= 86400 ? "%a" : "%H:%M");
    std::string date = localTime(static_cast<uint32_t>(t), "%b %d");
    appendf(svg, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%s</text>\n", x, bottom + 18,
            clock.c_str());
    bool midnight = localTime(static_cast<uint32_t>(t), "%H:%M") == "00:00";
    if (t == first || midnight || step >= 86400)
      appendf(svg, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#555\">%s</text>\n",
              x, bottom + 34, date.c_str());
  }
  appendf(svg,
          "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#555\">time (%s)</text>\n",
          (kLeft + layout.right) / 2, layout.height - 6, localTime(axis.to, "%Z").c_str());
}

struct Bucket {
  double x;
  double mean;
  double low;
  double high;
};

// Runs of consecutive buckets with readings; a bucket without any breaks the line, so missing
// readings show as gaps instead of drops to 0.
std::vector<std::vector<Bucket>> bucketRuns(const Series &series, const TimeAxis &axis,
                                            std::size_t maxPoints) {
  const std::size_t count = series.values.size();
  const std::size_t buckets = std::min(count, maxPoints);
  std::vector<std::vector<Bucket>> runs(1);
  for (std::size_t b = 0; b < buckets; ++b) {
    std::size_t first = b * count / buckets;
    std::size_t last = (b + 1) * count / buckets;
    double sum = 0.0, low = 0.0, high = 0.0, x = 0.0;
    std::size_t readings = 0;
    for (std::size_t i = first; i < last; ++i) {
      if (!series.present(i))
        continue;
      double value = static_cast<double>(series.values[i]);
      low = readings == 0 ? value : std::min(low, value);
      high = readings == 0 ? value : std::max(high, value);
      sum += value;
      x += axis.x(series.times[i]);
      ++readings;
    }
    if (readings == 0) {
      if (!runs.back().empty())
        runs.emplace_back();
      continue;
    }
    double n = static_cast<double>(readings);
    runs.back().push_back({x / n, sum / n, low, high});
  }
  if (runs.back().empty())
    runs.pop_back();
  return runs;
}

void drawLine(std::string &svg, const Layout &layout, const Series &series, const Scale &scale,
              const Panel &panel, const TimeAxis &axis, const char *colour) {
  const bool gathered = series.values.size() > layout.maxPoints();
  for (const std::vector<Bucket> &run : bucketRuns(series, axis, layout.maxPoints())) {
    if (gathered) {
      std::string band;
      for (const Bucket &b : run)
        appendf(band, "%s%.1f %.1f ", band.empty() ? "M" : "L", b.x, yOf(scale, panel, b.high));
      for (auto b = run.rbegin(); b != run.rend(); ++b)
        appendf(band, "L%.1f %.1f ", b->x, yOf(scale, panel, b->low));
      appendf(
          svg,
          "<path class=\"range\" d=\"%sZ\" fill=\"%s\" fill-opacity=\"0.2\" stroke=\"none\"/>\n",
          band.c_str(), colour);
    }
    std::string line;
    for (const Bucket &b : run)
      appendf(line, "%s%.1f %.1f ", line.empty() ? "M" : "L", b.x, yOf(scale, panel, b.mean));
    line.pop_back();
    appendf(svg,
            "<path class=\"line\" d=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\" "
            "stroke-linejoin=\"round\"/>\n",
            line.c_str(), colour);
  }
}

void drawNoData(std::string &svg, const Layout &layout, const Panel &panel, const char *what) {
  appendf(
      svg,
      "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" fill=\"#888\">no %s readings</text>\n",
      (kLeft + layout.right) / 2, (panel.top + panel.bottom) / 2, what);
}

// Good, fair and weak signal as tinted bands behind the RSSI line, labelled on the right.
void drawRssiBands(std::string &svg, const Layout &layout, const Scale &scale, const Panel &panel) {
  struct Band {
    double high;
    double low;
    const char *fill;
    const char *label;
  };
  const Band bands[] = {{scale.high, -67.0, "#e3f4e1", "good"},
                        {-67.0, -80.0, "#fbf3d5", "fair"},
                        {-80.0, scale.low, "#fbe1dd", "weak"}};
  for (const Band &band : bands) {
    double top = yOf(scale, panel, std::min(band.high, scale.high));
    double bottom = yOf(scale, panel, std::max(band.low, scale.low));
    if (bottom <= top)
      continue;
    appendf(svg,
            "<rect class=\"band\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" "
            "fill=\"%s\"/>\n",
            kLeft, top, layout.right - kLeft, bottom - top, band.fill);
    appendf(svg,
            "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"#777\" "
            "font-size=\"11\" stroke=\"#fff\" stroke-width=\"3\" paint-order=\"stroke\">"
            "%s</text>\n",
            layout.right - 6, top + 14, band.label);
  }
}

// A marker on the highest single slot, with its value and time: the line itself may show
// bucket means, the peak is what a user asks about.
void drawPeak(std::string &svg, const Series &series, const Scale &scale, const Panel &panel,
              const TimeAxis &axis, const char *colour) {
  std::size_t best = series.values.size();
  for (std::size_t i = 0; i < series.values.size(); ++i)
    if (series.present(i) &&
        (best == series.values.size() || series.values[i] > series.values[best]))
      best = i;
  if (best == series.values.size())
    return;
  double x = axis.x(series.times[best]);
  double y = yOf(scale, panel, static_cast<double>(series.values[best]));
  std::string text =
      "peak " + formatValue(*series.spec, static_cast<double>(series.values[best])) + " at " +
      localTime(series.times[best], axis.to - axis.from > 26 * 3600 ? "%a %H:%M" : "%H:%M");
  bool leftOfMarker = x > (kLeft + axis.right) / 2;
  appendf(svg,
          "<circle class=\"peak\" cx=\"%.1f\" cy=\"%.1f\" r=\"4\" fill=\"none\" "
          "stroke=\"%s\" stroke-width=\"2\"/>\n",
          x, y, colour);
  appendf(svg,
          "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" font-size=\"11\" "
          "fill=\"#333\" stroke=\"#fff\" stroke-width=\"3\" paint-order=\"stroke\">%s</text>\n",
          leftOfMarker ? x - 8 : x + 8, std::max(y + 4, panel.top + 12),
          leftOfMarker ? "end" : "start", xmlEscape(text).c_str());
}

std::string statsText(const Series &series) {
  SeriesStats stats = statsOf(series);
  if (stats.count == 0)
    return "no readings";
  const SeriesSpec &spec = *series.spec;
  return "min " + formatValue(spec, static_cast<double>(stats.min)) + " · avg " +
         formatValue(spec, stats.average) + " · max " +
         formatValue(spec, static_cast<double>(stats.max));
}

} // namespace

std::string xmlEscape(const std::string &text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
    case '&':
      escaped += "&amp;";
      break;
    case '<':
      escaped += "&lt;";
      break;
    case '>':
      escaped += "&gt;";
      break;
    case '"':
      escaped += "&quot;";
      break;
    case '\'':
      escaped += "&apos;";
      break;
    default:
      // Control characters other than tab and newline are not allowed in XML 1.0.
      if (static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n')
        escaped += c;
    }
  }
  return escaped;
}

std::string renderSvg(const PlotInput &input, const SvgSize &size) {
  std::vector<const Series *> all;
  for (const auto *series : {&input.rssi, &input.rx, &input.tx})
    if (*series && !(*series)->times.empty())
      all.push_back(&**series);
  // A device without RSSI readings (wired) gets no RSSI panel; receive and transmit each get
  // their own, so a small upload is not drawn flat under a large download.
  const bool rssiPanel = input.rssi && statsOf(*input.rssi).count > 0;
  Layout layout = layoutFor(size.width, size.height, rssiPanel ? 3 : 2);
  TimeAxis axis{0, 0, layout.right};
  if (!all.empty()) {
    axis.from = all.front()->times.front();
    axis.to = all.front()->times.back();
    for (const Series *series : all) {
      axis.from = std::min(axis.from, series->times.front());
      axis.to = std::max(axis.to, series->times.back());
    }
  }

  std::string svg;
  appendf(svg,
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
          "viewBox=\"0 0 %.0f %.0f\" font-family=\"DejaVu Sans, Arial, sans-serif\" "
          "font-size=\"12\" fill=\"#222\">\n",
          layout.width, layout.height, layout.width, layout.height);
  std::string title =
      input.mac + (input.host.empty() ? "" : "  " + input.host) + "  —  " + input.spanLabel;
  std::string period;
  if (!all.empty())
    period = localTime(axis.from) + " to " + localTime(axis.to, "%Y-%m-%d %H:%M %Z");
  svg += "<title>" + xmlEscape(title + (period.empty() ? "" : " (" + period + ")")) + "</title>\n";
  appendf(svg, "<rect width=\"%.0f\" height=\"%.0f\" fill=\"#ffffff\"/>\n", layout.width,
          layout.height);
  appendf(svg,
          "<text x=\"%.1f\" y=\"26\" font-size=\"17\"><tspan font-weight=\"bold\">%s</tspan>"
          "<tspan dx=\"12\" font-size=\"13\" fill=\"#555\">%s</tspan></text>\n",
          kLeft, xmlEscape(title).c_str(), xmlEscape(period).c_str());

  std::size_t next = 0;
  if (rssiPanel) {
    const Panel &panel = layout.panels[next++];
    SeriesStats stats = statsOf(*input.rssi);
    Scale scale =
        valueScale(static_cast<double>(stats.min), static_cast<double>(stats.max), false, false);
    scale.step = 10.0;
    scale.low = std::floor(scale.low / 10.0) * 10.0;
    scale.high = std::ceil(scale.high / 10.0) * 10.0;
    drawRssiBands(svg, layout, scale, panel);
    int64_t latest = 0;
    for (std::size_t i = 0; i < input.rssi->values.size(); ++i)
      if (input.rssi->present(i))
        latest = input.rssi->values[i];
    drawValueAxis(svg, layout, scale, panel,
                  "RSSI — " + statsText(*input.rssi) + " — latest " + std::to_string(latest) +
                      " dBm, " + signalClass(latest));
    drawLine(svg, layout, *input.rssi, scale, panel, axis, kRssiColour);
  }
  struct RatePanel {
    const std::optional<Series> *series;
    const char *title;
    const char *what;
    const char *colour;
  };
  for (const RatePanel &rate :
       {RatePanel{&input.rx, "Receive (RX)", "receive bandwidth", kRxColour},
        RatePanel{&input.tx, "Transmit (TX)", "transmit bandwidth", kTxColour}}) {
    const Panel &panel = layout.panels[next++];
    const bool any = *rate.series && statsOf(**rate.series).count > 0;
    double high = any ? static_cast<double>(statsOf(**rate.series).max) : 0.0;
    Scale scale = valueScale(0.0, high, true, true);
    drawValueAxis(svg, layout, scale, panel,
                  std::string(rate.title) + (any ? " — " + statsText(**rate.series) : ""));
    if (!any) {
      drawNoData(svg, layout, panel, rate.what);
      continue;
    }
    drawLine(svg, layout, **rate.series, scale, panel, axis, rate.colour);
    drawPeak(svg, **rate.series, scale, panel, axis, rate.colour);
  }

  if (!all.empty())
    drawTimeAxis(svg, layout, axis);
  svg += "</svg>\n";
  return svg;
}

} // namespace adbtool
