// The line the module traces when a checked call fails: "(expression),(QEB_SUCCEEDED(_result))
// failed: result = <code text><sentence>" at the end of a line. One matcher for every test
// that pins such a line; a miss lists the error lines, which is what a reader needs.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "framework/qeb/result_text.h"
#include "testing/capturing_tracer.h"

namespace qeb::testing {

inline ::testing::AssertionResult HasCheckLine(const CapturingTracer& tracer, const std::string& expression,
                                               result_t code, const std::string& sentence) {
  const std::string tail =
      expression + "),(QEB_SUCCEEDED(_result)) failed: result = " + ResultText(code) + sentence;
  for (const auto& line : tracer.Lines())
    if (line.text.ends_with(tail)) return ::testing::AssertionSuccess();
  auto failure = ::testing::AssertionFailure() << "no line ends with " << tail << "\nerror lines:";
  for (const auto& line : tracer.Texts(trace::LevelError)) failure << "\n  " << line;
  return failure;
}

}  // namespace qeb::testing
