// The events file as a log reader sees it: one parseable JSON object per record whatever
// the path holds, and a full disk that costs records but never the caller.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/reporting/event_log.h"
#include "host/reporting/log_text.h"
#include "host/reporting/tracer.h"
#include "nox_tracing/tracing.h"
#include "testing/capturing_tracer.h"
#include "testing/fake_files.h"
#include "testing/host_object.h"

namespace {

qeb::objptr_t<qeb::ITracer> Sink(const qeb::objptr_t<qeb::testing::CapturingTracer>& tracer) {
  return qeb::objptr_t<qeb::ITracer>(tracer.Get());
}

using nlohmann::json;
using qeb::objptr_t;
using qeb::testing::CapturingTracer;
using qeb::testing::MakeHostObject;

std::vector<json> ReadLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<json> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(json::parse(line));
  return lines;
}

nox::ProcessingErrorEvent TimeoutEvent(std::u16string fileName) {
  nox::ProcessingErrorEvent event;
  event.time = 1700000000;
  event.reason = u"timeout";
  event.fileName = std::move(fileName);
  event.fileSize = 42;
  event.taskName = u"On-access scan";
  event.taskId = 1;
  return event;
}

TEST(HostEventLog, RecordsAreOneJsonObjectPerLineWhateverTheTextHolds) {
  qeb::testing::TempDir dir;
  const std::string path = dir.Path() + "/events.jsonl";
  oasd::HostMetrics metrics;
  auto log = MakeHostObject<oasd::EventLog>(Sink(MakeHostObject<CapturingTracer>()), metrics);
  ASSERT_EQ(log->Open(path), "");

  const std::u16string awkward = u"/srv/a \"quoted\"\nname\t\\ \x01 \u00e9\u4e2d";
  EXPECT_EQ(log->Publish(TimeoutEvent(awkward)), qeb::res::Ok);
  const std::string invalidUtf8 = "/srv/bad\xff\xfe.bin";
  log->Detection({invalidUtf8, "Eicar-Test-Signature", 1234, 1000, "open"});
  log->Detection({"/srv/gone", "Eicar", 77, std::nullopt, "open"});  // an opener that has exited

  const auto lines = ReadLines(path);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0]["type"], "processing_error");
  EXPECT_EQ(lines[0]["file"], "/srv/a \"quoted\"\nname\t\\ \x01 \u00e9\u4e2d");
  EXPECT_EQ(lines[0]["reason"], "timeout");
  EXPECT_EQ(lines[0]["time"], "2023-11-14T22:13:20.000Z");
  EXPECT_EQ(lines[0]["file_size"], 42);
  EXPECT_EQ(lines[0]["task"], "On-access scan");
  EXPECT_EQ(lines[1]["type"], "detection");
  EXPECT_EQ(lines[1]["path"], "/srv/bad\xef\xbf\xbd\xef\xbf\xbd.bin");
  EXPECT_EQ(lines[1]["threat"], "Eicar-Test-Signature");
  EXPECT_EQ(lines[1]["pid"], 1234);
  EXPECT_EQ(lines[1]["uid"], 1000);
  EXPECT_EQ(lines[1]["operation"], "open");
  EXPECT_EQ(lines[2]["pid"], 77);
  EXPECT_FALSE(lines[2].contains("uid")) << lines[2];
  EXPECT_EQ(metrics.processingErrors, 1u);
  EXPECT_EQ(metrics.detections, 2u);
}

// A file size limit stands in for a full disk: each write past it fails with EFBIG.
TEST(HostEventLog, AFullDiskIsCountedAndTracedOncePerStreak) {
  qeb::testing::TempDir dir;
  const std::string path = dir.Path() + "/events.jsonl";
  oasd::HostMetrics metrics;
  auto tracer = MakeHostObject<CapturingTracer>();
  auto log = MakeHostObject<oasd::EventLog>(Sink(tracer), metrics);
  ASSERT_EQ(log->Open(path), "");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit full = before;
  full.rlim_cur = 10;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);

  for (int i = 0; i < 3; ++i) EXPECT_EQ(log->Publish(TimeoutEvent(u"/f")), qeb::res::Ok);
  log->Detection({"/f", "Eicar", 1, 0, "open"});
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, oldHandler);

  EXPECT_EQ(log->WriteFailures(), 4u);
  EXPECT_EQ(tracer->Count("Cannot write the events file " + path), 1u);
  EXPECT_EQ(metrics.processingErrors, 3u);
  EXPECT_EQ(metrics.detections, 1u);
}

TEST(HostEventLog, WithoutAFileRecordsAreOnlyCounted) {
  oasd::HostMetrics metrics;
  auto log = MakeHostObject<oasd::EventLog>(Sink(MakeHostObject<CapturingTracer>()), metrics);
  ASSERT_EQ(log->Open(""), "");
  EXPECT_EQ(log->Publish(TimeoutEvent(u"/f")), qeb::res::Ok);
  EXPECT_EQ(log->WriteFailures(), 0u);
  EXPECT_EQ(metrics.processingErrors, 1u);
}

TEST(HostTracer, LinesCarryTimeAndLevelAndRespectTheCeiling) {
  qeb::testing::TempDir dir;
  const std::string path = dir.Path() + "/oasd.log";
  auto tracer = MakeHostObject<oasd::HostTracer>(qeb::trace::LevelNotice);
  ASSERT_EQ(tracer->OpenLogFile(path), "");
  QEB_TRACE(tracer, qeb::trace::LevelError) << "broken " << 7;
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << "not shown";
  tracer->SetCeiling(qeb::trace::LevelDetail);
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << std::string(2000, 'x');

  std::ifstream in(path);
  std::string first, second, third;
  std::getline(in, first);
  std::getline(in, second);
  EXPECT_FALSE(std::getline(in, third));
  // 2026-11-22T09:05:03.123Z ERROR broken 7
  ASSERT_GT(first.size(), 25u);
  EXPECT_EQ(first[10], 'T');
  EXPECT_EQ(first[23], 'Z');
  EXPECT_EQ(first.substr(24), " ERROR broken 7");
  EXPECT_EQ(second.substr(24), " DETAIL " + std::string(2000, 'x'));
}

// A file name is the one piece of a log line an ordinary user chooses: whatever it holds,
// it stays on its line and reads unambiguously (the whole path: oasd_files_test).
TEST(HostTracer, UntrustedTextCannotAddALineOrHideInAnEscape) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"a\nb\r\tc", "a\\nb\\r\\tc"},
      {"\x1b[31mred\x07\x7f", "\\x1B[31mred\\x07\\x7F"},
      {std::string("nul\0!", 5), "nul\\x00!"},
      {"back\\n slash", "back\\\\n slash"},
      {"C1 \xc2\x85 \xc2\x9b and separators \xe2\x80\xa8\xe2\x80\xa9",
       "C1 \\u0085 \\u009B and separators \\u2028\\u2029"},
      {"bad \xff\xfe, overlong \xc0\x8a, surrogate \xed\xa0\x80, cut \xe4\xb8",
       "bad \\xFF\\xFE, overlong \\xC0\\x8A, surrogate \\xED\\xA0\\x80, cut \\xE4\\xB8"},
      {"caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80 \xc2\xa0", "caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80 \xc2\xa0"},
  };
  for (const auto& c : cases) EXPECT_EQ(oasd::EscapeLogText(c.in), c.out) << c.in;
}

}  // namespace
