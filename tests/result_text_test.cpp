// Result messages and the printed result form: named codes at the edges of each table,
// the deliberate gaps, other facilities and the "0x%08x (message)" form. Owns no state.
#include <gtest/gtest.h>

#include <string>

#include "framework/qeb/result_text.h"

namespace {

constexpr std::string_view kUnknown = "Unknown result code";

std::string_view Msg(uint32_t code) { return qeb::ResultMessage(qeb::MakeResult(code)); }

TEST(ResultMessage, NamedCodesAtTableEdges) {
  EXPECT_EQ(Msg(0x00000000), "No error");
  EXPECT_EQ(Msg(0x00000001), "False");
  EXPECT_EQ(Msg(0x80000001), "Interface not supported");
  EXPECT_EQ(Msg(0x80000040), "Unexpected");
  EXPECT_EQ(Msg(0x80000079), "Trace level ok");
  EXPECT_EQ(Msg(0x80000152), "Exception with successful result code");
  EXPECT_EQ(Msg(0x80000313), "DateTime syntax error");
  EXPECT_EQ(Msg(0x80010100), "Unspecified platform error");
  EXPECT_EQ(Msg(0x80010109), "Invalid path name");
  EXPECT_EQ(Msg(0x80010110), "Cannot open an anonymous level security token");
  EXPECT_EQ(Msg(0x80010118), "System shutdown in progress");
}

TEST(ResultMessage, UnlistedValuesAreUnknown) {
  for (uint32_t code : {0x00000002u, 0x7FFFFFFFu, 0x80000000u, 0x80000002u, 0x8000003Fu,
                        0x80000314u, 0x8001010Au, 0x8001010Fu, 0x80010119u, 0x800100FFu,
                        0x00010100u,  // facility 1 but not a failure
                        0x80020000u, 0x80060003u, 0xFFFFFFFFu})
    EXPECT_EQ(Msg(code), kUnknown) << std::hex << code;
}

TEST(ResultMessage, TablesHoldExactlyTheNamedCodes) {
  size_t general = 0, platform = 0;
  for (uint32_t c = 0x80000000; c <= 0x80000FFF; ++c) general += Msg(c) != kUnknown;
  for (uint32_t c = 0x80010000; c <= 0x80010FFF; ++c) platform += Msg(c) != kUnknown;
  EXPECT_EQ(general, 62u);
  EXPECT_EQ(platform, 19u);
}

TEST(ResultText, HexFormWithMessage) {
  EXPECT_EQ(qeb::ResultText(qeb::res::InvalidArgument), "0x80000046 (Invalid argument)");
  EXPECT_EQ(qeb::ResultText(0), "0x00000000 (No error)");
  EXPECT_EQ(qeb::ResultText(0x1ab), "0x000001ab (Unknown result code)");
  std::string out = "result = ";
  qeb::AppendResultText(out, qeb::MakeResult(0x8001010A));
  EXPECT_EQ(out, "result = 0x8001010a (Unknown result code)");
}

}  // namespace
