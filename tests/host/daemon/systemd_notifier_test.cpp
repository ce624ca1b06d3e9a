// The watchdog side of the notify protocol, on a socket in a scratch directory: petted while
// the reader is idle or moving, silent (and saying why, once) while a batch is stuck.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "host/daemon/systemd_notifier.h"
#include "testing/capturing_tracer.h"
#include "testing/fake_files.h"
#include "testing/host_object.h"

namespace {

// Whether a WATCHDOG=1 arrives within limitMs (other messages are passed over).
bool PetWithin(int fd, int limitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    char buffer[512];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n > 0 && std::string(buffer, n).find("WATCHDOG=1") != std::string::npos) return true;
  }
  return false;
}

TEST(SystemdNotifier, WatchdogStopsWhileTheReaderIsStuckAndResumesAfter) {
  qeb::testing::TempDir dir;
  const std::string path = dir.Path() + "/notify";
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  ::setenv("WATCHDOG_USEC", "200000", 1);  // petted every 100 ms; the reader may hold 100 ms

  oasd::HostMetrics metrics;
  auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  oasd::SystemdNotifier notifier(qeb::objptr_t<qeb::ITracer>(tracer.Get()), metrics);
  notifier.Start(60000);
  EXPECT_TRUE(PetWithin(fd, 1000)) << "idle";
  metrics.progress.reader.Started();
  for (int i = 0; i < 100 && !tracer->Contains("the fanotify reader has made no progress"); ++i)
    PetWithin(fd, 50);  // drains what was sent before the stall was seen
  ASSERT_TRUE(tracer->Contains("the fanotify reader has made no progress"));
  PetWithin(fd, 50);
  EXPECT_FALSE(PetWithin(fd, 500)) << "stuck reader";
  metrics.progress.reader.Finished();
  EXPECT_TRUE(PetWithin(fd, 1000)) << "after the batch ended";
  notifier.TearDown();
  ::unsetenv("NOTIFY_SOCKET");
  ::unsetenv("WATCHDOG_USEC");
  ::close(fd);
}

}  // namespace
