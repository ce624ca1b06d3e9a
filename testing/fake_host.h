// A complete fake host for tests: a service locator with every service the module asks
// for registered under its identifier. Tests reach each fake to script it, or remove
// it from the locator to see how the module copes without it.
#pragma once

#include "testing/capturing_tracer.h"
#include "testing/fake_events_provider.h"
#include "testing/fake_mount_subscription.h"
#include "testing/fake_service_locator.h"
#include "testing/fake_shares_parser.h"
#include "testing/host_object.h"

namespace qeb::testing {

struct FakeHost {
  FakeHost();

  objptr_t<FakeServiceLocator> locator;
  objptr_t<CapturingTracer> tracer;
  objptr_t<FakeSharesParser> sharesParser;
  objptr_t<FakeEventsProvider> eventsProvider;
  objptr_t<FakeMountSubscription> mountSubscription;

  IServiceLocator* Locator() const { return locator.Get(); }
};

}  // namespace qeb::testing
