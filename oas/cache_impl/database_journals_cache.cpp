// Admission reads up to three page headers of the file and asks the host about the
// accessing process before the cache lock is taken; the lock covers only the map and
// the entry's fields. A journal qualifies by its page headers alone: the first page of a
// segment starts at a 16 MiB boundary of the log and the next pages follow it in order.
#include "oas/cache_impl/database_journals_cache.h"

#include <algorithm>
#include <new>
#include <string>
#include <unordered_set>
#include <utility>

#include "framework/qeb/exception.h"
#include "framework/qeb/service.h"
#include "nox_common/tools.h"
#include "nox_tracing/tracing.h"
#include "oas/event_params_text.h"
#include "oas/monotonic_clock.h"

namespace nox::oas {
namespace {

using qeb::trace::LevelDetail;
using qeb::trace::LevelError;
using system_interceptors::process_manager::IProcessManager;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

// The application category whose processes rewrite the journals; built once so that a
// check never allocates.
const std::u16string PostgresCategory = u"PostgreSQL";

// The page magic of every release whose journals the cache recognises.
const std::unordered_set<uint16_t>& KnownWalMagics() {
  static const std::unordered_set<uint16_t> magics{
      0xD118, 0xD116, 0xD113, 0xD110, 0xD10D, 0xD106, 0xD101, 0xD098, 0xD097, 0xD093, 0xD087, 0xD07E,
      0xD075, 0xD071, 0xD066, 0xD064, 0xD063, 0xD062, 0xD05E, 0xD05D, 0xD05C, 0xD05A, 0xD059, 0xD058};
  return magics;
}

uint16_t LittleEndian16(const uint8_t* bytes) noexcept {
  return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

}  // namespace

bool CleanFileInfoPostgres::CheckProcess(const ProcessInfo& info) {
  return m_categorizer.CheckProcessCategory(info, PostgresCategory) == res::Ok;
}

DatabaseJournalsCache::DatabaseJournalsCache(qeb::IServiceLocator* sl)
    : m_serviceLocator(sl),
      m_tracer(qeb::RequireInterface<qeb::ITracer>(sl)),
      m_processManager(QEB_REQUIRE_SERVICE(
          IProcessManager, sl, "Cannot get system_interceptors::process_manager::IProcessManager")),
      m_filenameFileFactory(QEB_REQUIRE_KEYED_SERVICE(IFileFactory, sl, vrel::CLSID_FileFactories,
                                                      "Cannot get IFileFactory interface")),
      m_fdFileFactory(QEB_REQUIRE_SERVICE(IFdFileFactory, sl, "Cannot get IFdFileFactory interface")),
      m_categorizer(sl) {}

qeb::result_t DatabaseJournalsCache::Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) {
  std::lock_guard lock(m_mutex);
  out = m_fileCache.Find(id);
  return out ? res::Ok : res::NotFound;
}

qeb::result_t DatabaseJournalsCache::Add(const vrel::EventParams& fileEvent) {
  try {
    return AddWalFile(fileEvent);
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer.Get());
  }
}

qeb::result_t DatabaseJournalsCache::AddWalFile(const vrel::EventParams& fileEvent) {
  QEB_TRACE(m_tracer, LevelDetail) << "Add:" << fileEvent;
  if (vrel::IsNetworkFilesystem(fileEvent.fsType))
    return TraceResult("Add", res::False, "Not added: is network filesystem");

  ProcessInfo info;
  qeb::result_t r = res::Ok;
  QEB_CHECK_TRACE(m_tracer, r, tools::GetProcessInfo(GetServiceLocator(), fileEvent.pid, info));
  if (QEB_FAILED(r)) return r;

  r = CheckPostgresProcess(info);
  if (r != res::Ok) return TraceResult("Add", r, "Not added: not a PostgreSQL process");
  r = IsWalFile(fileEvent);
  if (r != res::Ok) return r;

  const FileId id = FileId::FromEvent(fileEvent);
  const bool held = Record(fileEvent, id);
  QEB_TRACE(m_tracer, LevelDetail) << "OASCache: add clean database journal file " << id;
  if (!held) {
    TraceInsertFailure();
    return res::Unspecified;
  }
  return TraceResult("Add", res::Ok, "Added");
}

bool DatabaseJournalsCache::Record(const vrel::EventParams& fileEvent, const FileId& id) {
  std::lock_guard lock(m_mutex);
  std::shared_ptr<CleanFileInfoPostgres> cached = m_fileCache.Find(id);
  const bool isNew = !cached;
  if (isNew) cached = std::make_shared<CleanFileInfoPostgres>(m_categorizer);
  cached->addedTime = RawMonotonicNow();
  cached->changeTime = vrel::ToNanoseconds(fileEvent.ctime);
  if (!isNew) return true;
  try {
    return m_fileCache.Insert(id, std::move(cached));
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void DatabaseJournalsCache::TraceInsertFailure() noexcept {
  qeb::trace::Line line(m_tracer, LevelError);
  if (!line) return;
  qeb::trace::CheckFailedPrefix(line, __FILE__, __LINE__, "m_fileCache.Add(std::move(fileId), std::move(cached))",
                                res::Unspecified)
      << "Cannot add file to OASCache";
}

qeb::result_t DatabaseJournalsCache::Remove(const FileId& id) {
  std::lock_guard lock(m_mutex);
  return m_fileCache.Remove(id) ? res::Ok : res::NotFound;
}

qeb::result_t DatabaseJournalsCache::Clear() {
  std::lock_guard lock(m_mutex);
  m_fileCache.Clear();
  return res::Ok;
}

size_t DatabaseJournalsCache::Size() {
  std::lock_guard lock(m_mutex);
  return m_fileCache.Size();
}

qeb::result_t DatabaseJournalsCache::CheckPostgresProcess(const ProcessInfo& info) const noexcept {
  return m_categorizer.CheckProcessCategory(info, PostgresCategory);
}

qeb::result_t DatabaseJournalsCache::IsWalFile(const vrel::EventParams& event) noexcept {
  try {
    qeb::objptr_t<qeb::IIO> io;
    qeb::result_t r = OpenIo(event, io);
    if (QEB_FAILED(r)) return r;

    PageHeader first;
    uint32_t read = 0;
    r = ReadHeader(io.Get(), 0, read, first);
    if (QEB_FAILED(r)) return r;
    QEB_TRACE(m_tracer, LevelDetail) << "IsWalFile: Read bytes: " << read;
    if (read < WalHeaderSize) return TraceResult("IsWalFile", res::False, "Not a WAL file: file too small");

    r = CheckFirstPage(first);
    if (r == res::Ok) r = CheckNextPages(io.Get(), first);
    if (r != res::Ok) return r;
    return TraceResult("IsWalFile", res::Ok, "is WAL file");
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer.Get());
  }
}

// An open descriptor is preferred: it reads exactly what the process wrote, even if the
// name has since been recycled for the next segment.
qeb::result_t DatabaseJournalsCache::OpenIo(const vrel::EventParams& event,
                                            qeb::objptr_t<qeb::IIO>& io) {
  qeb::result_t r = res::Ok;
  if (event.fd >= 0) {
    QEB_CHECK_TRACE(m_tracer, r, m_fdFileFactory->GetIO(event.fd, io.Ref())) << "cannot get io from open fd";
  } else {
    const std::string path(event.fileName.view());
    QEB_CHECK_TRACE(m_tracer, r, m_filenameFileFactory->CreateFile(
        path.c_str(), qeb::io_access_mode::Read, qeb::io_share_mode::Read,
        qeb::io_disposition::OpenIfExist, 0, io.Ref()))
        << "cannot get io from filename";
  }
  if (QEB_SUCCEEDED(r) && !io) r = res::Unexpected;
  return r;
}

qeb::result_t DatabaseJournalsCache::ReadHeader(qeb::IIO* io, uint64_t offset, uint32_t& read,
                                                PageHeader& header) noexcept {
  uint8_t buf[WalHeaderSize] = {};
  read = 0;
  qeb::result_t r = res::Ok;
  QEB_CHECK_TRACE(m_tracer, r, io->Seek(offset)) << "Cannot read file";
  if (QEB_FAILED(r)) return r;
  QEB_CHECK_TRACE(m_tracer, r, io->Read(buf, sizeof(buf), read)) << "Cannot read file";
  if (QEB_FAILED(r)) return r;
  read = std::min<uint32_t>(read, sizeof(buf));
  header.magic = LittleEndian16(buf);
  header.incrementalNumber = LittleEndian16(buf + 9);
  return res::Ok;
}

qeb::result_t DatabaseJournalsCache::CheckFirstPage(const PageHeader& header) {
  QEB_TRACE(m_tracer, LevelDetail) << "IsWalFile: Magic number candidate: " << header.magic;
  if (!KnownWalMagics().count(header.magic))
    return TraceResult("IsWalFile", res::False, "Not a WAL file: not a magic number");
  QEB_TRACE(m_tracer, LevelDetail) << "IsWalFile: Incremental number candidate: " << header.incrementalNumber;
  if (header.incrementalNumber != 0)
    return TraceResult("IsWalFile", res::False, "Not a WAL file: wrong incremental number");
  return res::Ok;
}

// Each page's address grows by one page, which moves bits 8 to 23 on by 0x20.
qeb::result_t DatabaseJournalsCache::CheckNextPages(qeb::IIO* io, const PageHeader& first) noexcept {
  uint16_t expected = first.incrementalNumber;
  for (uint64_t offset = WalPageSize; offset < WalCheckEnd; offset += WalPageSize) {
    QEB_TRACE(m_tracer, LevelDetail) << "IsWalFile: WAL recognize, file offset: " << offset;
    expected = static_cast<uint16_t>(expected + 0x20);
    PageHeader page;
    uint32_t read = 0;
    const qeb::result_t r = ReadHeader(io, offset, read, page);
    if (QEB_FAILED(r)) return r;
    if (read < WalHeaderSize)
      return TraceResult("IsWalFile", res::False, "Not a WAL file, file too small, read bytes: ", read);
    if (page.magic != first.magic)
      return TraceResult("IsWalFile", res::False, "Not a WAL file, not a magic number: ", page.magic);
    if (page.incrementalNumber != expected)
      return TraceResult("IsWalFile", res::False,
                         "Not a WAL file, wrong incremental number: ", page.incrementalNumber);
  }
  return res::Ok;
}

qeb::result_t DatabaseJournalsCache::TraceResult(const char* operation, qeb::result_t result,
                                                 const char* message) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << operation << "() <- " << qeb::trace::AsResult(result) << ' ' << message;
  return result;
}

qeb::result_t DatabaseJournalsCache::TraceResult(const char* operation, qeb::result_t result, const char* message,
                                                 uint32_t value) noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << operation << "() <- " << qeb::trace::AsResult(result) << ' ' << message
                                   << value;
  return result;
}

}  // namespace nox::oas
