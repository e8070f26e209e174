// Tests of the SVG plot and of the escaping of inventory text in every output form.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "analyticsdb.h"
#include "cli.h"
#include "output.h"
#include "svg.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

std::size_t countOf(const std::string &text, const std::string &what) {
  std::size_t found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++found;
  return found;
}

TEST(ToolPlot, SvgIsWellFormedAndCarriesAxesUnitsAndLines) {
  TempDir dir;
  const std::string db = dir.file("plot.db");
  ASSERT_EQ(
      runCli({"simulate", "--devices", "2", "--days", "1", "--start", "1704067200", "--db", db})
          .status,
      0);
  // A host name that needs escaping in XML and JSON alike.
  ASSERT_EQ(0, db_setDatabasePath(db.c_str()));
  char *rename[] = {const_cast<char *>("02:ad:b0:00:00:01"),
                    const_cast<char *>("Ann's \"TV\" & <den>")};
  ASSERT_EQ(0, db_updateDeviceInfoBeaconFName(rename));
  ASSERT_EQ(0, db_writeQuery("UPDATE DEVICEINFO SET HOST_S = FRIENDLYNAME_S"));
  db_closeDbConnection();

  const std::string svgPath = dir.file("tv.svg");
  ToolRun plot = runCli({"plot", "02:ad:b0:00:00:01", "--out", svgPath, "--db", db});
  ASSERT_EQ(plot.status, 0) << plot.err;
  const std::string svg = readFile(svgPath);
  EXPECT_EQ(xmlProblem(svg), "");
  // RSSI against its bands, then receive and transmit each on its own scale and unit (the TV
  // sends a few hundred kbit/s while it receives tens of Mbit/s) with the peak marked.
  for (const char *expected :
       {"Ann&apos;s &quot;TV&quot; &amp; &lt;den&gt;", ">dBm<", ">Mbit/s<", ">kbit/s<", ">06:00<",
        ">Jan 01<", "Receive (RX) — min", "Transmit (TX) — min", "stroke=\"#1f6fb4\"", ">good<",
        ">fair<", ">weak<", "latest -52 dBm, good", ">peak 28.8 Mbit/s at 20:25<"})
    EXPECT_NE(svg.find(expected), std::string::npos) << expected;
  EXPECT_EQ(countOf(svg, "<path class=\"line\" d=\"M"), 3u);
  EXPECT_EQ(countOf(svg, "<circle class=\"peak\""), 2u);

  // The wired uplink has no RSSI panel; the picture can go to standard output at another size;
  // a raster file name is refused rather than filled with SVG.
  ToolRun wired = runCli(
      {"plot", "internet-uplink", "--out", "-", "--width", "640", "--height", "480", "--db", db});
  ASSERT_EQ(wired.status, 0) << wired.err;
  EXPECT_EQ(xmlProblem(wired.out), "");
  EXPECT_NE(wired.out.find("width=\"640\" height=\"480\""), std::string::npos);
  EXPECT_EQ(wired.out.find("RSSI"), std::string::npos);
  EXPECT_EQ(countOf(wired.out, "<path class=\"line\" d=\"M"), 2u);
  EXPECT_EQ(runCli({"plot", "internet-uplink", "--out", dir.file("x.PNG"), "--db", db}).status, 2);

#ifdef ANALYTICSDB_TOOL_XMLLINT
  const std::string command = std::string(ANALYTICSDB_TOOL_XMLLINT) + " --noout '" + svgPath + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
#endif
}

TEST(ToolPlot, HostileNamesReachTheTerminalWithoutControlBytesAndStayAligned) {
  TempDir dir;
  const std::string db = dir.file("hostile.db");
  ASSERT_EQ(
      runCli({"simulate", "--devices", "5", "--days", "1", "--start", "1704067200", "--db", db})
          .status,
      0);
  ASSERT_EQ(0, db_setDatabasePath(db.c_str()));
  // A terminal retitle, a line break and tab, wide characters with a combining mark, bytes that
  // are not UTF-8, and a right-to-left override.
  const char *const names[] = {"\x1b]0;pwned\x07", "two\nlines\there",
                               "\xe5\xae\xa2\xe5\x8e\x85"
                               "e\xcc\x81",
                               "bad\xff\xfe",
                               "\xe2\x80\xae"
                               "evil"};
  for (std::size_t i = 0; i < std::size(names); ++i) {
    std::string mac = "02:ad:b0:00:00:0" + std::to_string(i);
    char *row[] = {const_cast<char *>(mac.c_str()), const_cast<char *>(names[i])};
    ASSERT_EQ(0, db_updateDeviceInfoBeaconFName(row));
  }
  ASSERT_EQ(0, db_writeQuery("UPDATE DEVICEINFO SET HOST_S = FRIENDLYNAME_S"));
  db_closeDbConnection();

  for (const std::vector<std::string> &args : {std::vector<std::string>{"devices"},
                                               {"top", "--last", "7d"},
                                               {"series", "02:ad:b0:00:00:00", "--rx"}}) {
    std::vector<std::string> withDb = args;
    withDb.insert(withDb.end(), {"--db", db});
    // As on a terminal (80 columns when standard output is none), where tables must fit.
    std::ostringstream out, err;
    ToolRun run{runTool(withDb, out, err, true), out.str(), err.str()};
    ASSERT_EQ(run.status, 0) << args[0] << ": " << run.err;
    for (char c : run.out)
      ASSERT_TRUE(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f))
          << args[0] << " printed control byte " << static_cast<int>(c) << ":\n"
          << run.out;
    EXPECT_EQ(run.out.find("\xe2\x80\xae"), std::string::npos) << args[0];
    EXPECT_EQ(run.out.find("\xff"), std::string::npos) << args[0];
    if (args[0] == "top" || args[0] == "devices") {
      std::size_t start = 0;
      for (std::size_t end; (end = run.out.find('\n', start)) != std::string::npos; start = end + 1)
        EXPECT_LE(displayWidth(run.out.substr(start, end - start)), 80u) << run.out;
    }
  }
  // Every row of the inventory starts its IP column at the header's terminal column.
  std::string table = runCli({"devices", "--db", db}).out;
  std::size_t header = table.find("IP");
  std::size_t lineStart = 0;
  std::size_t rows = 0;
  while ((lineStart = table.find('\n', lineStart) + 1) < table.size()) {
    std::string line = table.substr(lineStart, table.find('\n', lineStart) - lineStart);
    std::size_t ip = std::min(line.find("192.168."), line.find("203.0.113."));
    if (ip == std::string::npos)
      continue;
    EXPECT_EQ(displayWidth(line.substr(0, ip)), header) << line;
    ++rows;
  }
  EXPECT_EQ(rows, 5u) << table;
  // JSON keeps the names (control characters escaped), with U+FFFD for the bytes that are not
  // UTF-8, so it always parses.
  Json devices = Json::parse(runCli({"devices", "--json", "--db", db}).out);
  EXPECT_EQ(devices["devices"][0]["host"], "\x1b]0;pwned\x07");
  EXPECT_EQ(devices["devices"][3]["host"], "bad\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(ToolPlot, LongSpansAreGatheredIntoBandsAndGapsBreakTheLine) {
  // A week of RSSI with a missing stretch: more points than pixels, drawn as means with a
  // minimum-to-maximum band, and two runs either side of the gap.
  PlotInput input;
  input.mac = "02:ad:b0:00:00:07";
  input.spanLabel = "last 7d";
  Series rssi;
  rssi.spec = &seriesSpec(SeriesKind::Rssi);
  rssi.mac = input.mac;
  for (uint32_t i = 0; i < 2016; ++i) {
    rssi.times.push_back(1704067200 + i * 300);
    rssi.slots.push_back(static_cast<int32_t>(i + 1));
    rssi.values.push_back(i >= 900 && i < 1000 ? 0 : -50 - static_cast<int64_t>(i % 7));
  }
  input.rssi = rssi;
  std::string svg = renderSvg(input);
  EXPECT_EQ(xmlProblem(svg), "");
  EXPECT_EQ(countOf(svg, "<path class=\"line\" d=\"M"), 2u);
  EXPECT_EQ(countOf(svg, "<path class=\"range\" d=\"M"), 2u);
  EXPECT_NE(svg.find("no receive bandwidth readings"), std::string::npos);
  EXPECT_NE(svg.find(">Tue<"), std::string::npos); // day ticks over a week
}

TEST(ToolPlot, CheckerRejectsBrokenXml) {
  // The checker above must be able to fail, or the test proves nothing.
  EXPECT_EQ(xmlProblem("<svg><g></g></svg>"), "");
  EXPECT_NE(xmlProblem("<svg><g></svg>"), "");
  EXPECT_NE(xmlProblem("<svg a=\"1 & 2\"/>"), "");
  EXPECT_NE(xmlProblem("<svg>a < b</svg>"), "");
  EXPECT_NE(xmlProblem("<svg/><svg/>"), "");
  EXPECT_EQ(adbtool::xmlEscape("a<b>&'\"\x01"), "a&lt;b&gt;&amp;&apos;&quot;");
}

TEST(ToolPlot, DeviceWithoutSamplesStillGetsAPictureOfNothing) {
  PlotInput input;
  input.mac = "02:ad:b0:00:00:07";
  input.spanLabel = "last 1h";
  std::string svg = renderSvg(input);
  EXPECT_EQ(xmlProblem(svg), "");
  EXPECT_EQ(svg.find("RSSI"), std::string::npos);
  EXPECT_NE(svg.find("no receive bandwidth readings"), std::string::npos);
  EXPECT_NE(svg.find("no transmit bandwidth readings"), std::string::npos);
}

} // namespace
} // namespace adbtool::test
