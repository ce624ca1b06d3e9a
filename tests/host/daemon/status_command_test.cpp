// `oasd status` from pages it did not fetch itself: what is not protecting says so in its
// exit status, and a detection's file name cannot write to the operator's terminal.
#include <gtest/gtest.h>

#include <sstream>

#include "host/daemon/status_command.h"

namespace {

TEST(StatusCommand, ExitStatusFollowsProtectionAndFileNamesAreEscaped) {
  const auto before = oasd::ParseMetricsPage("# HELP x\noasd_events_total 10\noasd_protecting 1\n");
  const auto after = oasd::ParseMetricsPage(
      "oasd_events_total 30\noasd_protecting 1\noas_cache_hits_total 3\noas_cache_misses_total 1\n"
      "oasd_verdicts_total{verdict=\"deny\"} 2\n");
  EXPECT_EQ(after.at("oasd_verdicts_total{verdict=\"deny\"}"), 2);
  const std::vector<std::string> events{
      R"({"type": "detection", "time": "T1", "threat": "Old", "path": "/a"})", "not json",
      R"({"type": "unprocessed", "path": "/b"})",
      R"({"type": "detection", "time": "T2", "threat": "Eicar", "path": "/x\u001b[2J\ny"})"};
  std::ostringstream out;
  EXPECT_EQ(oasd::PrintStatus(before, after, 2.0, {}, events, out), oasd::StatusProtecting);
  const std::string text = out.str();
  EXPECT_NE(text.find("oasd: protecting\n"), std::string::npos) << text;
  EXPECT_NE(text.find("10.0 events/s"), std::string::npos) << text;
  EXPECT_NE(text.find("module 75% of 4 lookups"), std::string::npos) << text;
  EXPECT_NE(text.find("T2 Eicar in /x\\x1B[2J\\ny\n"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1b'), std::string::npos);

  std::ostringstream stopping;
  EXPECT_EQ(oasd::PrintStatus(before, oasd::ParseMetricsPage("oasd_protecting 0\n"), 1.0, {}, {},
                              stopping),
            oasd::StatusNotProtecting);
  EXPECT_NE(stopping.str().find("NOT protecting"), std::string::npos);
}

}  // namespace
