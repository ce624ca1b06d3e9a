// The checks are the start-up steps themselves wherever that is harmless (loading the
// module, compiling the signatures) and the daemon's own file checks where it is not, so a
// configuration that passes cannot fail the start for a reason checked here.
#include "host/daemon/preflight.h"

#include <stdexcept>
#include <string>

#include "framework/qeb/result_text.h"
#include "host/daemon/config.h"
#include "host/daemon/module_loader.h"
#include "host/daemon/trusted_file.h"
#include "host/engine/clamav_engine.h"
#include "host/engine/format_recognizer.h"
#include "host/reporting/output_file.h"
#include "host/reporting/tracer.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {
namespace {

[[noreturn]] void Fail(const std::string& key, const std::string& what) {
  throw ConfigError("config key \"" + key + "\": " + what);
}

void CheckOutputs(const HostOptions& o) {
  const std::pair<const char*, const std::string&> outputs[] = {
      {"log_file", o.logFile}, {"events_file", o.eventsFile}, {"metrics_file", o.metricsFile}};
  for (const auto& [key, path] : outputs) {
    if (path.empty()) continue;
    if (const std::string fault = CheckOutputFile(path); !fault.empty()) Fail(key, fault);
  }
}

void CheckModule(const HostOptions& o) {
  ModuleLoader module;
  const std::string path = FindModule(o);
  if (const std::string fault = UntrustedFile(path); !fault.empty()) Fail("module_path", fault);
  try {
    module.Load(path);
  } catch (const std::exception& e) {
    Fail("module_path", e.what());
  }
}

// The loaders' own reasons go to stderr, at error level only.
qeb::objptr_t<qeb::ITracer> ErrorTracer() {
  return qeb::objptr_t<qeb::ITracer>(qeb::host::MakeHostObject<HostTracer>(qeb::trace::LevelError).Get());
}

void CheckSignatures(const HostOptions& o) {
  if (o.engine != EngineKind::ClamAV) return;
  HostMetrics metrics;
  auto engine = qeb::host::MakeHostObject<ClamavEngine>(ErrorTracer(), metrics, o, DetectionCallback());
  const qeb::result_t r = engine->SetUp();
  engine->TearDown();
  if (QEB_FAILED(r))
    Fail("signature_dir",
         "cannot load the signatures from " + SignatureDirFor(o) + ": " + qeb::ResultText(r));
}

}  // namespace

void CheckRunNeeds(const HostOptions& options) {
  CheckOutputs(options);
  CheckModule(options);
  CheckSignatures(options);
  // Not a key of the configuration, but the start needs it just the same.
  if (QEB_FAILED(qeb::host::MakeHostObject<FormatRecognizer>(ErrorTracer())->SetUp()))
    throw ConfigError("cannot load the file type database (libmagic)");
}

}  // namespace oasd
