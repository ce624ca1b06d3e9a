// Reading and watching the mount table. The parser and the diff are pure; MountWatcher
// swaps in each new list under its mutex and delivers the difference afterwards, on
// copies of the subscriber lists, so a subscriber may unsubscribe from its own callback
// and an Unsubscribe never waits for a notification in flight.
#include "host/system/mount_table.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <tuple>

#include "nox_tracing/tracing.h"
#include "settings/never_monitored_filesystems.h"

namespace oasd {
namespace {

using qeb::trace::LevelError;
using qeb::trace::LevelNotice;

std::vector<std::string_view> SplitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  size_t pos = 0;
  while (pos < line.size()) {
    const size_t end = std::min(line.find(' ', pos), line.size());
    if (end > pos) fields.push_back(line.substr(pos, end - pos));
    pos = end + 1;
  }
  return fields;
}

bool IsOctalDigit(char c) noexcept { return c >= '0' && c <= '7'; }

// A backslash followed by three octal digits at position i.
bool IsOctalEscape(std::string_view field, size_t i) noexcept {
  return field[i] == '\\' && i + 3 < field.size() && IsOctalDigit(field[i + 1]) &&
         IsOctalDigit(field[i + 2]) && IsOctalDigit(field[i + 3]);
}

bool ParseDevice(std::string_view text, uint64_t& dev) {
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string majorText(text.substr(0, colon));
  const std::string minorText(text.substr(colon + 1));
  char* end = nullptr;
  const unsigned long major = std::strtoul(majorText.c_str(), &end, 10);
  if (majorText.empty() || *end) return false;
  const unsigned long minor = std::strtoul(minorText.c_str(), &end, 10);
  if (minorText.empty() || *end) return false;
  dev = makedev(major, minor);
  return true;
}

// "id parent major:minor root mountpoint options [optional...] - fstype source superoptions"
std::optional<nox::MountRecord> ParseMountLine(std::string_view line) {
  const std::vector<std::string_view> fields = SplitFields(line);
  const auto separator = std::find(fields.begin(), fields.end(), "-");
  if (fields.size() < 6 || separator == fields.end() || separator - fields.begin() < 6 ||
      fields.end() - separator < 2)
    return std::nullopt;
  nox::MountRecord record;
  if (!ParseDevice(fields[2], record.dev)) return std::nullopt;
  record.mountPoint = UnescapeMountField(fields[4]);
  record.fsType = UnescapeMountField(*(separator + 1));
  record.skip = nox::settings::IsNeverMonitoredFilesystem(record.fsType);
  return record;
}

auto RecordKey(const nox::MountRecord& m) { return std::tie(m.dev, m.mountPoint, m.fsType); }

struct RecordLess {
  bool operator()(const nox::MountRecord& a, const nox::MountRecord& b) const {
    return RecordKey(a) < RecordKey(b);
  }
};

// Records of `from` not matched, one for one, by a record of `minus`.
nox::MountList Subtract(const nox::MountList& from, const nox::MountList& minus) {
  std::map<nox::MountRecord, size_t, RecordLess> counts;
  for (const auto& m : minus) ++counts[m];
  nox::MountList left;
  for (const auto& m : from) {
    auto it = counts.find(m);
    if (it != counts.end() && it->second > 0)
      --it->second;
    else
      left.push_back(m);
  }
  return left;
}

bool AnyNetwork(const nox::MountList& mounts) {
  return std::any_of(mounts.begin(), mounts.end(),
                     [](const nox::MountRecord& m) { return IsNetworkFilesystemType(m.fsType); });
}

template <class I>
qeb::result_t AddSubscriber(std::mutex& mutex, std::vector<qeb::objptr_t<I>>& list, I* subscriber) {
  if (!subscriber) return qeb::res::InvalidArgument;
  try {
    std::lock_guard lock(mutex);
    list.emplace_back(subscriber);
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

// The reference is dropped after the lock is released: it may be the subscriber's last.
template <class I>
qeb::result_t RemoveSubscriber(std::mutex& mutex, std::vector<qeb::objptr_t<I>>& list,
                               I* subscriber) {
  qeb::objptr_t<I> removed;
  std::lock_guard lock(mutex);
  auto it = std::find_if(list.begin(), list.end(),
                         [&](const qeb::objptr_t<I>& s) { return s.Get() == subscriber; });
  if (it == list.end()) return qeb::res::NotFound;
  removed = std::move(*it);
  list.erase(it);
  return qeb::res::Ok;
}

}  // namespace

std::string UnescapeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (IsOctalEscape(field, i)) {
      out.push_back(static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) |
                                      (field[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

nox::MountList ParseMountInfo(std::string_view text) {
  nox::MountList mounts;
  size_t pos = 0;
  while (pos < text.size()) {
    const size_t end = std::min(text.find('\n', pos), text.size());
    if (auto record = ParseMountLine(text.substr(pos, end - pos))) mounts.push_back(std::move(*record));
    pos = end + 1;
  }
  return mounts;
}

bool IsNetworkFilesystemType(std::string_view fsType) {
  static constexpr std::array<std::string_view, 12> kNetwork = {
      "nfs", "nfs4", "cifs", "smb3", "smbfs", "9p", "ncpfs", "afs", "ceph", "glusterfs",
      "fuse.sshfs", "fuse.glusterfs"};
  return std::find(kNetwork.begin(), kNetwork.end(), fsType) != kNetwork.end();
}

bool MountDiff::TouchesShares() const noexcept { return AnyNetwork(added) || AnyNetwork(removed); }

MountDiff DiffMounts(const nox::MountList& before, const nox::MountList& after) {
  return MountDiff{Subtract(after, before), Subtract(before, after)};
}

MountWatcher::MountWatcher(qeb::objptr_t<qeb::ITracer> tracer, std::string mountInfoPath,
                           std::chrono::milliseconds fallbackPeriod)
    : m_tracer(std::move(tracer)), m_path(std::move(mountInfoPath)), m_fallbackPeriod(fallbackPeriod) {}

MountWatcher::~MountWatcher() { TearDown(); }

qeb::result_t MountWatcher::SetUp() {
  m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (m_fd < 0) {
    const int error = errno;
    QEB_TRACE(m_tracer, LevelError) << "Cannot open the mount table " << m_path << ": errno " << error;
    return qeb::res::ErrnoFacilityBase + error;
  }
  m_stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_stopFd < 0) return qeb::res::ErrnoFacilityBase + errno;
  return Refresh();
}

void MountWatcher::Start() {
  if (m_fd < 0 || m_stopFd < 0 || m_thread.joinable()) return;
  m_thread = std::thread([this] { PollLoop(); });
}

void MountWatcher::TearDown() {
  if (m_thread.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_stopFd, &one, sizeof one);
    m_thread.join();
  }
  for (int* fd : {&m_fd, &m_stopFd}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
  DropSubscribers();
}

// A subscriber that never unsubscribed would otherwise keep its module loaded; the
// references go after the lock, as any of them may be the last.
void MountWatcher::DropSubscribers() noexcept {
  std::vector<qeb::objptr_t<nox::IMountEvents>> mountSubscribers;
  std::vector<qeb::objptr_t<nox::ISharesParserEvents>> shareSubscribers;
  std::lock_guard lock(m_mutex);
  mountSubscribers.swap(m_mountSubscribers);
  shareSubscribers.swap(m_shareSubscribers);
}

// The table is read from a fresh descriptor when the watched one is not open yet, so
// GetMountList also answers before SetUp.
qeb::result_t MountWatcher::ReadTable(std::string& text) const {
  const bool own = m_fd < 0;
  const int fd = own ? ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC) : m_fd;
  if (fd < 0) return qeb::res::ErrnoFacilityBase + errno;
  std::array<char, 16384> buffer;
  off_t offset = 0;
  qeb::result_t result = qeb::res::Ok;
  for (;;) {
    const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) result = qeb::res::ErrnoFacilityBase + errno;
    if (n <= 0) break;
    text.append(buffer.data(), static_cast<size_t>(n));
    offset += n;
  }
  if (own) ::close(fd);
  return result;
}

qeb::result_t MountWatcher::Refresh() {
  try {
    std::string text;
    const qeb::result_t read = ReadTable(text);
    if (QEB_FAILED(read)) return read;
    nox::MountList fresh = ParseMountInfo(text);
    MountDiff diff;
    {
      std::lock_guard lock(m_mutex);
      diff = DiffMounts(m_current, fresh);
      m_current = fresh;
      const bool first = !m_loaded;
      m_loaded = true;
      if (first) return qeb::res::Ok;
    }
    if (!diff.Empty()) Notify(diff, fresh);
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

void MountWatcher::Notify(const MountDiff& diff, const nox::MountList& current) {
  QEB_TRACE(m_tracer, LevelNotice) << "Mount table changed: " << diff.added.size() << " added, "
                                   << diff.removed.size() << " removed";
  std::vector<qeb::objptr_t<nox::IMountEvents>> mountSubscribers;
  std::vector<qeb::objptr_t<nox::ISharesParserEvents>> shareSubscribers;
  {
    std::lock_guard lock(m_mutex);
    mountSubscribers = m_mountSubscribers;
    if (diff.TouchesShares()) shareSubscribers = m_shareSubscribers;
  }
  for (auto& s : mountSubscribers) s->OnMountListChanged(diff.added, diff.removed, current);
  for (auto& s : shareSubscribers) s->OnSharesChanged();
}

void MountWatcher::PollLoop() {
  std::array<pollfd, 2> fds{pollfd{m_fd, POLLPRI, 0}, pollfd{m_stopFd, POLLIN, 0}};
  const int timeout = static_cast<int>(m_fallbackPeriod.count());
  for (;;) {
    const int n = ::poll(fds.data(), fds.size(), timeout > 0 ? timeout : -1);
    if (n < 0 && errno == EINTR) continue;
    if (fds[1].revents & POLLIN) return;
    if (n < 0) {
      QEB_TRACE(m_tracer, LevelError) << "Cannot poll the mount table: errno " << errno;
      return;
    }
    qeb::result_t result;
    QEB_CHECK_TRACE(m_tracer, result, Refresh()) << "Cannot re-read the mount table";
  }
}

qeb::result_t MountWatcher::GetMountList(nox::MountList& mounts) noexcept {
  try {
    {
      std::lock_guard lock(m_mutex);
      if (m_loaded) {
        mounts = m_current;
        return qeb::res::Ok;
      }
    }
    std::string text;
    const qeb::result_t read = ReadTable(text);
    if (QEB_FAILED(read)) return read;
    mounts = ParseMountInfo(text);
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

qeb::result_t MountWatcher::Subscribe(nox::IMountEvents* subscriber) noexcept {
  return AddSubscriber(m_mutex, m_mountSubscribers, subscriber);
}

qeb::result_t MountWatcher::Unsubscribe(nox::IMountEvents* subscriber) noexcept {
  return RemoveSubscriber(m_mutex, m_mountSubscribers, subscriber);
}

qeb::result_t MountWatcher::Subscribe(nox::ISharesParserEvents* subscriber) noexcept {
  return AddSubscriber(m_mutex, m_shareSubscribers, subscriber);
}

qeb::result_t MountWatcher::Unsubscribe(nox::ISharesParserEvents* subscriber) noexcept {
  return RemoveSubscriber(m_mutex, m_shareSubscribers, subscriber);
}

}  // namespace oasd
