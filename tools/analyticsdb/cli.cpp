// cli.cpp - arguments (CLI11), dispatch to the commands, and the mapping of failures to exit
// statuses and one-line messages.
#include "cli.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include "commands.h"
#include "export.h"
#include "output.h"
#include "session.h"
#include "top.h"

#ifndef ANALYTICSDB_TOOL_DEFAULT_DB
#define ANALYTICSDB_TOOL_DEFAULT_DB "/flash/morv/edge_analytics/analytics.db"
#endif
#ifndef ANALYTICSDB_TOOL_STATS_DIR
#define ANALYTICSDB_TOOL_STATS_DIR "/run/analyticsdb"
#endif
#ifndef ANALYTICSDB_TOOL_VERSION
#define ANALYTICSDB_TOOL_VERSION "0"
#endif

namespace adbtool {

namespace {

constexpr const char *kDemoDatabase = "analyticsdb-demo.db";

constexpr const char *kExitStatusHelp =
    "Exit status: 0 done; 1 failed (message on stderr); 2 usage error or refused; 3 database\n"
    "busy longer than --wait; 4 no database or no analytics tables; 5 not a database or\n"
    "damaged; 6 no permission or read-only.";

struct SpanArguments {
  std::string last = "24h";
  std::string from;
  std::string to;
};

struct Arguments {
  std::string db;
  double watchSeconds = 0.0;
  int watchCount = 0;
  bool force = false;
  double waitSeconds = 5.0;
  int verbosity = 0;
  bool json = false;
  SeriesOptions series;
  bool rssi = false, rx = false, tx = false, csv = false, seriesJson = false;
  SpanArguments seriesSpan;
  int width = 0;
  PlotOptions plot;
  SpanArguments plotSpan;
  SimulateOptions simulate;
  SpanArguments topSpan;
  TopOptions top;
  ExportOptions exporting;
};

const CLI::Validator kSpanValidator(
    [](std::string &text) {
      SpanOption span;
      return parseSpan(text, span)
                 ? std::string()
                 : "'" + text + "' is not a span from 5m to 7d (like 1h, 24h or 7d)";
    },
    "SPAN", "span");

const CLI::Validator kTimeValidator(
    [](std::string &text) {
      uint32_t epoch = 0;
      return parseTime(text, epoch) ? std::string()
                                    : "'" + text +
                                          "' is not a time (like '2024-01-01 06:00', "
                                          "2024-01-01T06:00, 2024-01-01 or @1704067200)";
    },
    "TIME", "time");

int terminalColumns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  return 80;
}

void addSpanOptions(CLI::App *command, SpanArguments &target) {
  auto *last = command
                   ->add_option("--last", target.last,
                                "Span ending at the latest sample: 5m to 7d, e.g. 1h, 24h, 7d")
                   ->check(kSpanValidator)
                   ->capture_default_str();
  command->add_option("--from", target.from, "Start at this local time (instead of --last)")
      ->check(kTimeValidator)
      ->excludes(last);
  command->add_option("--to", target.to, "End at this local time (default: the latest sample)")
      ->check(kTimeValidator);
}

// --from/--to become a span label; without --from, --last counts back from --to.
SpanOption spanOf(const SpanArguments &args) {
  SpanOption span;
  parseSpan(args.last, span);
  if (!args.to.empty())
    parseTime(args.to, span.to);
  if (!args.from.empty()) {
    parseTime(args.from, span.from);
    span.text = args.from + " to " + (args.to.empty() ? "latest" : args.to);
  } else if (!args.to.empty()) {
    span.text = args.last + " to " + args.to;
  }
  return span;
}

void addDevice(CLI::App *command, std::string &target) {
  command->add_option("DEVICE", target, "MAC address or host name of the device")->required();
}

volatile std::sig_atomic_t gInterrupted = 0;

// Redraws until interrupted: the connection is closed between rounds, so the gateway's own
// writers never wait for the tool. A busy database is reported and tried again next round.
template <class Run>
void watchLoop(double seconds, int count, bool terminal, std::ostream &out, Run run) {
  gInterrupted = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { gInterrupted = 1; };
  sigemptyset(&action.sa_mask);
  struct sigaction oldInt {
  }, oldTerm{};
  sigaction(SIGINT, &action, &oldInt);
  sigaction(SIGTERM, &action, &oldTerm);
  struct Restore {
    struct sigaction &i, &t;
    ~Restore() {
      sigaction(SIGINT, &i, nullptr);
      sigaction(SIGTERM, &t, nullptr);
    }
  } restore{oldInt, oldTerm};

  for (int round = 0; !gInterrupted && (count == 0 || round < count); ++round) {
    if (round > 0) {
      auto until = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(std::lround(seconds * 1000.0));
      while (!gInterrupted && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (gInterrupted)
        break;
    }
    std::ostringstream frame;
    try {
      run(frame);
    } catch (const ToolError &error) {
      if (error.failure() != Failure::Busy)
        throw;
      frame << "analyticsdb: " << printable(error.what()) << '\n';
    }
    // Home the cursor and clear, then the whole frame at once: no flicker of half a table.
    if (terminal)
      out << "\x1b[H\x1b[2J";
    else if (round > 0)
      out << '\n';
    out << frame.str() << std::flush;
  }
}

std::string failureMessage(const CLI::App *, const CLI::Error &error) {
  return std::string("analyticsdb: ") + error.what() + "\nRun 'analyticsdb --help' for usage.\n";
}

} // namespace

int runTool(const std::vector<std::string> &args, std::ostream &out, std::ostream &err,
            bool outIsTerminal) {
  Arguments a;
  CLI::App app{"Look into and exercise a gateway's analytics database: device inventory and "
               "RSSI / bandwidth samples in 5-minute slots over a week.",
               "analyticsdb"};
  app.require_subcommand(1);
  app.fallthrough();
  app.failure_message(failureMessage);
  app.set_version_flag("--version", std::string("analyticsdb ") + ANALYTICSDB_TOOL_VERSION);
  CLI::Option *dbOption =
      app.add_option("--db", a.db,
                     std::string("Database file (default ") + ANALYTICSDB_TOOL_DEFAULT_DB +
                         "; demo: " + kDemoDatabase + ")");
  app.add_flag("--force", a.force,
               "Write into a file that holds other data, or use the default path with --db ''");
  app.add_option("--wait", a.waitSeconds,
                 "Seconds to wait for another process that holds the database")
      ->check(CLI::Range(0.0, 3600.0))
      ->capture_default_str();
  app.add_flag("-v,--verbose", a.verbosity,
               "Show the library's log lines (twice: debug lines too)");
  app.add_option("--watch", a.watchSeconds,
                 "Redraw devices, series or top every this many seconds, until interrupted")
      ->check(CLI::Range(0.5, 86400.0));
  app.add_option("--count", a.watchCount, "With --watch: stop after this many redraws")
      ->check(CLI::Range(1, 1000000));
  app.footer(kExitStatusHelp);

  CLI::App *init = app.add_subcommand("init", "Create every table of a full week");

  CLI::App *devices = app.add_subcommand("devices", "List the device inventory");
  devices->add_flag("--json", a.json, "JSON for machines");

  CLI::App *series = app.add_subcommand("series", "Show one device's samples over a span");
  addDevice(series, a.series.mac);
  auto *rssi = series->add_flag("--rssi", a.rssi, "RSSI in dBm (the default)");
  auto *rx = series->add_flag("--rx", a.rx, "Receive bandwidth in kbit/s");
  auto *tx = series->add_flag("--tx", a.tx, "Transmit bandwidth in kbit/s");
  rssi->excludes(rx)->excludes(tx);
  rx->excludes(tx);
  addSpanOptions(series, a.seriesSpan);
  auto *csv = series->add_flag("--csv", a.csv, "Raw slots with their times as CSV");
  auto *json = series->add_flag("--json", a.seriesJson, "Raw slots with their times as JSON");
  csv->excludes(json);
  series->add_option("--width", a.width, "Chart columns (default: the terminal's width)")
      ->check(CLI::Range(16, 1000));
  series->add_flag("--ascii", a.series.chart.ascii, "Chart in plain ASCII");

  CLI::App *top = app.add_subcommand(
      "top", "Every device over a span: traffic totals, peak, latest and worst RSSI");
  addSpanOptions(top, a.topSpan);
  top->add_option("--sort", a.top.order, "Order: total, rx, tx, rssi (weakest first) or name")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, TopOrder>{{"total", TopOrder::Total},
                                                                  {"rx", TopOrder::Rx},
                                                                  {"tx", TopOrder::Tx},
                                                                  {"rssi", TopOrder::Rssi},
                                                                  {"name", TopOrder::Name}},
                                  CLI::ignore_case));
  top->add_flag("--json", a.top.json, "JSON for machines");

  CLI::App *exporter = app.add_subcommand(
      "export",
      "Latest values of every device, and the queue counters of the processes using the library, "
      "for a fleet's collectors (OpenMetrics or JSON)");
  exporter->add_option("--format", a.exporting.format, "openmetrics (the default) or json")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, ExportFormat>{{"openmetrics", ExportFormat::OpenMetrics},
                                              {"json", ExportFormat::JsonDocument}},
          CLI::ignore_case));
  exporter->add_option("--out", a.exporting.outPath,
                       "File to replace atomically (e.g. for a textfile collector); - or none: "
                       "standard output");
  // Where the library publishes the queue counters of the processes that use it.
  const char *statsDir = std::getenv("ANALYTICSDB_STATS_DIR");
  a.exporting.statsDir = statsDir != nullptr ? statsDir : ANALYTICSDB_TOOL_STATS_DIR;
  exporter
      ->add_option("--stats-dir", a.exporting.statsDir,
                   "Folder of the queue counters processes publish ($ANALYTICSDB_STATS_DIR, else "
                   "the compiled-in folder); empty: none")
      ->capture_default_str();

  CLI::App *plot = app.add_subcommand("plot", "Draw a device's RSSI and bandwidth as SVG");
  addDevice(plot, a.plot.mac);
  plot->add_option("--out", a.plot.outPath, "SVG file to write; - for standard output")
      ->required()
      ->check(CLI::Validator(
          [](std::string &name) {
            // The picture is SVG whatever the name says; a .png that holds SVG helps nobody.
            std::string lower = name;
            std::transform(lower.begin(), lower.end(), lower.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            for (const char *raster : {".png", ".jpg", ".jpeg", ".gif", ".webp"})
              if (lower.size() >= std::strlen(raster) &&
                  lower.compare(lower.size() - std::strlen(raster), std::string::npos, raster) == 0)
                return "'" + name +
                       "': plot draws SVG only (name the file .svg, or convert it, e.g. with a "
                       "browser)";
            return std::string();
          },
          "FILE", "svg-file"));
  plot->add_option("--width", a.plot.size.width, "Picture width in pixels")
      ->check(CLI::Range(480.0, 4000.0))
      ->capture_default_str();
  plot->add_option("--height", a.plot.size.height, "Picture height in pixels")
      ->check(CLI::Range(360.0, 3000.0))
      ->capture_default_str();
  addSpanOptions(plot, a.plotSpan);

  CLI::App *simulate =
      app.add_subcommand("simulate", "Write a synthetic home network through the library");
  simulate->add_option("--devices", a.simulate.devices, "Number of devices")
      ->check(CLI::Range(1, 1024))
      ->capture_default_str();
  simulate->add_option("--days", a.simulate.days, "Days of 5-minute ticks")
      ->check(CLI::Range(1, 60))
      ->capture_default_str();
  simulate->add_flag("--contend", a.simulate.contend,
                     "Let a second process hold the database in bursts, so writes are queued");
  simulate
      ->add_option("--start", a.simulate.start, "Unix time of the first tick (default: days ago)")
      ->check(CLI::Range(static_cast<uint32_t>(1), static_cast<uint32_t>(4000000000U)));

  CLI::App *demo =
      app.add_subcommand("demo", "Simulate a small network into a fresh local file and show it");

  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError &error) {
    int status = app.exit(error, out, err);
    return status == 0 ? kExitOk : kExitUsage;
  }

  const bool isDemo = demo->parsed();
  // An empty --db is a script's unset variable far more often than a wish for the flash path.
  if (dbOption->count() > 0 && a.db.empty() && !a.force) {
    err << "analyticsdb: --db is empty (give a file, or add --force to use "
        << ANALYTICSDB_TOOL_DEFAULT_DB << ")\n";
    return kExitUsage;
  }
  const bool defaultPath = a.db.empty();
  std::string path = !defaultPath ? a.db : isDemo ? kDemoDatabase : ANALYTICSDB_TOOL_DEFAULT_DB;

  a.series.kind = a.rx ? SeriesKind::Rx : a.tx ? SeriesKind::Tx : SeriesKind::Rssi;
  a.series.format = a.csv          ? SeriesFormat::Csv
                    : a.seriesJson ? SeriesFormat::Json
                                   : SeriesFormat::Chart;
  a.series.span = spanOf(a.seriesSpan);
  a.plot.span = spanOf(a.plotSpan);
  a.top.span = spanOf(a.topSpan);
  if (a.width > 0)
    a.series.chart.width = a.width;
  else if (outIsTerminal)
    a.series.chart.width = std::clamp(terminalColumns() - 16, 16, 200);

  auto runOnce = [&](std::ostream &to) {
    Session session(path, a.verbosity, err,
                    std::chrono::milliseconds(std::lround(a.waitSeconds * 1000.0)));
    bool clean = true;
    if (init->parsed())
      runInit(session, a.force, to);
    else if (devices->parsed())
      runDevices(session, a.json, outIsTerminal ? terminalColumns() : 0, to);
    else if (series->parsed())
      runSeries(session, a.series, to);
    else if (exporter->parsed())
      runExport(session, a.exporting, to);
    else if (top->parsed())
      runTop(session, a.top, to);
    else if (plot->parsed())
      runPlot(session, a.plot, to);
    else if (simulate->parsed())
      clean = runSimulate(session, a.simulate, a.force, to);
    else if (isDemo)
      clean = runDemo(session, defaultPath, a.series.chart, to);
    if (!clean)
      throw ToolError("the simulation lost requests or read back other values than it wrote");
  };

  const bool watching = a.watchSeconds > 0.0;
  if (watching && !(devices->parsed() || series->parsed() || top->parsed())) {
    err << "analyticsdb: --watch redraws devices, series or top only\n";
    return kExitUsage;
  }
  try {
    if (!watching) {
      runOnce(out);
      return kExitOk;
    }
    watchLoop(a.watchSeconds, a.watchCount, outIsTerminal, out, runOnce);
    return kExitOk;
  } catch (const ToolError &error) {
    out.flush();
    // Messages carry device names: keep their control characters off the terminal too.
    err << "analyticsdb: " << printable(error.what()) << '\n';
    return static_cast<int>(error.failure());
  } catch (const std::exception &error) {
    out.flush();
    err << "analyticsdb: unexpected failure: " << error.what() << '\n';
  }
  return kExitFailure;
}

} // namespace adbtool
