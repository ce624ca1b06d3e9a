// The journals cache against synthetic segments on disk (every size and header fault the
// recogniser must tell apart), the fake host's process and application services, its
// capacity and a failing insert.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "framework/qeb/exception.h"
#include "framework/qeb/result_text.h"
#include "oas/cache_impl/database_journals_cache.h"
#include "testing/failing_allocation.h"
#include "testing/fake_host.h"
#include "testing/scoped_clock_override.h"

namespace {

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
    EXPECT_EQ(line.rfind("oas/cache_impl/database_journals_cache:", 0), 0u) << line;
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

// The journals cache keeps its own count of files: the one over its capacity evicts the
// file looked up least recently, whatever the text cache holds.
TEST_F(JournalsCacheTest, AtItsCapacityTheLeastRecentlyUsedJournalGoes) {
  host.tracer->EnableUpTo(qeb::trace::LevelNotice);
  const std::string path = dir.Write("segment", Segment(0x6000));
  const qeb::testing::ReadFd file(path);
  const int fd = file.Get();
  ASSERT_GE(fd, 0);
  const auto event = [&](uint64_t ino) {
    vrel::EventParams e = Event(path, ServerPid, fd);
    e.ino = ino;
    return e;
  };
  const auto held = [&](uint64_t ino) {
    std::shared_ptr<nox::oas::CleanFileInfo> out;
    return cache->Find(nox::oas::FileId::FromEvent(event(ino)), out) == res::Ok;
  };
  for (uint64_t ino = 1; ino <= DatabaseJournalsCache::MaxFiles; ++ino)
    ASSERT_EQ(cache->Add(event(ino)), res::Ok) << ino;
  ASSERT_TRUE(held(1));  // the first added becomes the most recently used
  ASSERT_EQ(cache->Add(event(DatabaseJournalsCache::MaxFiles + 1)), res::Ok);
  EXPECT_EQ(cache->Size(), DatabaseJournalsCache::MaxFiles);
  EXPECT_TRUE(held(1));
  EXPECT_FALSE(held(2));
  EXPECT_TRUE(held(DatabaseJournalsCache::MaxFiles + 1));
}

TEST_F(JournalsCacheTest, AFailedInsertIsTracedAndAnswered) {
  const std::string path = dir.Write("segment", Segment(0x6000));
  // The entry is made, then the map cannot take it.
  host.tracer->OnLine([](std::string_view line) {
    if (line == Accepted) qeb::testing::FailAllocation(1);
  });
  EXPECT_EQ(cache->Add(Event(path)), res::Unspecified);
  host.tracer->OnLine(nullptr);
  ExpectCheckLine("m_fileCache.Add(std::move(fileId), std::move(cached))", res::Unspecified,
                  "Cannot add file to OASCache");
  EXPECT_EQ(cache->Size(), 0u);
  EXPECT_EQ(cache->Add(Event(path)), res::Ok) << "nothing half-made was left behind";
}

}  // namespace
