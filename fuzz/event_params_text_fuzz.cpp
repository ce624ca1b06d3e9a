// Fuzzes the printed form of the file event record over records built from the input: the
// standalone text, and the same text written into a trace line (through the record's
// buffer and its growth) in the number base the input picks. Keeps one capturing tracer
// for the whole run and empties it after every input.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_records.h"
#include "fuzz/fuzz_tracer.h"
#include "nox_tracing/tracing.h"
#include "oas/event_params_text.h"

namespace {

std::string FileNameText(const vrel::EventParams& p) {
  return p.fileName.data() ? std::string(p.fileName.view()) : std::string("(null)");
}

// The decimal trace line is "OnEvent" followed by exactly the standalone text.
void CheckDecimalLine(const vrel::EventParams& p, const std::string& text) {
  QEB_TRACE(&oas_fuzz::Tracer(), qeb::trace::LevelError) << "OnEvent" << p;
  const auto lines = oas_fuzz::Tracer().Lines();
  if (lines.size() != 1 || lines[0].text != "OnEvent" + text) std::abort();
}

void WriteHexLine(const vrel::EventParams& p) {
  QEB_TRACE(&oas_fuzz::Tracer(), qeb::trace::LevelDetail) << qeb::trace::hex << "OnEvent" << p;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const bool hex = in.ConsumeBool();
  const vrel::EventParams p = oas_fuzz::ConsumeEventParams(in);

  const std::string text = vrel::ToString(p);
  if (text.rfind(" Filename: " + FileNameText(p) + ", cookie: ", 0) != 0) std::abort();
  if (hex)
    WriteHexLine(p);
  else
    CheckDecimalLine(p, text);
  oas_fuzz::Tracer().Clear();

  const vrel::EventParams copy = p;
  if (!(copy == p)) std::abort();
  return 0;
}
