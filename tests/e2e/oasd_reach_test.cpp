// What an ordinary user may try to get past oasd or to stall it: reaching the watched files
// from a user namespace of their own, through bind mounts or an overlay, and a FUSE filesystem under
// the watched path whose server stops answering. Each scenario runs in its own sandbox
// (oasd_harness.h); the FUSE server is a thread of the sandbox on a raw /dev/fuse.
#include <grp.h>
#include <linux/fuse.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>

#include <atomic>
#include <thread>

#include "oasd_harness.h"

namespace oasd_e2e {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kSetupFailed = 200;  // above every errno an opener can exit with

// Runs body as uid 65534 in a user namespace and mount namespace of its own, as
// `unshare -Urm` run by that user does: the watched mounts are copies oasd never saw.
int AsNobodyInOwnNamespaces(const std::function<int()>& body) {
  if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
    return kSetupFailed;
  ::prctl(PR_SET_DUMPABLE, 1);  // the id change made /proc/self root's
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return kSetupFailed + 1;
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 65534 1");
  WriteFile("/proc/self/gid_map", "0 65534 1");
  return ::getuid() == 0 ? body() : kSetupFailed + 2;
}

int BindAndRead(const std::string& from, const std::string& onto, const std::string& file) {
  if (::mount(from.c_str(), onto.c_str(), nullptr, MS_BIND, nullptr) != 0) return kSetupFailed + 3;
  return OpenAndRead(onto + "/" + file);
}

TEST(OasdReach, WatchedFilesAreGuardedFromEveryNamespaceAndMount) {
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com"), script = s.Watched("eicar.sh");
    const std::string clean = s.Watched("clean.txt"), drop = s.Watched("drop");
    ::mkdir(s.Watched("sub").c_str(), 0755);
    ::mkdir(drop.c_str(), 0777);
    ::chmod(drop.c_str(), 0777);
    WriteFile(eicar, kEicar);
    WriteFile(s.Watched("sub/eicar.com"), kEicar);
    WriteFile(script, kEicar, 0755);
    WriteFile(clean, "nothing to see here\n");
    if (!s.StartOasd(R"("engine": "clamav")")) return;

    const auto nobody = [&](const std::function<int()>& body) {
      return InChild([&] { return AsNobodyInOwnNamespaces(body); });
    };
    const Exit cleanOpen = nobody([&] { return OpenAndRead(clean); });
    s.Expect(cleanOpen.Is(0), "a clean open from a user namespace: " + cleanOpen.Text());
    const Exit read = nobody([&] { return OpenAndRead(eicar); });
    s.Expect(read.Denied(), "reading the EICAR file from a user namespace: " + read.Text());
    const Exit run = nobody([&] { return Execute(script); });
    s.Expect(run.Denied(), "executing the EICAR script from a user namespace: " + run.Text());
    const Exit bound = nobody([&] { return BindAndRead(s.Watched("sub"), s.State(""), "eicar.com"); });
    s.Expect(bound.Denied(), "the EICAR file through the user's bind mount: " + bound.Text());
    // Reported by where the file lies for oasd, not by the writer's view of it.
    const std::string dropped = drop + "/dropped.com";
    const Exit writer = nobody([&] { return CreateWith(dropped, kEicar); });
    s.Expect(writer.Is(0), "writing from a user namespace: " + writer.Text());
    s.Expect(s.AwaitEvent("detection", dropped), "no detection line for " + dropped);

    // The overlay's own superblock is not marked: its open reaches oasd as the open of the
    // watched file beneath it, which kernels report for such backing files.
    const Exit overlay = nobody([&] {
      const std::string top = s.State("");
      if (::mount("none", top.c_str(), "tmpfs", 0, nullptr) != 0) return kSetupFailed + 4;
      for (const char* d : {"/u", "/k", "/m"}) ::mkdir((top + d).c_str(), 0755);
      const std::string options = "lowerdir=" + s.Watched("") + ",upperdir=" + top + "/u,workdir=" + top + "/k";
      if (::mount("overlay", (top + "/m").c_str(), "overlay", 0, options.c_str()) != 0) return kSetupFailed + 5;
      return OpenAndRead(top + "/m/eicar.com");
    });
    s.Expect(overlay.Denied(), "the EICAR file through the user's overlay: " + overlay.Text());

    // Bind mounts in oasd's own namespace, of the tree and of a subdirectory, made after it
    // started: no scan area names them.
    const std::string tree = s.State("tree"), part = s.State("part");
    ::mkdir(tree.c_str(), 0755);
    ::mkdir(part.c_str(), 0755);
    const bool mounted = ::mount(s.Watched("").c_str(), tree.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                         ::mount(s.Watched("sub").c_str(), part.c_str(), nullptr, MS_BIND, nullptr) == 0;
    s.Expect(mounted, std::string("bind mounts: ") + std::strerror(errno));
    const Exit viaTree = InChild([&] { return OpenAndRead(tree + "/eicar.com"); });
    s.Expect(viaTree.Denied(), "the EICAR file through a bind mount of the tree: " + viaTree.Text());
    const Exit viaPart = InChild([&] { return OpenAndRead(part + "/eicar.com"); });
    s.Expect(viaPart.Denied(), "the EICAR file through a bind mount of a subdirectory: " + viaPart.Text());
    const Exit cleanViaTree = InChild([&] { return OpenAndRead(tree + "/clean.txt"); });
    s.Expect(cleanViaTree.Is(0), "a clean file through the bind mount: " + cleanViaTree.Text());
    // Each of these was placed where it lies for oasd, none only scanned for want of a place.
    s.Expect(s.OasdLog().find("could not be placed") == std::string::npos, "unplaced files");
  });
}

// ---- A FUSE server that answers lookups, then never an open or never a file's stat ----

class StuckFuseServer {
 public:
  static constexpr uint64_t kFileNode = 2;
  enum class Stuck { Open, Attributes };

  explicit StuckFuseServer(Stuck stuck) : m_stuck(stuck) {}

  // Mounts at dir; empty on success, else why not.
  std::string Mount(const std::string& dir) {
    m_device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (m_device < 0) return std::string("/dev/fuse: ") + std::strerror(errno);
    const std::string options = "fd=" + std::to_string(m_device) +
                                ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (::mount("oasd-e2e", dir.c_str(), "fuse.oasd-e2e", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
      return std::string("mounting the FUSE filesystem: ") + std::strerror(errno);
    m_dir = dir;
    m_thread = std::thread([this] { Serve(); });
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) return std::string("stat of the FUSE root: ") + std::strerror(errno);
    m_connection = ::minor(st.st_dev);
    return {};
  }

  // Requests the server received and will never answer.
  int Held() const { return m_held.load(); }

  // Aborts the connection (every request waiting on it fails), then unmounts.
  ~StuckFuseServer() {
    if (!m_dir.empty()) {
      const std::string abort = "/sys/fs/fuse/connections/" + std::to_string(m_connection) + "/abort";
      if (::access(abort.c_str(), F_OK) != 0)
        ::mount("fusectl", "/sys/fs/fuse/connections", "fusectl", 0, nullptr);
      WriteFile(abort, "1");
    }
    if (m_thread.joinable()) m_thread.join();
    if (!m_dir.empty()) ::umount2(m_dir.c_str(), MNT_DETACH);
    if (m_device >= 0) ::close(m_device);
  }

 private:
  void Serve() {
    std::vector<char> buffer(FUSE_MIN_READ_BUFFER + 128 * 1024);
    for (ssize_t n; (n = ::read(m_device, buffer.data(), buffer.size())) >= 0 || errno == EINTR;) {
      if (n < static_cast<ssize_t>(sizeof(fuse_in_header))) continue;
      const auto& in = *reinterpret_cast<const fuse_in_header*>(buffer.data());
      const char* body = buffer.data() + sizeof in;
      const bool file = in.nodeid == kFileNode;
      if ((in.opcode == FUSE_OPEN && m_stuck == Stuck::Open) ||
          (in.opcode == FUSE_GETATTR && file && m_stuck == Stuck::Attributes)) {
        ++m_held;
      } else if (in.opcode == FUSE_INIT) {
        const auto& init = *reinterpret_cast<const fuse_init_in*>(body);
        fuse_init_out out{};
        out.major = FUSE_KERNEL_VERSION;
        out.minor = std::min<uint32_t>(init.minor, FUSE_KERNEL_MINOR_VERSION);
        out.max_readahead = init.max_readahead;
        out.max_write = 4096;
        Reply(in, &out, sizeof out);
      } else if (in.opcode == FUSE_LOOKUP) {
        fuse_entry_out out{};
        out.nodeid = kFileNode;
        out.entry_valid = 3600;
        out.attr_valid = m_stuck == Stuck::Attributes ? 0 : 3600;  // the next stat asks
        out.attr = Attributes(kFileNode);
        const bool known = std::string_view(body) == "file";
        Reply(in, &out, known ? sizeof out : 0, known ? 0 : -ENOENT);
      } else if (in.opcode == FUSE_GETATTR) {
        fuse_attr_out out{};
        out.attr_valid = 3600;
        out.attr = Attributes(in.nodeid);
        Reply(in, &out, sizeof out);
      } else if (in.opcode == FUSE_OPEN || in.opcode == FUSE_FLUSH || in.opcode == FUSE_RELEASE) {
        const fuse_open_out out{};
        Reply(in, &out, in.opcode == FUSE_OPEN ? sizeof out : 0);
      }  // anything else is never answered
    }
  }

  static fuse_attr Attributes(uint64_t node) {
    fuse_attr attr{};
    attr.ino = node;
    attr.mode = node == kFileNode ? S_IFREG | 0644 : S_IFDIR | 0755;
    attr.nlink = 1;
    attr.size = node == kFileNode ? 16 : 0;
    return attr;
  }

  void Reply(const fuse_in_header& in, const void* out, size_t size, int error = 0) {
    fuse_out_header header{static_cast<uint32_t>(sizeof header + size), error, in.unique};
    iovec parts[2] = {{&header, sizeof header}, {const_cast<void*>(out), size}};
    [[maybe_unused]] const ssize_t n = ::writev(m_device, parts, size ? 2 : 1);
  }

  const Stuck m_stuck;
  int m_device = -1;
  std::string m_dir;
  unsigned m_connection = 0;
  std::atomic<int> m_held{0};
  std::thread m_thread;
};

int OpenOnly(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  ::close(fd);
  return 0;
}

// Two FUSE filesystems under the watched path: on one the kernel's open of the event's
// descriptor for oasd never returns, on the other oasd's stat of the file never does.
TEST(OasdReach, StuckFuseServersUnderTheWatchedPathHoldOnlyTheirOwnOpens) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse: " << std::strerror(errno);
  OASD_SCENARIO([](Sandbox& s) {
    const std::string eicar = s.Watched("eicar.com"), clean = s.Watched("clean.txt");
    WriteFile(eicar, kEicar);
    WriteFile(clean, "nothing to see here\n");
    const std::string noOpen = s.Watched("no-open"), noStat = s.Watched("no-stat");
    std::optional<StuckFuseServer> openStuck(std::in_place, StuckFuseServer::Stuck::Open);
    std::optional<StuckFuseServer> statStuck(std::in_place, StuckFuseServer::Stuck::Attributes);
    for (auto [server, dir] : {std::pair{&openStuck, noOpen}, std::pair{&statStuck, noStat}}) {
      ::mkdir(dir.c_str(), 0755);
      if (const std::string error = (*server)->Mount(dir); !error.empty()) return s.Expect(false, error);
    }
    if (!s.StartOasd(R"("engine": "clamav", "permission_deadline_ms": 2000, "verdict_timeout_ms": 2000)")) return;

    const pid_t heldOpener = Spawn([&] { return OpenAndRead(noOpen + "/file"); });
    s.Expect(WaitUntil([&] { return openStuck->Held() > 0; }, kEventLimit),
             "oasd never reached the FUSE server's open");
    // Bounds are hang detectors, not speed targets: with one reader these wait for good.
    const Exit statOpener = InChild([&] { return OpenOnly(noStat + "/file"); }, 20s);
    s.Expect(statStuck->Held() > 0, "oasd never asked the FUSE server for the file's attributes");
    s.Expect(statOpener.Is(0), "the opener whose file oasd cannot stat, at the deadline: " + statOpener.Text());
    const Exit cleanOpen = InChild([&] { return OpenAndRead(clean); }, 10s);
    s.Expect(cleanOpen.Is(0), "a clean open on the watched tmpfs beside the stuck servers: " + cleanOpen.Text());
    const Exit eicarOpen = InChild([&] { return OpenAndRead(eicar); }, 10s);
    s.Expect(eicarOpen.Denied(), "the EICAR file beside the stuck servers: " + eicarOpen.Text());
    const std::string page = s.Metrics();
    s.Expect(MetricValue(page, "oasd_deadline_allows_total").value_or(0) >= 1, "deadline allows:\n" + page);

    // The stuck readers wait in the kernel until their connections are aborted; oasd's stop
    // would otherwise end only at its stop limit.
    openStuck.reset();
    statStuck.reset();
    const Exit held = WaitFor(heldOpener, kOpenerLimit);
    s.Expect(held.Answered(), "the opener on the aborted FUSE filesystem: " + held.Text());
  });
}

}  // namespace
}  // namespace oasd_e2e
