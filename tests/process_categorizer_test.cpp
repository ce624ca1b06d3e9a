// Process category checks against the fake application catalogue: the answer for
// matching, mismatching and uncategorised applications, the lines each step writes,
// and every host failure handed back with its failed-check line.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/exception.h"
#include "framework/qeb/result_text.h"
#include "oas/cache_impl/process_categorizer.h"
#include "testing/fake_host.h"

namespace {

using nox::oas::ProcessCategorizer;
using qeb::testing::FakeHost;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

constexpr char ServerImage[] = "/usr/lib/db/bin/server";

ProcessInfo Process(const std::string& imagePath) {
  ProcessInfo info;
  info.m_pid = 77;
  info.m_uniqueId = 7007;
  info.m_imagePath = imagePath;
  return info;
}

class ProcessCategorizerTest : public ::testing::Test {
 protected:
  qeb::result_t Check(const std::u16string& category) {
    host.tracer->Clear();
    return ProcessCategorizer(host.Locator()).CheckProcessCategory(Process(ServerImage), category);
  }
  std::vector<std::string> DetailLines() const { return host.tracer->Texts(qeb::trace::LevelDetail); }

  FakeHost host;
};

TEST_F(ProcessCategorizerTest, MatchingCategoryAnswersZeroAndTracesEachStep) {
  host.applications->AddApplication(ServerImage, {u"PostgreSQL"});
  EXPECT_EQ(Check(u"PostgreSQL"), res::Ok);
  const std::vector<std::string> expected = {
      "CheckProcessCategory: Process image path: /usr/lib/db/bin/server, Check category: PostgreSQL",
      "CheckProcessCategory: Process category name: PostgreSQL",
      "CheckProcessCategory() <- 0x00000000 (No error) Category match"};
  EXPECT_EQ(DetailLines(), expected);
  EXPECT_TRUE(host.tracer->Texts(qeb::trace::LevelError).empty());
}

// Only the first category counts, and only an exact match of it.
TEST_F(ProcessCategorizerTest, OnlyAnExactFirstCategoryMatches) {
  host.applications->AddApplication(ServerImage, {});
  EXPECT_EQ(Check(u"PostgreSQL"), res::False);
  EXPECT_EQ(DetailLines().back(), "CheckProcessCategory() <- 0x00000001 (False) Non-categorized process");
  for (const std::u16string name : {u"postgresql", u"PostgreSQ", u"PostgreSQL ", u""}) {
    host.applications->AddApplication(ServerImage, {name});
    EXPECT_EQ(Check(u"PostgreSQL"), res::False);
    EXPECT_EQ(DetailLines().back(), "CheckProcessCategory() <- 0x00000001 (False) Category mismatch");
  }
  host.applications->AddApplication(ServerImage, {u"Database", u"PostgreSQL"});
  EXPECT_EQ(Check(u"PostgreSQL"), res::False);
}

}  // namespace
