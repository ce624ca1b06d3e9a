// The file event record's printed form (exact text in decimal and hexadecimal, null and
// out-of-table fields) and copies, which must carry every field and own their strings.
#include <gtest/gtest.h>

#include <cstdint>

#include "oas/event_params_text.h"
#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace {

vrel::EventParams SampleRecord() {
  vrel::EventParams p;
  p.fileName = qeb::basic_string_t("/home/user/a file.txt");
  p.cookie = 18446744073709551615ull;
  p.uid = 4294967295u;
  p.pid = -1;
  p.fd = -1;
  p.upid = 1234567890123ull;
  p.queue_id = 65535;
  p.oper = vrel::VREL_ACTION_CLOSE_MODIFY;
  p.dev = 2049;
  p.ino = 77;
  p.nsid = 4026531840ull;
  p.mtime = {1700000000, 0};
  p.ctime = {1700000000, 5};
  return p;
}

std::string TracedInHex(const vrel::EventParams& p) {
  auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << "Event" << qeb::trace::hex << p;
  const auto lines = tracer->Lines();
  return lines.size() == 1 ? lines[0].text : "<no single line>";
}

TEST(EventParamsText, PrintsEveryFieldInOrderInTheLinesNumberBase) {
  EXPECT_EQ(vrel::ToString(SampleRecord()),
            " Filename: /home/user/a file.txt, cookie: 18446744073709551615, uid: 4294967295, "
            "pid: -1, upid: 1234567890123, fd: -1, queue_id: 65535, "
            "oper: VREL_ACTION_CLOSE_MODIFY, dev: 2049, ino: 77, nsid: 4026531840, "
            "mtime: 1700000000.000000000, ctime: 1700000000.000000005");
  auto p = SampleRecord();
  p.pid = -2;
  p.fd = 10;
  EXPECT_EQ(TracedInHex(p),
            "Event Filename: /home/user/a file.txt, cookie: 0xffffffffffffffff, uid: 0xffffffff, "
            "pid: 0xfffffffe, upid: 0x11f71fb04cb, fd: 0xa, queue_id: 0xffff, "
            "oper: VREL_ACTION_CLOSE_MODIFY, dev: 0x801, ino: 0x4d, nsid: 0xf0000000, "
            "mtime: 1700000000.000000000, ctime: 1700000000.000000005");
}

TEST(EventParamsText, NullNameAndOperationsOutsideTheTablePrintNull) {
  vrel::EventParams p;
  for (const uint32_t oper : {9u, 0xFFFFFFFFu}) {
    p.oper = oper;
    const std::string text = vrel::ToString(p);
    EXPECT_EQ(text.rfind(" Filename: (null), cookie: 0, ", 0), 0u) << text;
    EXPECT_NE(text.find(", oper: (null), dev: "), std::string::npos) << text;
  }
  p.fileName = qeb::basic_string_t("");
  p.oper = vrel::VREL_ACTION_ACCESS;
  EXPECT_EQ(vrel::ToString(p).rfind(" Filename: , cookie: 0, ", 0), 0u);
  EXPECT_NE(vrel::ToString(p).find(", oper: VREL_ACTION_ACCESS, "), std::string::npos);
}

// The caches compare change times of whatever the interception layer read: a hostile or
// corrupt far-off time must wrap, not overflow (the sanitizer build traps on overflow).
TEST(EventParamsTimes, FarOffTimesWrapInsteadOfOverflowing) {
  EXPECT_EQ(vrel::ToNanoseconds({1, 5}), 1'000'000'005);
  EXPECT_EQ(vrel::ToNanoseconds({-1, 0}), -1'000'000'000);
  const int64_t far = vrel::ToNanoseconds({INT64_MAX, 999'999'999});
  EXPECT_EQ(static_cast<uint64_t>(far),
            static_cast<uint64_t>(INT64_MAX) * 1'000'000'000u + 999'999'999u);
}

}  // namespace
