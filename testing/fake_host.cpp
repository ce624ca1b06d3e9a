// Registration order does not matter to the locator; the services are listed in the
// order the interceptor's factory asks for them.
#include "testing/fake_host.h"

namespace qeb::testing {

FakeHost::FakeHost()
    : locator(MakeHostObject<FakeServiceLocator>()),
      tracer(MakeHostObject<CapturingTracer>()),
      sharesParser(MakeHostObject<FakeSharesParser>()),
      eventsProvider(MakeHostObject<FakeEventsProvider>()),
      mountSubscription(MakeHostObject<FakeMountSubscription>()) {
  locator->Register<nox::ISharesParser>(sharesParser);
  locator->Register<nox::IEventsProvider>(eventsProvider);
  locator->Register<nox::IMountSubscription>(mountSubscription);
  locator->Register<ITracer>(tracer);
  locator->Register<system_interceptors::process_manager::IProcessManager>(processManager);
  locator->Register<avengine::object_skip::IObjectSkipChecker>(
      skipChecker, avengine::object_skip::IObjectSkipChecker::ServiceKey);
  locator->Register<qeb::telemetry::IMetricsRegistry>(metricsRegistry);
  locator->Register<monitoring::IMetricsFactory>(metricsFactory);
  locator->Register<IThreadPoolFactory>(threadPoolFactory);
  locator->Register<ITimerService>(timer);
  locator->Register<vrel::IFileVerdictNotifier>(verdictNotifier);
  locator->Register<nox::IEventPublisher>(eventPublisher);
  locator->Register<nox::INoxTaskManager>(taskManager);
  locator->Register<nox::IUserInfoCache>(userInfoCache);
  locator->Register<nox::IFileInfoCache>(fileInfoCache);
  locator->Register<nox::containers::IContainersMonitor>(containersMonitor);
  locator->Register<nox::IMountProvider>(mountProvider);
  formatRecognizer->RegisterWith(*locator);
  fileFactory->RegisterWith(*locator);
  applications->RegisterWith(*locator);
}

void FakeHost::Shutdown() {
  sharesParser->Subscribers().Clear();
  eventsProvider->Receivers().Clear();
  mountSubscription->Subscribers().Clear();
  timer->DisarmAll();
  metricsRegistry->DropAll();
}

}  // namespace qeb::testing
