// The journals cache against synthetic segments on disk (every size and header fault the
// recogniser must tell apart), the fake host's process and application services, and a
// real database server's own journals. The server test is skipped where the server is
// not installed or the test cannot switch to its account.
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/exception.h"
#include "framework/qeb/result_text.h"
#include "oas/cache_impl/cache_list.h"
#include "oas/cache_impl/database_journals_cache.h"
#include "oas/cache_impl/text_files_cache.h"
#include "testing/fake_host.h"
#include "testing/scoped_clock_override.h"

namespace {

namespace fs = std::filesystem;
namespace res = qeb::res;
using nox::oas::DatabaseJournalsCache;
using qeb::testing::FakeHost;
using qeb::testing::TempDir;
using system_interceptors::process_manager::ProcessInfo;

constexpr uint32_t ServerPid = 300, OtherPid = 400;
constexpr char ServerImage[] = "/usr/lib/db/bin/server";
constexpr char OtherImage[] = "/usr/bin/tar";
constexpr char Refused[] = "IsWalFile() <- 0x00000001 (False) ";
constexpr char Accepted[] = "IsWalFile() <- 0x00000000 (No error) is WAL file";
const std::vector<uint16_t> KnownMagics = {0xD118, 0xD116, 0xD113, 0xD110, 0xD10D, 0xD106, 0xD101, 0xD098,
                                           0xD097, 0xD093, 0xD087, 0xD07E, 0xD075, 0xD071, 0xD066, 0xD064,
                                           0xD063, 0xD062, 0xD05E, 0xD05D, 0xD05C, 0xD05A, 0xD059, 0xD058};

struct Page {
  uint16_t magic;
  uint16_t address;  // bits 8 to 23 of the page's address
};

// A segment image: every 8 KiB page starts with a header (cut off by the end of the
// image if need be) whose magic and address bits the tweak may change.
std::string Segment(size_t size, const std::function<void(size_t, Page&)>& tweak = {}) {
  std::string image(size, '\0');
  for (size_t page = 0; page * 0x2000 < size; ++page) {
    Page p{0xD110, static_cast<uint16_t>(page * 0x20)};
    if (tweak) tweak(page, p);
    const unsigned char header[16] = {static_cast<unsigned char>(p.magic), static_cast<unsigned char>(p.magic >> 8),
                                      5, 0, 1, 0, 0, 0, 0, static_cast<unsigned char>(p.address),
                                      static_cast<unsigned char>(p.address >> 8), 7, 0, 0, 0, 0};
    image.replace(page * 0x2000, std::min<size_t>(16, size - page * 0x2000), reinterpret_cast<const char*>(header),
                  std::min<size_t>(16, size - page * 0x2000));
  }
  return image;
}

ProcessInfo Process(uint32_t pid, const std::string& image) {
  ProcessInfo info;
  info.m_pid = pid;
  info.m_uniqueId = pid * 10;
  info.m_imagePath = image;
  return info;
}

vrel::EventParams Event(const std::string& path, uint32_t pid = ServerPid, int fd = -1) {
  vrel::EventParams e;
  e.fileName = qeb::basic_string_t(path);
  e.pid = static_cast<int32_t>(pid);
  e.fd = fd;
  e.dev = 2049;
  e.ino = 7;
  e.fsType = 0xEF53;
  e.ctime = {5, 6};
  return e;
}

class JournalsCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.processManager->AddProcess(Process(ServerPid, ServerImage));
    host.processManager->AddProcess(Process(OtherPid, OtherImage));
    host.applications->AddApplication(ServerImage, {u"PostgreSQL"});
    host.applications->AddApplication(OtherImage, {u"Archivers"});
    cache = std::make_unique<DatabaseJournalsCache>(host.Locator());
  }
  qeb::result_t IsWal(const std::string& content) {
    host.tracer->Clear();
    return cache->IsWalFile(Event(dir.Write("segment", content)));
  }
  std::string LastDetail() const { return host.tracer->Texts(qeb::trace::LevelDetail).back(); }
  std::string LastError() const {
    const auto lines = host.tracer->Texts(qeb::trace::LevelError);
    return lines.empty() ? std::string() : lines.back();
  }
  // The last error line is this file's failed-check line for expression and result.
  void ExpectCheckLine(const std::string& expression, qeb::result_t r, const std::string& sentence) const {
    const std::string line = LastError();
    EXPECT_EQ(line.rfind("oas/cache_impl/database_journals_cache.cpp:", 0), 0u) << line;
    EXPECT_TRUE(line.ends_with("(" + expression + "),(QEB_SUCCEEDED(_result)) failed: result = " +
                               qeb::ResultText(r) + sentence))
        << line;
  }

  FakeHost host;
  TempDir dir;
  qeb::testing::ScopedClockOverride clock;
  std::unique_ptr<DatabaseJournalsCache> cache;
};

TEST_F(JournalsCacheTest, AFileNeedsThreeFullPageHeaders) {
  const struct {
    size_t size;
    std::string last;
  } cases[] = {{0, "Not a WAL file: file too small"},
               {15, "Not a WAL file: file too small"},
               {16, "Not a WAL file, file too small, read bytes: 0"},
               {0x2000 + 15, "Not a WAL file, file too small, read bytes: 15"},
               {0x4000, "Not a WAL file, file too small, read bytes: 0"},
               {0x4000 + 15, "Not a WAL file, file too small, read bytes: 15"}};
  for (const auto& c : cases) {
    EXPECT_EQ(IsWal(Segment(c.size)), res::False) << c.size;
    EXPECT_EQ(LastDetail(), Refused + c.last) << c.size;
  }
  EXPECT_EQ(IsWal(Segment(0x4000 + 16)), res::Ok);
  const std::vector<std::string> expected = {
      "IsWalFile: Read bytes: 16", "IsWalFile: Magic number candidate: 53520",
      "IsWalFile: Incremental number candidate: 0", "IsWalFile: WAL recognize, file offset: 8192",
      "IsWalFile: WAL recognize, file offset: 16384", Accepted};
  EXPECT_EQ(host.tracer->Texts(qeb::trace::LevelDetail), expected);
}

TEST_F(JournalsCacheTest, EveryPageMustCarryTheFirstPagesKnownMagic) {
  for (uint16_t magic : KnownMagics)
    EXPECT_EQ(IsWal(Segment(0x6000, [&](size_t, Page& p) { p.magic = magic; })), res::Ok) << magic;
  for (uint16_t magic : {0xD111, 0xD057, 0x10D1, 0x0000}) {
    EXPECT_EQ(IsWal(Segment(0x6000, [&](size_t, Page& p) { p.magic = magic; })), res::False) << magic;
    EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file: not a magic number");
  }
  // 0xD110 is known, but not the magic this segment started with.
  EXPECT_EQ(IsWal(Segment(0x6000, [](size_t page, Page& p) { p.magic = page == 0 ? 0xD113 : 0xD110; })), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file, not a magic number: 53520");
  EXPECT_EQ(IsWal(Segment(0x6000, [](size_t page, Page& p) { p.magic = page == 2 ? 0xD113 : 0xD110; })), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file, not a magic number: 53523");
}

TEST_F(JournalsCacheTest, PageAddressesMustStartAtASegmentAndGrowByOnePage) {
  for (uint16_t first : {0x0001, 0x0100}) {  // byte 9, then byte 10
    EXPECT_EQ(IsWal(Segment(0x6000, [&](size_t page, Page& p) { p.address += page == 0 ? first : 0; })), res::False);
    EXPECT_TRUE(host.tracer->Contains("IsWalFile: Incremental number candidate: " + std::to_string(first)));
    EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file: wrong incremental number");
  }
  EXPECT_EQ(IsWal(Segment(0x6000, [](size_t page, Page& p) { p.address = page == 1 ? 0x40 : p.address; })), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file, wrong incremental number: 64");
  EXPECT_EQ(IsWal(Segment(0x6000, [](size_t page, Page& p) { p.address = page == 2 ? 0x20 : p.address; })), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file, wrong incremental number: 32");
}

TEST_F(JournalsCacheTest, OpenDescriptorIsReadEvenAfterTheNameVanished) {
  const std::string path = dir.Write("000000010000000000000007", Segment(0x6000));
  const int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_EQ(cache->Add(Event(path, ServerPid, fd)), res::Ok);
  EXPECT_EQ(host.fileFactory->OpenedByFd(), 1u);
  EXPECT_EQ(host.fileFactory->OpenedByName(), 0u);

  // By name the vanished file cannot be opened: nothing is added.
  ASSERT_EQ(cache->Clear(), res::Ok);
  const qeb::result_t r = cache->Add(Event(path));
  EXPECT_TRUE(QEB_FAILED(r));
  EXPECT_EQ(cache->Size(), 0u);
  ExpectCheckLine("m_filenameFileFactory->CreateFile( path.c_str(), qeb::io_access_mode::Read, "
                  "qeb::io_share_mode::Read, qeb::io_disposition::OpenIfExist, 0, io.Ref())",
                  r, "cannot get io from filename");
  host.fileFactory->FailByFd(res::AccessDenied);
  EXPECT_EQ(cache->IsWalFile(Event(path, ServerPid, fd)), res::AccessDenied);
  ExpectCheckLine("m_fdFileFactory->GetIO(event.fd, io.Ref())", res::AccessDenied, "cannot get io from open fd");
  ::close(fd);

  // A descriptor that cannot be read (a directory) fails the first read.
  host.fileFactory->FailByFd(res::Ok);
  const int dirFd = ::open(dir.Path().c_str(), O_RDONLY | O_DIRECTORY);
  const qeb::result_t readFailure = cache->IsWalFile(Event(dir.Path(), ServerPid, dirFd));
  ::close(dirFd);
  EXPECT_TRUE(QEB_FAILED(readFailure));
  ExpectCheckLine("io->Read(buf, sizeof(buf), read)", readFailure, "Cannot read file");
}

TEST_F(JournalsCacheTest, AddRecordsAServerJournalAndRefreshesItLater) {
  const std::string path = dir.Write("segment", Segment(0x6000));
  EXPECT_EQ(cache->Add(Event(path)), res::Ok);
  EXPECT_EQ(host.tracer->Texts(qeb::trace::LevelDetail).front().rfind("Add: ", 0), 0u);
  EXPECT_TRUE(host.tracer->Contains("OASCache: add clean database journal file " + path + " (ino: 7, dev: 2049)"));
  EXPECT_EQ(LastDetail(), "Add() <- 0x00000000 (No error) Added");

  const nox::oas::FileId id = nox::oas::FileId::FromEvent(Event(path));
  std::shared_ptr<nox::oas::CleanFileInfo> first, second;
  ASSERT_EQ(cache->Find(id, first), res::Ok);
  EXPECT_EQ(first->addedTime, clock.Now());
  EXPECT_EQ(first->changeTime, 5'000'000'006);

  clock.Advance(1000);
  vrel::EventParams changed = Event(path);
  changed.ctime = {9, 0};
  EXPECT_EQ(cache->Add(changed), res::Ok);
  ASSERT_EQ(cache->Find(id, second), res::Ok);
  EXPECT_EQ(second, first);
  EXPECT_EQ(cache->Size(), 1u);
  EXPECT_EQ(second->addedTime, clock.Now());
  EXPECT_EQ(second->changeTime, 9'000'000'000);

  // The entry trusts any process of the server's category, and asks afresh each time.
  EXPECT_TRUE(second->CheckProcess(Process(ServerPid, ServerImage)));
  EXPECT_FALSE(second->CheckProcess(Process(OtherPid, OtherImage)));
  host.applications->AddApplication(ServerImage, {u"postgresql"});
  EXPECT_FALSE(second->CheckProcess(Process(ServerPid, ServerImage)));

  EXPECT_EQ(cache->Remove(id), res::Ok);
  EXPECT_EQ(cache->Remove(id), res::NotFound);
  EXPECT_EQ(cache->Find(id, second), res::NotFound);
  EXPECT_FALSE(second);
}

TEST_F(JournalsCacheTest, RefusalsComeBeforeReadingTheFile) {
  const std::string path = dir.Write("segment", Segment(0x6000));
  for (uint64_t fsType : {0x6969ull, 0x517Bull, 0xFE534D42ull, 0xFF534D42ull}) {
    vrel::EventParams e = Event(path);
    e.fsType = fsType;
    EXPECT_EQ(cache->Add(e), res::False);
    EXPECT_EQ(LastDetail(), "Add() <- 0x00000001 (False) Not added: is network filesystem");
  }
  EXPECT_EQ(host.processManager->Lookups(), 0u);

  EXPECT_EQ(cache->Add(Event(path, OtherPid)), res::False);
  EXPECT_EQ(LastDetail(), "Add() <- 0x00000001 (False) Not added: not a PostgreSQL process");
  host.processManager->FailLookup(ServerPid, res::AccessDenied);
  EXPECT_EQ(cache->Add(Event(path)), res::AccessDenied);
  ExpectCheckLine("tools::GetProcessInfo(GetServiceLocator(), fileEvent.pid, info)", res::AccessDenied, "");
  host.processManager->RestorePid(ServerPid);
  host.applications->FailCategorize(res::Unexpected);
  EXPECT_EQ(cache->Add(Event(path)), res::Unexpected);
  EXPECT_EQ(host.fileFactory->OpenedByName(), 0u);
  EXPECT_EQ(cache->Size(), 0u);
}

TEST(JournalsCacheConstruction, EachMissingServiceIsNamed) {
  const struct {
    qeb::iid_t iid;
    uint32_t key;
    std::string sentence;
  } cases[] = {
      {system_interceptors::process_manager::IProcessManager::IID, 0,
       "Cannot get system_interceptors::process_manager::IProcessManager"},
      {nox::IFileFactory::IID, vrel::CLSID_FileFactories, "Cannot get IFileFactory interface"},
      {nox::IFdFileFactory::IID, 0, "Cannot get IFdFileFactory interface"},
      {nox::IApplicationProvider::IID, 0, "Cannot get IApplicationProvider interface"}};
  for (const auto& c : cases) {
    FakeHost host;
    host.locator->Remove(c.iid, c.key);
    try {
      DatabaseJournalsCache cache(host.Locator());
      ADD_FAILURE() << c.sentence;
    } catch (const qeb::CheckResultFailedException& e) {
      EXPECT_EQ(std::get<std::string>(e.Properties().Find(qeb::kPropText)->value), c.sentence);
    }
  }
}

TEST(JournalsCacheConstruction, BuiltAfterTheTextCacheWhenEnabled) {
  FakeHost host;
  nox::settings::OASSettings settings;
  settings.skipDatabaseJournals = true;
  auto caches = nox::oas::BuildCacheList(host.Locator(), settings);
  ASSERT_EQ(caches.size(), 1u);
  EXPECT_TRUE(dynamic_cast<DatabaseJournalsCache*>(caches[0].get()));
  settings.skipPlainTextFiles = true;
  caches = nox::oas::BuildCacheList(host.Locator(), settings);
  ASSERT_EQ(caches.size(), 2u);
  EXPECT_TRUE(dynamic_cast<nox::oas::TextFilesCache*>(caches[0].get()));
  EXPECT_TRUE(dynamic_cast<DatabaseJournalsCache*>(caches[1].get()));
}

// A throwaway database cluster run under the server's own account, in a private
// directory with a private socket directory. Every command has a hard time limit and
// the server is always stopped (killed, if it will not stop) when the object goes.
class ScratchCluster {
 public:
  explicit ScratchCluster(fs::path bin) : m_bin(std::move(bin)) {
    char base[] = "/tmp/oas-journals-XXXXXX";
    m_base = ::mkdtemp(base);
    fs::create_directory(m_base / "sock");
    const passwd* account = ::getpwnam("postgres");
    for (const fs::path& p : {m_base, m_base / "sock"})
      if (::chown(p.c_str(), account->pw_uid, account->pw_gid) != 0) ADD_FAILURE() << "chown " << p;
    m_port = std::uniform_int_distribution<int>(20000, 60000)(*std::make_unique<std::random_device>());
  }
  ~ScratchCluster() {
    if (m_started && !Run("pg_ctl -D " + Data().string() + " -m fast -w -t 15 stop", 20))
      Run("pg_ctl -D " + Data().string() + " -m immediate -w -t 10 stop", 15);
    std::ifstream pidFile(Data() / "postmaster.pid");
    pid_t pid = 0;
    if (pidFile >> pid && pid > 0) ::kill(pid, SIGKILL);
    fs::remove_all(m_base);
  }

  bool Start() {
    if (!Run("initdb -D " + Data().string() + " -A trust -U postgres --no-sync", 30)) return false;
    std::ofstream(Data() / "postgresql.conf", std::ios::app)
        << "listen_addresses = ''\nport = " << m_port << "\nunix_socket_directories = '" << (m_base / "sock").string()
        << "'\nfsync = off\n";
    m_started = true;
    return Run("pg_ctl -D " + Data().string() + " -l " + (m_base / "server.log").string() + " -w -t 20 start", 25);
  }
  bool Client(const std::string& tool, const std::string& args, int seconds) {
    return Run(tool + " -h " + (m_base / "sock").string() + " -p " + std::to_string(m_port) + " " + args, seconds);
  }
  fs::path Data() const { return m_base / "data"; }
  std::string Log() const {
    std::stringstream text;
    text << std::ifstream(m_base / "commands.log").rdbuf() << std::ifstream(m_base / "server.log").rdbuf();
    return text.str();
  }

 private:
  bool Run(const std::string& command, int seconds) {
    const std::string line = "runuser -u postgres -- timeout -k 5 " + std::to_string(seconds) + " " +
                             (m_bin / command).string() + " </dev/null >>" + (m_base / "commands.log").string() +
                             " 2>&1";
    return std::system(line.c_str()) == 0;
  }

  fs::path m_bin, m_base;
  int m_port = 0;
  bool m_started = false;
};

std::string ReadAll(const fs::path& path) {
  std::stringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

TEST_F(JournalsCacheTest, RecognisesTheJournalsOfARealServer) {
  fs::path bin;
  std::error_code ec;
  for (const auto& version : fs::directory_iterator("/usr/lib/postgresql", ec))
    if (fs::exists(version.path() / "bin/initdb")) bin = std::max(bin, version.path() / "bin");
  if (bin.empty()) GTEST_SKIP() << "no /usr/lib/postgresql/*/bin/initdb: install the postgresql package";
  if (::geteuid() != 0 || !::getpwnam("postgres") || !fs::exists("/usr/sbin/runuser"))
    GTEST_SKIP() << "needs root, the postgres account and runuser to run a scratch server";

  ScratchCluster cluster(bin);
  ASSERT_TRUE(cluster.Start()) << cluster.Log();
  // Enough load to fill the first segment completely, then a few switched segments.
  ASSERT_TRUE(cluster.Client("pgbench", "-i -s 1 -q postgres", 40)) << cluster.Log();
  ASSERT_TRUE(cluster.Client("pgbench", "-T 2 -c 2 postgres", 15)) << cluster.Log();
  for (int i = 0; i < 2; ++i)  // a switch with nothing written since the last one does nothing
    ASSERT_TRUE(cluster.Client("psql", "-d postgres -c 'create table if not exists t(x int)' "
                               "-c 'insert into t values (1)' -c 'select pg_switch_wal()'", 10))
        << cluster.Log();

  std::vector<fs::path> segments;
  for (const auto& entry : fs::directory_iterator(cluster.Data() / "pg_wal"))
    if (entry.path().filename().string().size() == 24) segments.push_back(entry.path());
  std::sort(segments.begin(), segments.end());
  ASSERT_GE(segments.size(), 3u);

  // The live segment through the server's file, by descriptor, while the server runs.
  const int fd = ::open(segments.front().c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(cache->IsWalFile(Event(segments.front().string(), ServerPid, fd)), res::Ok) << LastDetail();
  ::close(fd);
  const std::string segment = ReadAll(segments.front());
  ASSERT_EQ(segment.size(), 16u << 20);
  const uint16_t magic = static_cast<uint8_t>(segment[0]) | static_cast<uint8_t>(segment[1]) << 8;
  EXPECT_NE(std::find(KnownMagics.begin(), KnownMagics.end(), magic), KnownMagics.end()) << magic;
  EXPECT_TRUE(host.tracer->Contains("IsWalFile: Magic number candidate: " + std::to_string(magic)));

  // A copy is added for the server's process; damaged copies are refused for the reason given.
  host.applications->AddApplication((bin / "postgres").string(), {u"PostgreSQL"});
  host.processManager->AddProcess(Process(ServerPid, (bin / "postgres").string()));
  EXPECT_EQ(cache->Add(Event(dir.Write("copy", segment))), res::Ok);
  std::string damaged = segment;
  damaged[0] = static_cast<char>(damaged[0] ^ 0xFF);
  EXPECT_EQ(IsWal(damaged), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file: not a magic number");
  damaged = segment;
  damaged[9] = 1;
  damaged[10] = 0;
  EXPECT_EQ(IsWal(damaged), res::False);
  EXPECT_EQ(LastDetail(), std::string(Refused) + "Not a WAL file: wrong incremental number");
}

}  // namespace
