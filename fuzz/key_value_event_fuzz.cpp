// Fuzzes the key/value event formatter: records of any field names and values (narrow and
// wide texts, numbers, dates with any format, corrupted fields, repeated names) printed
// in every style and through a trace line, with the quoted style's framing and cut
// checked. Keeps one tracer for the run, emptied after each input.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_records.h"
#include "fuzz/fuzz_tracer.h"
#include "nox_tracing/key_value_event.h"

namespace {

namespace trace = qeb::trace;

constexpr size_t kMaxFields = 16;

trace::KeyValueFieldValue ConsumeValue(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0: return in.ConsumeRandomLengthString();
    case 1: return oas_fuzz::ConsumeWide(in, 64);
    case 2: return in.ConsumeIntegral<int64_t>();
    case 3: return in.ConsumeIntegral<uint64_t>();
    case 4: return trace::DateField{in.ConsumeIntegral<int64_t>(), in.ConsumeRandomLengthString()};
    default: return trace::CorruptedField{};
  }
}

trace::KeyValueEvent ConsumeEvent(FuzzedDataProvider& in) {
  trace::KeyValueEvent event(in.ConsumeRandomLengthString());
  const size_t fields = in.ConsumeIntegralInRange<size_t>(0, kMaxFields);
  for (size_t i = 0; i < fields && in.remaining_bytes() > 0; ++i)
    event.Set(in.ConsumeRandomLengthString(), ConsumeValue(in));
  return event;
}

// Braces around the record; a long escaped value is cut to its head and tail.
void CheckQuoted(const trace::KeyValueEvent& event, const std::string& text) {
  if (text.size() < 2 || text.front() != '{' || text.back() != '}') std::abort();
  // A field named like the event type may have replaced it with a value of another kind.
  const auto* type = std::get_if<std::string>(&event.Find(trace::kEventTypeField)->value);
  if (!type) return;
  const std::string escapedType = trace::EscapeValue(*type);
  const bool cut = escapedType.size() > trace::kMaxWholeEscapedValue;
  const std::string head = "{\"EventType\": \"" + escapedType.substr(0, cut ? trace::kCutHeadBytes : std::string::npos);
  if (text.rfind(head, 0) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const auto style = static_cast<trace::KeyValueStyle>(in.ConsumeIntegralInRange(0, 2));
  const trace::KeyValueEvent event = ConsumeEvent(in);

  CheckQuoted(event, trace::FormatKeyValueEvent(event, trace::KeyValueStyle::Quoted));
  (void)trace::FormatKeyValueEvent(event, trace::KeyValueStyle::Lines);
  (void)trace::FormatKeyValueEvent(event, trace::KeyValueStyle::Blanks);
  QEB_TRACE(&oas_fuzz::Tracer(), trace::LevelError) << trace::AsKeyValues(event, style);
  oas_fuzz::Tracer().Clear();
  return 0;
}
