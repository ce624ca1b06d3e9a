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
}

}  // namespace qeb::testing
