// A complete fake host for tests: a service locator with every service the module asks
// for registered under its identifier. Tests reach each fake to script it, or remove
// it from the locator to see how the module copes without it.
#pragma once

#include "testing/capturing_tracer.h"
#include "testing/fake_applications.h"
#include "testing/fake_containers_monitor.h"
#include "testing/fake_event_publisher.h"
#include "testing/fake_events_provider.h"
#include "testing/fake_files.h"
#include "testing/fake_info_caches.h"
#include "testing/fake_metrics.h"
#include "testing/fake_mount_provider.h"
#include "testing/fake_mount_subscription.h"
#include "testing/fake_object_skip_checker.h"
#include "testing/fake_process_manager.h"
#include "testing/fake_service_locator.h"
#include "testing/fake_shares_parser.h"
#include "testing/fake_task_manager.h"
#include "testing/fake_thread_pool.h"
#include "testing/fake_timer.h"
#include "testing/fake_verdict_notifier.h"
#include "testing/host_object.h"

namespace qeb::testing {

struct FakeHost {
  FakeHost();

  objptr_t<FakeServiceLocator> locator;
  objptr_t<CapturingTracer> tracer;
  objptr_t<FakeSharesParser> sharesParser;
  objptr_t<FakeEventsProvider> eventsProvider;
  objptr_t<FakeMountSubscription> mountSubscription;
  objptr_t<FakeProcessManager> processManager = MakeHostObject<FakeProcessManager>();
  objptr_t<FakeFormatRecognizer> formatRecognizer = MakeHostObject<FakeFormatRecognizer>();
  objptr_t<FakeFileFactory> fileFactory = MakeHostObject<FakeFileFactory>();  // by name and by fd
  objptr_t<FakeObjectSkipChecker> skipChecker = MakeHostObject<FakeObjectSkipChecker>();
  objptr_t<FakeMetricsRegistry> metricsRegistry = MakeHostObject<FakeMetricsRegistry>();
  objptr_t<FakeMetricsFactory> metricsFactory = MakeHostObject<FakeMetricsFactory>();
  objptr_t<FakeApplicationCatalog> applications = MakeHostObject<FakeApplicationCatalog>();  // provider and categorizer

  // Interceptor events' services; the verdict notifier registered is the extended one.
  objptr_t<FakeThreadPoolFactory> threadPoolFactory = MakeHostObject<FakeThreadPoolFactory>();
  objptr_t<FakeTimer> timer = MakeHostObject<FakeTimer>();
  objptr_t<FakeVerdictNotifierEx> verdictNotifier = MakeHostObject<FakeVerdictNotifierEx>();
  objptr_t<FakeEventPublisher> eventPublisher = MakeHostObject<FakeEventPublisher>();
  objptr_t<FakeTaskManager> taskManager = MakeHostObject<FakeTaskManager>();
  objptr_t<FakeUserInfoCache> userInfoCache = MakeHostObject<FakeUserInfoCache>();
  objptr_t<FakeFileInfoCache> fileInfoCache = MakeHostObject<FakeFileInfoCache>();
  objptr_t<FakeContainersMonitor> containersMonitor = MakeHostObject<FakeContainersMonitor>();
  objptr_t<FakeMountProvider> mountProvider = MakeHostObject<FakeMountProvider>();

  IServiceLocator* Locator() const { return locator.Get(); }

  // What the host does when it stops: its providers, timer and metrics registry let go
  // of whatever the module left with them (after a refused unsubscribe, for instance),
  // which ends any reference cycle through the locator.
  void Shutdown();
};

}  // namespace qeb::testing
