// The library as a host sees it: loaded with dlopen, reached only through its two
// exported functions and the interfaces of the object it creates.
#include <dlfcn.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "framework/qeb/objptr.h"
#include "interfaces/qeb/module.h"
#include "oas/file_interceptor.h"
#include "testing/event_builder.h"
#include "testing/fake_host.h"
#include "testing/fake_scanner.h"

namespace {

using qeb::objptr_t;
using qeb::testing::FakeHost;

std::set<std::string> ExportedSymbols(const std::string& library) {
  std::set<std::string> names;
  const std::string command = "nm -D --defined-only " + library;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  char line[512];
  while (pipe && fgets(line, sizeof line, pipe.get())) {
    std::string text(line);
    const auto space = text.find_last_of(' ');
    std::string name = text.substr(space + 1);
    while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
    if (!name.empty()) names.insert(name);
  }
  return names;
}

class LoadedModule : public ::testing::Test {
 protected:
  void SetUp() override {
    m_handle = dlopen(OAS_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(m_handle, nullptr) << dlerror();
    create = reinterpret_cast<qebCreateObject_t>(dlsym(m_handle, "qebCreateObject"));
    canUnload = reinterpret_cast<qebCanUnloadModule_t>(dlsym(m_handle, "qebCanUnloadModule"));
    ASSERT_NE(create, nullptr);
    ASSERT_NE(canUnload, nullptr);
  }
  void TearDown() override {
    if (m_handle) dlclose(m_handle);
  }

  qebCreateObject_t create = nullptr;
  qebCanUnloadModule_t canUnload = nullptr;
  FakeHost host;

 private:
  void* m_handle = nullptr;
};

TEST(ModuleExports, OnlyTheTwoEntryPoints) {
  EXPECT_EQ(ExportedSymbols(OAS_SHARED_LIBRARY),
            (std::set<std::string>{"qebCanUnloadModule", "qebCreateObject"}));
}

TEST_F(LoadedModule, RefusesBadRequestsWithoutCreating) {
  qeb::IObject* const untouched = reinterpret_cast<qeb::IObject*>(0x1234);
  qeb::IObject* object = untouched;
  EXPECT_EQ(create(0x00000000, host.Locator(), &object), qeb::res::ClassNotFound);
  EXPECT_EQ(create(0x1cf30c88, host.Locator(), &object), qeb::res::ClassNotFound);
  EXPECT_EQ(object, untouched);
  EXPECT_EQ(create(qeb::CLSID_FileInterceptor, host.Locator(), nullptr), qeb::res::InvalidArgument);
  EXPECT_LT(create(qeb::CLSID_FileInterceptor, nullptr, &object), 0);
  EXPECT_EQ(object, untouched);
  EXPECT_EQ(canUnload(), 0u);
}

TEST_F(LoadedModule, EveryFaceOfTheInterceptorIsReachable) {
  qeb::IObject* raw = nullptr;
  ASSERT_EQ(create(qeb::CLSID_FileInterceptor, host.Locator(), &raw), 0);
  auto object = objptr_t<qeb::IObject>::Attach(raw);
  for (const qeb::iid_t iid :
       {qeb::IObject::IID, qeb::IState::IID, nox::ISharesParserEvents::IID,
        vrel::IFileInterceptor::IID, vrel::IFileInterceptor2::IID, vrel::IFileInterceptor3::IID,
        vrel::IFileInterceptor4::IID, vrel::IPosixFileInterceptor::IID,
        nox::oas::IFileMonitoringTaskSettings::IID}) {
    void* face = nullptr;
    EXPECT_EQ(object->QueryInterface(iid, &face), 0) << std::hex << iid;
    ASSERT_NE(face, nullptr);
    static_cast<qeb::IObject*>(face)->Release();
  }
  void* none = nullptr;
  EXPECT_EQ(object->QueryInterface(0xdeadbeef, &none), qeb::res::NoInterface);
  EXPECT_EQ(none, nullptr);

  objptr_t<vrel::IFileInterceptor> interceptor;
  ASSERT_EQ(qeb::QueryInterface(object.Get(), interceptor.Ref()), 0);
  uint32_t state = 0;
  EXPECT_EQ(interceptor->GetState(&state), 0);
  EXPECT_EQ(state, nox::oas::FileInterceptor::STATE_CREATED);
}

// The host tracer is wrapped once, where the interceptor is made: every line any module
// object writes (interceptor, processor, cache manager, event) carries the prefix once.
TEST_F(LoadedModule, EveryModuleLineCarriesThePrefixOnce) {
  qeb::IObject* raw = nullptr;
  ASSERT_EQ(create(qeb::CLSID_FileInterceptor, host.Locator(), &raw), 0);
  auto object = objptr_t<qeb::IObject>::Attach(raw);
  objptr_t<vrel::IFileInterceptor> interceptor;
  ASSERT_EQ(qeb::QueryInterface(object.Get(), interceptor.Ref()), 0);
  auto scanner = qeb::testing::MakeHostObject<qeb::testing::FakeScanner>();
  ASSERT_EQ(interceptor->SetupFilters(0xF, scanner.Get()), 0);
  EXPECT_EQ(host.eventsProvider->Deliver(qeb::testing::MakeOpenEvent(1, "/srv/file")), 0);
  host.threadPoolFactory->LastPool()->WaitIdle();
  ASSERT_EQ(interceptor->RemoveFilters(), 0);
  interceptor.Reset();
  object.Reset();
  EXPECT_EQ(canUnload(), 0u);

  for (const char* line : {"oas: StartIntercepting", "oas: bool nox::oas::CacheManager::IsCleanFile",
                           "oas: nox::oas::FileEventsProcessor::~FileEventsProcessor()",
                           "oas: OASCache: /srv/file (ino: 1, dev: 2049) needs checking (cache miss)"})
    EXPECT_TRUE(host.tracer->Contains(line)) << line;
  EXPECT_TRUE(host.tracer->Contains("nox::oas::FileInterceptorEvent::Reply"));
  for (const auto& line : host.tracer->Lines()) {
    EXPECT_TRUE(line.text.starts_with("oas: ")) << line.text;
    EXPECT_FALSE(line.text.starts_with("oas: oas: ")) << line.text;
  }
}

class CountingAllocator : public qeb::object::Ifaces<qeb::IAllocator> {
 public:
  void* Alloc(size_t size) noexcept override {
    ++allocations;
    return std::malloc(size);
  }
  void Free(void* p) noexcept override {
    ++frees;
    std::free(p);
  }
  int allocations = 0;
  int frees = 0;
};

TEST_F(LoadedModule, HostAllocatorProvidesTheObjectMemory) {
  auto allocator = qeb::testing::MakeHostObject<CountingAllocator>();
  host.locator->Register<qeb::IAllocator>(allocator);
  qeb::IObject* object = nullptr;
  ASSERT_EQ(create(qeb::CLSID_FileInterceptor, host.Locator(), &object), 0);
  EXPECT_EQ(allocator->allocations, 1);
  object->Release();
  EXPECT_EQ(allocator->frees, 1);
}

TEST_F(LoadedModule, DeliberateCrashClassTerminates) {
  EXPECT_DEATH(create(qeb::CLSID_DeliberateCrash, host.Locator(), nullptr), "");
}

}  // namespace
