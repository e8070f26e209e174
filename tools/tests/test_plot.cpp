// Tests of the SVG plot and of the escaping of inventory text in every output form.
#include <gtest/gtest.h>

#include "svg.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

TEST(ToolPlot, SvgIsWellFormedAndCarriesAxesUnitsAndLines) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  // A host name that needs escaping in XML.
  runSql(db,
         "UPDATE DEVICEINFO SET HOST_S = 'Ann''s \"TV\" & <den>' WHERE MAC_S = "
         "'02:ad:b0:00:00:01'");
  const std::string svgPath = dir.file("tv.svg");
  runOk({"plot", "02:ad:b0:00:00:01", "--out", svgPath, "--db", db});
  // RSSI against its bands, then receive and transmit each on its own scale and unit (the TV
  // sends a few hundred kbit/s while it receives tens of Mbit/s) with the peak marked.
  expectGolden("plot-tv.svg", readFile(svgPath));

  // The wired uplink has no RSSI panel; the picture can go to standard output at another size.
  expectGolden("plot-uplink-640x480.svg", runOk({"plot", "internet-uplink", "--out", "-", "--width",
                                                 "640", "--height", "480", "--db", db}));
}

TEST(ToolPlot, HostileNamesReachTheTerminalWithoutControlBytesAndStayAligned) {
  TempDir dir;
  const std::string db = simulated(dir, 5);
  // A terminal retitle, a line break and tab, wide characters with a combining mark, bytes that
  // are not UTF-8, and a right-to-left override.
  runSql(db,
         "UPDATE DEVICEINFO SET HOST_S = CASE substr(MAC_S, -1) "
         "WHEN '0' THEN char(27) || ']0;pwned' || char(7) "
         "WHEN '1' THEN 'two' || char(10) || 'lines' || char(9) || 'here' "
         "WHEN '2' THEN char(23458, 21381) || 'e' || char(769) "
         "WHEN '3' THEN CAST(X'626164FFFE' AS TEXT) ELSE char(8238) || 'evil' END");
  // As on a terminal (80 columns when standard output is none): tables fit, and no control
  // byte gets through.
  const std::string shown = transcript(
      {{"devices"}, {"top", "--last", "7d"}, {"series", "02:ad:b0:00:00:00", "--rx"}}, db, true);
  // Every name shown with ^X for its control characters and U+FFFD for its bytes that are not
  // UTF-8, and every row's IP column at the header's terminal column. JSON keeps the names
  // (control characters escaped), with U+FFFD for the bytes that are not UTF-8, so it parses.
  expectGolden("hostile-names.txt", shown + transcript({{"devices"}, {"devices", "--json"}}, db));
}

TEST(ToolPlot, PicturesOfNoSamplesAndOfAWeekWithAGap) {
  PlotInput input;
  input.mac = "02:ad:b0:00:00:07";
  input.spanLabel = "last 1h";
  expectGolden("plot-no-samples.svg", renderSvg(input));

  // A week of RSSI with a missing stretch: more points than pixels, drawn as means with a
  // minimum-to-maximum band, and two runs either side of the gap.
  input.spanLabel = "last 7d";
  Series &rssi = input.rssi.emplace();
  rssi.spec = &seriesSpec(SeriesKind::Rssi);
  rssi.mac = input.mac;
  for (uint32_t i = 0; i < 2016; ++i) {
    rssi.times.push_back(1704067200 + i * 300);
    rssi.slots.push_back(static_cast<int32_t>(i + 1));
    rssi.values.push_back(i >= 900 && i < 1000 ? 0 : -50 - static_cast<int64_t>(i % 7));
  }
  expectGolden("plot-week-with-gap.svg", renderSvg(input));
  // Text reaches the picture escaped, without the control characters XML 1.0 forbids.
  EXPECT_EQ(xmlEscape("a<b>&'\"\x01"), "a&lt;b&gt;&amp;&apos;&quot;");
}

}  // namespace
}  // namespace adbtool::test
