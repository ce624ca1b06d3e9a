// Admission reads the file through the host's io objects and asks the process manager
// about the accessing process before the cache lock is taken; the lock covers only the
// map and the entry's fields. Lines are written after the lock is released.
#include "oas/cache_impl/text_files_cache.h"

#include <iterator>
#include <string>
#include <utility>

#include "framework/qeb/exception.h"
#include "nox_common/tools.h"
#include "nox_tracing/tracing.h"
#include "oas/monotonic_clock.h"

namespace nox::oas {
namespace {

using qeb::trace::LevelDetail;
using qeb::trace::LevelError;
namespace res = qeb::res;

// The recognizer formats that count as plain text, in the order the recognizer gets them.
const uint32_t TextFormats[] = {0xEDC681B2, 0xF9558CA0, 0x3B516E84, 0x50AE7558, 0xC0050694};

IoRecognizerParams TextRecognizerParams() {
  return IoRecognizerParams{{std::begin(TextFormats), std::end(TextFormats)}, 0, true};
}

}  // namespace

TextFilesCache::TextFilesCache(qeb::IServiceLocator* sl) : m_serviceLocator(sl) {
  if (QEB_FAILED(qeb::GetInterface(sl, m_tracer.Ref()))) m_tracer.Reset();
  InitFormatRecognizer();
}

void TextFilesCache::InitFormatRecognizer() noexcept {
  qeb::IServiceLocator* sl = GetServiceLocator();
  qeb::result_t r = res::Ok;
  qeb::objptr_t<IFormatRecognizer> formatRecognizer;
  QEB_CHECK_TRACE(m_tracer, r, qeb::GetInterface(sl, formatRecognizer.Ref()))
      << "Cannot get IFormatRecognizer interface";
  qeb::objptr_t<IFileFactory> filenameFileFactory;
  QEB_CHECK_TRACE(m_tracer, r,
                  qeb::GetInterface(sl, vrel::CLSID_FileFactories, filenameFileFactory.Ref()))
      << "Cannot get IFileFactory interface";
  m_filenameFileFactory = std::move(filenameFileFactory);
  qeb::objptr_t<IFdFileFactory> fdFileFactory;
  QEB_CHECK_TRACE(m_tracer, r, qeb::GetInterface(sl, fdFileFactory.Ref()))
      << "Cannot get IFdFileFactory interface";
  m_fdFileFactory = std::move(fdFileFactory);
  if (!formatRecognizer) return;
  try {
    const IoRecognizerParams params = TextRecognizerParams();
    qeb::objptr_t<IIoRecognizer> ioRecognizer;
    QEB_CHECK_TRACE(m_tracer, r, formatRecognizer->CreateIoRecognizer(params, ioRecognizer.Ref()))
        << "Cannot create io recognizer";
    if (QEB_SUCCEEDED(r)) m_ioRecognizer = std::move(ioRecognizer);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

qeb::result_t TextFilesCache::Find(const FileId& id, std::shared_ptr<CleanFileInfo>& out) {
  std::lock_guard lock(m_mutex);
  out = m_files.Find(id);
  return out ? res::Ok : res::NotFound;
}

qeb::result_t TextFilesCache::Add(const vrel::EventParams& event) {
  try {
    if (vrel::IsNetworkFilesystem(event.fsType)) return res::False;
    if (!IsTextFile(event)) return res::False;
    const FileId id = FileId::FromEvent(event);
    Record(event, id);
    QEB_TRACE(m_tracer, LevelDetail) << "OASCache: add clean text file " << id;
    return res::Ok;
  } catch (...) {
    // Whatever went wrong, the file was not recorded: the caller only needs to know that.
    qeb::TraceCurrentException(m_tracer.Get());
    return res::False;
  }
}

void TextFilesCache::Record(const vrel::EventParams& event, const FileId& id) {
  system_interceptors::process_manager::ProcessInfo info;
  const bool processKnown = QEB_SUCCEEDED(
      tools::GetProcessInfo(GetServiceLocator(), static_cast<uint32_t>(event.pid), info));

  std::lock_guard lock(m_mutex);
  std::shared_ptr<CleanFileInfoPid> entry = m_files.Find(id);
  const bool isNew = !entry;
  if (isNew) entry = std::make_shared<CleanFileInfoPid>();
  entry->addedTime = RawMonotonicNow();
  entry->changeTime = vrel::ToNanoseconds(event.ctime);
  if (processKnown) entry->AddProcess(info.m_uniqueId);
  if (isNew) m_files.Insert(id, std::move(entry));
}

qeb::result_t TextFilesCache::Remove(const FileId& id) {
  std::lock_guard lock(m_mutex);
  return m_files.Remove(id) ? res::Ok : res::NotFound;
}

qeb::result_t TextFilesCache::Clear() {
  std::lock_guard lock(m_mutex);
  m_files.Clear();
  return res::Ok;
}

size_t TextFilesCache::Size() {
  std::lock_guard lock(m_mutex);
  return m_files.Size();
}

bool TextFilesCache::IsTextFile(const vrel::EventParams& event) noexcept {
  if (!m_ioRecognizer) {
    QEB_TRACE(m_tracer, LevelError) << "format recognizer isn't available";
    return false;
  }
  try {
    const qeb::objptr_t<qeb::IIO> io = OpenIo(event);
    if (!io) return false;
    const bool isText = Recognize(io.Get());
    TraceVerdict(event, isText);
    return isText;
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    return false;
  }
}

// An open descriptor is preferred: it reads exactly what the process opened, even if
// the name has since been replaced.
qeb::objptr_t<qeb::IIO> TextFilesCache::OpenIo(const vrel::EventParams& event) {
  return event.fd >= 0 ? OpenByFd(event) : OpenByName(std::string(event.fileName.view()));
}

qeb::objptr_t<qeb::IIO> TextFilesCache::OpenByFd(const vrel::EventParams& event) noexcept {
  qeb::objptr_t<qeb::IIO> io;
  if (!m_fdFileFactory) {
    QEB_TRACE(m_tracer, LevelError) << "cannot get io from open fd";
    return io;
  }
  qeb::result_t r = res::Ok;
  QEB_CHECK_TRACE(m_tracer, r, m_fdFileFactory->GetIO(event.fd, io.Ref()))
      << "cannot get io from open fd";
  if (QEB_FAILED(r)) io.Reset();
  return io;
}

qeb::objptr_t<qeb::IIO> TextFilesCache::OpenByName(const std::string& path) noexcept {
  qeb::objptr_t<qeb::IIO> io;
  if (!m_filenameFileFactory) {
    QEB_TRACE(m_tracer, LevelError) << "cannot get io from filename";
    return io;
  }
  qeb::result_t r = res::Ok;
  QEB_CHECK_TRACE(m_tracer, r,
                  m_filenameFileFactory->CreateFile(path.c_str(), qeb::io_access_mode::Read,
                                                    qeb::io_share_mode::Read,
                                                    qeb::io_disposition::OpenIfExist, 0, io.Ref()))
      << "cannot get io from filename";
  if (QEB_FAILED(r)) io.Reset();
  return io;
}

bool TextFilesCache::Recognize(qeb::IIO* io) noexcept {
  return m_ioRecognizer->Recognize(io) == res::Ok;
}

void TextFilesCache::TraceVerdict(const vrel::EventParams& event, bool isText) noexcept {
  qeb::trace::Line line(m_tracer, LevelDetail);
  if (!line) return;
  if (event.fd >= 0) line << "fd:" << event.fd;
  else line << "file:" << event.fileName.view();
  line << (isText ? " is" : " isn't") << " text file";
}

}  // namespace nox::oas
