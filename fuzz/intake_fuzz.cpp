// Fuzzes the whole intake path: FileEventsProcessor::OnEvent on records built from the input,
// over the fake host with the real clean-file caches, a scanner whose answer the input
// picks and in-memory files whose content the input gives. One intake lives across inputs
// (the fakes keep logs, so it is rebuilt every few thousand) and is drained after each.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "framework/qeb/object_wrapper.h"
#include "fuzz/fuzz_records.h"
#include "fuzz/memory_files.h"
#include "nox_common/container_identification_tools.h"
#include "oas/cache_impl/cache_list.h"
#include "oas/file_events_processor.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using qeb::objptr_t;
using namespace qeb::testing;

constexpr uint32_t kTimeoutMs = 1000;
constexpr size_t kInputsPerIntake = 4096;
constexpr uint32_t kInfectedActionNotify = 5;

nox::settings::OASSettings CachingSettings(bool notifyOnly) {
  nox::settings::OASSettings s;
  s.skipPlainTextFiles = true;
  s.skipDatabaseJournals = true;
  s.ScanSettings.ScanSettingsBase.infected_action = notifyOnly ? kInfectedActionNotify : 0;
  return s;
}

struct Intake {
  Intake() {
    files->RegisterWith(*host.locator);
    host.processManager->AddProcess(static_cast<uint32_t>(getpid()), 1);
    host.applications->AddApplication("/usr/lib/db/bin/server", {u"PostgreSQL"});
    processor = qeb::CreateObject<nox::oas::FileEventsProcessor>(
        host.Locator(), scanner.Get(), kTimeoutMs,
        nox::oas::BuildCacheList(host.Locator(), CachingSettings(false)));
  }
  ~Intake() {
    processor = nullptr;
    Drain();
    scanner->ReleaseKept();
  }
  void Drain() {
    if (auto pool = host.threadPoolFactory->LastPool()) pool->WaitIdle();
  }

  FakeHost host;
  objptr_t<oas_fuzz::MemoryFileFactory> files = MakeHostObject<oas_fuzz::MemoryFileFactory>();
  objptr_t<FakeScanner> scanner = MakeHostObject<FakeScanner>();
  objptr_t<nox::oas::FileEventsProcessor> processor;
};

Intake& CurrentIntake() {
  static std::unique_ptr<Intake> intake;
  static size_t inputs = 0;
  if (!intake || ++inputs % kInputsPerIntake == 0) {
    intake.reset();
    intake = std::make_unique<Intake>();
  }
  return *intake;
}

ScannerScript ConsumeScript(FuzzedDataProvider& in) {
  ScannerScript script;
  const ScannerAction actions[] = {ScannerAction::Reply, ScannerAction::ReplyTwice,
                                   ScannerAction::Throw};
  script.action = in.PickValueInArray(actions);
  script.verdict = in.ConsumeBool() ? vrel::BasicVerdict::Allow : vrel::BasicVerdict::Deny;
  if (in.ConsumeBool()) script.targetVerdicts = {{vrel::TARGET_VERDICT_CACHEABLE, 1}};
  return script;
}

// Most records look like a host process's own open with a reply handle, so that they pass
// the early exits; the rest keep whatever the input gave.
void MakeHostLike(vrel::EventParams& p) {
  p.pid = getpid();
  p.nsid = nox::containers::GetOwnMountNamespaceId();
  if (p.replyHandle == 0) p.replyHandle = 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Intake& intake = CurrentIntake();
  intake.scanner->SetScript(ConsumeScript(in));
  intake.processor->ApplySettings(CachingSettings(in.ConsumeBool()));
  const bool hostLike = !in.ConsumeBool();
  const unsigned repeats = in.ConsumeIntegralInRange<unsigned>(1, 3);
  const qeb::result_t openFailure = in.ConsumeBool() ? qeb::res::Ok : qeb::res::NotFound;
  vrel::EventParams p = oas_fuzz::ConsumeEventParams(in);
  if (hostLike) MakeHostLike(p);
  intake.files->Serve(in.ConsumeRemainingBytesAsString(), openFailure);

  // A record seen again after a clean answer may take the cache's path.
  for (unsigned i = 0; i < repeats; ++i) {
    const qeb::result_t r = intake.processor->OnEvent(p);
    if (r != qeb::res::Ok && r != qeb::res::False && r != qeb::res::AccessDenied) std::abort();
    intake.Drain();
  }
  intake.host.tracer->Clear();
  return 0;
}
