// Container identification: the mount-namespace identifier and its caching rule, scan-area
// names, process-root stripping and the container scan path parser with its trace lines.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "nox_common/container_identification_tools.h"
#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace nox::containers {
namespace {

uint64_t Inode(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? st.st_ino : 0;
}

TEST(MountNamespace, OwnIdentifierIsTheNamespaceInode) {
  ASSERT_NE(Inode("/proc/self/ns/mnt"), 0u);
  EXPECT_EQ(GetOwnMountNamespaceId(), Inode("/proc/self/ns/mnt"));
  EXPECT_EQ(GetOwnMountNamespaceId(), Inode("/proc/self/ns/mnt"));
}

TEST(MountNamespace, KnownValuesAreCachedUnknownOnesRetried) {
  ASSERT_NE(Inode("/proc/self/ns/mnt"), Inode("/proc/self/ns/net"));
  std::atomic<uint64_t> cache{UNKNOWN_MOUNT_NAMESPACE};
  EXPECT_EQ(detail::CachedMountNamespaceId(cache, "/proc/self/ns/mnt/x"), UNKNOWN_MOUNT_NAMESPACE);
  EXPECT_EQ(detail::CachedMountNamespaceId(cache, "/proc/self/ns/mnt"), Inode("/proc/self/ns/mnt"));
  EXPECT_EQ(detail::CachedMountNamespaceId(cache, "/proc/self/ns/net"), Inode("/proc/self/ns/mnt"));

  std::atomic<uint64_t> noNamespaces{UNKNOWN_MOUNT_NAMESPACE};
  EXPECT_EQ(detail::CachedMountNamespaceId(noNamespaces, "/nonexistent/ns/mnt"), 0u);
  EXPECT_EQ(detail::CachedMountNamespaceId(noNamespaces, "/proc/self/ns/mnt"), 0u);
}

TEST(ScanArea, NameWinsWholeAndIdentifiersAreCutToTwelve) {
  EXPECT_EQ(MakeScanAreaString({"0123456789abcdef", "web", "", false}), "[container:web]");
  EXPECT_EQ(MakeScanAreaString({"0123456789abcdef", "", "", true}), "[image:0123456789ab]");
  EXPECT_EQ(MakeScanAreaString({"abc", "", "", false}), "[container:abc]");
  EXPECT_EQ(MakeScanAreaString({"0", "a-rather-long-container-name", "", true}),
            "[image:a-rather-long-container-name]");
}

TEST(ProcessRoot, RemainderAfterRootUpToWhiteSpace) {
  EXPECT_EQ(StripProcessRoot("/proc/42/root/etc/passwd"), "/etc/passwd");
  EXPECT_EQ(StripProcessRoot("/proc/7/root"), "");
  EXPECT_EQ(StripProcessRoot("/proc/7/root/a b"), "/a");
  EXPECT_EQ(StripProcessRoot("/proc/self/root/etc"), "");
  EXPECT_EQ(StripProcessRoot("/etc/passwd"), "");
  const std::string longTail = "/" + std::string(5000, 'x');
  EXPECT_EQ(StripProcessRoot("/proc/1/root" + longTail), longTail.substr(0, 4096));
}

class ScanPath : public ::testing::Test {
 protected:
  // Exactly one failed-check line at error level, ending with the condition and sentence.
  void ExpectFailedCheck(const std::string& condition, const std::string& sentence) {
    const auto errors = m_tracer->Texts(qeb::trace::LevelError);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("nox_common/container_identification_tools:", 0), 0u);
    const std::string tail = "(" + condition + ") failed: result = false" + sentence;
    EXPECT_TRUE(errors[0].ends_with(tail)) << errors[0];
    m_tracer->Clear();
  }

  qeb::objptr_t<qeb::testing::CapturingTracer> m_tracer =
      qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  ContainerScanPath m_result{u"untouched", u"untouched", "untouched"};
};

TEST_F(ScanPath, FolderAnywhereInThePathIsRecognised) {
  const std::string path =
      "/mnt/host/var/opt/halvik/dorn/private/scan-containers/s-17/c0ffee/usr/bin/env";
  ASSERT_TRUE(ParseContainerScanPath(m_tracer.Get(), path, m_result));
  EXPECT_EQ(m_result.sessionId, u"s-17");
  EXPECT_EQ(m_result.containerId, u"c0ffee");
  EXPECT_EQ(m_result.innerPath, "usr/bin/env");
  EXPECT_EQ(m_tracer->Texts(qeb::trace::LevelDetail),
            (std::vector<std::string>{"ParseContainerScanPath",
                                      "sessionId: s-17, path: c0ffee/usr/bin/env",
                                      "containerId: c0ffee, path: usr/bin/env"}));
}

TEST_F(ScanPath, ShortAbsentOrIncompletePathsAreRejectedAndTraced) {
  for (const std::string path : {"/var/opt", "/var/opt/halvik/dorn/private/scan-container/s/c/f"}) {
    EXPECT_FALSE(ParseContainerScanPath(m_tracer.Get(), path, m_result));
    ExpectFailedCheck("scanFolderIt != NativePath::npos", "Not ContainerScanPath: " + path);
  }
  const std::string folder(CONTAINER_SCAN_FOLDER);
  // The tail after the folder, and the part being split when the check failed.
  const std::pair<std::string, std::string> incomplete[] = {
      {"", ""}, {"session", "session"}, {"session/", "session/"},
      {"session/container", "container"}, {"session/container/", "container/"}};
  for (const auto& [tail, traced] : incomplete) {
    EXPECT_FALSE(ParseContainerScanPath(m_tracer.Get(), folder + tail, m_result)) << tail;
    ExpectFailedCheck("relPathIt < path.size()", "Incorrect length of threat object path: " + traced);
  }
  EXPECT_EQ(m_result.innerPath, "untouched");
}

}  // namespace
}  // namespace nox::containers
