// Breaches are collected as text so a failing test names every event at fault at once.
#include "testing/answer_ledger.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace qeb::testing {
namespace {

std::string Hex(result_t code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<uint32_t>(code));
  return text;
}

}  // namespace

void AnswerLedger::Record(uint64_t cookie, result_t answer) {
  std::lock_guard lock(m_mutex);
  m_answers[cookie] = answer;
}

std::map<result_t, size_t> AnswerLedger::AnswerCounts() const {
  std::map<result_t, size_t> counts;
  std::lock_guard lock(m_mutex);
  for (const auto& [cookie, answer] : m_answers) ++counts[answer];
  return counts;
}

std::vector<std::string> AnswerLedger::Breaches(const VerdictLog& log) const {
  const auto verdicts = log.CountsByCookie();
  const auto refusedList = log.Refused();
  const std::set<uint64_t> refused(refusedList.begin(), refusedList.end());
  std::vector<std::string> breaches;
  std::lock_guard lock(m_mutex);
  for (const auto& [cookie, answer] : m_answers) {
    const auto it = verdicts.find(cookie);
    const size_t given = it == verdicts.end() ? 0 : it->second;
    const std::string event = "event " + std::to_string(cookie);
    if (answer != res::Ok && given != 0)
      breaches.push_back(event + " answered " + Hex(answer) + " by the receiver, then " +
                         std::to_string(given) + " verdict(s)");
    if (answer == res::Ok && given > 1)
      breaches.push_back(event + " got " + std::to_string(given) + " verdicts");
    if (answer == res::Ok && given == 0 && !refused.count(cookie))
      breaches.push_back(event + " was taken but never answered");
  }
  for (const auto& [cookie, given] : verdicts)
    if (!m_answers.count(cookie))
      breaches.push_back("verdict for event " + std::to_string(cookie) + ", never delivered");
  return breaches;
}

}  // namespace qeb::testing
