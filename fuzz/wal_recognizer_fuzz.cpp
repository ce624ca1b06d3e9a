// Fuzzes the write-ahead-log recogniser of the journals cache on file contents from the
// input, read through in-memory file factories by descriptor or by name. Raw inputs are the
// file itself; sparse inputs place three page headers at the page boundaries, so that
// small inputs reach every check. One cache and fake host serve the whole run.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz/memory_files.h"
#include "oas/cache_impl/database_journals_cache.h"
#include "testing/fake_host.h"

namespace {

using nox::oas::DatabaseJournalsCache;
using qeb::objptr_t;
using namespace qeb::testing;

constexpr uint32_t kServerPid = 300;
constexpr uint32_t kOtherPid = 400;

struct Journals {
  Journals() {
    files->RegisterWith(*host.locator);
    AddProcess(kServerPid, "/usr/lib/db/bin/server", u"PostgreSQL");
    AddProcess(kOtherPid, "/usr/bin/tar", u"Archivers");
    cache = std::make_unique<DatabaseJournalsCache>(host.Locator());
  }
  void AddProcess(uint32_t pid, const std::string& image, const std::u16string& category) {
    system_interceptors::process_manager::ProcessInfo info;
    info.m_pid = pid;
    info.m_uniqueId = pid * 10;
    info.m_imagePath = image;
    host.processManager->AddProcess(info);
    host.applications->AddApplication(image, {category});
  }

  FakeHost host;
  objptr_t<oas_fuzz::MemoryFileFactory> files = MakeHostObject<oas_fuzz::MemoryFileFactory>();
  std::unique_ptr<DatabaseJournalsCache> cache;
};

Journals& TheJournals() {
  static Journals journals;
  return journals;
}

// Three 16-byte headers at 0, one page and two pages, then a length cut anywhere up to
// the end of the last header's page (zeros fill the gaps).
std::string SparseSegment(FuzzedDataProvider& in) {
  constexpr size_t kPage = DatabaseJournalsCache::WalPageSize;
  std::string image(DatabaseJournalsCache::WalCheckEnd, '\0');
  for (size_t page = 0; page < 3; ++page)
    image.replace(page * kPage, 16, in.ConsumeBytesAsString(16));
  image.resize(in.ConsumeIntegralInRange<size_t>(0, image.size()));
  return image;
}

vrel::EventParams SegmentEvent(bool byFd, uint32_t pid) {
  vrel::EventParams e;
  e.fileName = qeb::basic_string_t("/var/lib/db/pg_wal/000000010000000000000001");
  e.pid = static_cast<int32_t>(pid);
  e.fd = byFd ? 42 : -1;
  e.dev = 2049;
  e.ino = 7;
  e.ctime = {5, 6};
  return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  Journals& journals = TheJournals();
  const bool sparse = in.ConsumeBool();
  const bool byFd = in.ConsumeBool();
  const uint32_t pid = in.ConsumeBool() ? kServerPid : kOtherPid;
  const bool add = in.ConsumeBool();
  journals.files->Serve(sparse ? SparseSegment(in) : in.ConsumeRemainingBytesAsString(),
                        qeb::res::Ok);

  const vrel::EventParams event = SegmentEvent(byFd, pid);
  const qeb::result_t r = journals.cache->IsWalFile(event);
  if (r != qeb::res::Ok && r != qeb::res::False) std::abort();
  if (add) {
    // Only a recognised segment may be recorded, and only then found.
    const qeb::result_t added = journals.cache->Add(event);
    std::shared_ptr<nox::oas::CleanFileInfo> found;
    const bool isFound = journals.cache->Find(nox::oas::FileId::FromEvent(event), found) == qeb::res::Ok;
    if (r != qeb::res::Ok && isFound) std::abort();
    if (added == qeb::res::Ok && !isFound) std::abort();
    journals.cache->Clear();
  }
  journals.host.tracer->Clear();
  return 0;
}
