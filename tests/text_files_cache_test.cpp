// The text files cache over real files in a scratch directory, the fake host's format
// recognizer (printable content is text) and its process manager; time is driven by
// hand through the clock override.
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "oas/cache_impl/cache_list.h"
#include "oas/cache_impl/clean_file_info_pid.h"
#include "oas/cache_impl/text_files_cache.h"
#include "testing/check_line.h"
#include "testing/failing_allocation.h"
#include "testing/fake_host.h"
#include "testing/scoped_clock_override.h"

namespace {

using nox::oas::CleanFileInfo;
using nox::oas::CleanFileInfoPid;
using nox::oas::FileId;
using nox::oas::TextFilesCache;
using qeb::testing::FakeHost;
using qeb::testing::ReadFd;
using qeb::testing::ScopedClockOverride;
using qeb::testing::TempDir;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

constexpr uint64_t Dev = 2049;
constexpr uint64_t Ext4 = 0xEF53;

FileId Key(const std::string& path, uint64_t ino, uint64_t dev = Dev) {
  return FileId{ino, dev, std::string_view(path)};
}

ProcessInfo Identity(uint64_t uniqueId) {
  ProcessInfo info;
  info.m_uniqueId = uniqueId;
  return info;
}


class TextFilesCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.processManager->AddProcess(100, 1000);
    host.processManager->AddProcess(200, 2000);
    textPath = dir.Write("notes.txt", "plain words\nand lines\n");
    binaryPath = dir.Write("image.bin", std::string("\x7f" "ELF\0\0\x01", 7));
  }

  vrel::EventParams Event(const std::string& path, uint64_t ino, int32_t pid = 100,
                          int32_t fd = -1) {
    vrel::EventParams event;
    event.fileName = std::string_view(path);
    event.ino = ino;
    event.dev = Dev;
    event.pid = pid;
    event.fd = fd;
    event.fsType = Ext4;
    event.ctime = {1700000000, 5};
    return event;
  }

  std::shared_ptr<CleanFileInfo> Lookup(TextFilesCache& cache, const std::string& path,
                                        uint64_t ino, uint64_t dev = Dev) {
    std::shared_ptr<CleanFileInfo> out;
    cache.Find(Key(path, ino, dev), out);
    return out;
  }

  ScopedClockOverride clock;
  FakeHost host;
  TempDir dir;
  std::string textPath;
  std::string binaryPath;
};

TEST_F(TextFilesCacheTest, AdmitsTextFilesByNameAndRemembersThem) {
  TextFilesCache cache(host.Locator());
  EXPECT_EQ(cache.Add(Event(textPath, 11)), res::Ok);
  EXPECT_EQ(cache.Add(Event(binaryPath, 12)), res::False);
  EXPECT_EQ(cache.Add(Event(dir.Path() + "/missing.txt", 13)), res::False);
  EXPECT_EQ(cache.Size(), 1u);

  const auto entry = Lookup(cache, textPath, 11);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->hitCount, 0u);
  EXPECT_EQ(entry->addedTime, clock.Now());
  EXPECT_EQ(entry->changeTime, 1700000000'000000005);
  EXPECT_TRUE(entry->CheckProcess(Identity(1000)));
  EXPECT_FALSE(Lookup(cache, textPath, 11, Dev + 1)) << "the device is part of the key";
  EXPECT_FALSE(Lookup(cache, binaryPath, 12));

  EXPECT_TRUE(host.tracer->Contains("OASCache: add clean text file " + textPath +
                                    " (ino: 11, dev: 2049)"));
  EXPECT_TRUE(host.tracer->Contains("file:" + textPath + " is text file"));
  EXPECT_TRUE(host.tracer->Contains("file:" + binaryPath + " isn't text file"));
  EXPECT_TRUE(HasCheckLine(
      *host.tracer, "(m_filenameFileFactory->CreateFile(path.c_str(), qeb::io_access_mode::Read, "
      "qeb::io_share_mode::Read, qeb::io_disposition::OpenIfExist, 0, io.Ref())",
      res::FileNotFound, "cannot get io from filename"));

  const auto call = host.fileFactory->LastCreateFile();
  ASSERT_TRUE(call);
  EXPECT_EQ(call->access, qeb::io_access_mode::Read);
  EXPECT_EQ(call->share, qeb::io_share_mode::Read);
  EXPECT_EQ(call->disposition, qeb::io_disposition::OpenIfExist);
  EXPECT_EQ(call->flags, 0u);
  const auto params = host.formatRecognizer->LastParams();
  ASSERT_TRUE(params);
  EXPECT_EQ(params->formats,
            (std::vector<uint32_t>{0xEDC681B2, 0xF9558CA0, 0x3B516E84, 0x50AE7558, 0xC0050694}));
  EXPECT_EQ(params->value64, 0u);
  EXPECT_TRUE(params->flag);
}

TEST_F(TextFilesCacheTest, AnOpenDescriptorIsReadInsteadOfTheName) {
  TextFilesCache cache(host.Locator());
  ReadFd text(textPath);
  ASSERT_GE(text.Get(), 0);
  // The name now points at binary content; the descriptor still holds the text.
  EXPECT_EQ(cache.Add(Event(binaryPath, 21, 100, text.Get())), res::Ok);
  EXPECT_EQ(host.fileFactory->OpenedByFd(), 1u);
  EXPECT_EQ(host.fileFactory->OpenedByName(), 0u);
  EXPECT_TRUE(host.tracer->Contains("fd:" + std::to_string(text.Get()) + " is text file"));
  EXPECT_NE(::fcntl(text.Get(), F_GETFD), -1) << "the caller's descriptor stays open";

  host.fileFactory->FailByFd(res::InvalidHandle);
  EXPECT_EQ(cache.Add(Event(textPath, 22, 100, text.Get())), res::False);
  EXPECT_TRUE(HasCheckLine(*host.tracer, "(m_fdFileFactory->GetIO(event.fd, io.Ref())",
                           res::InvalidHandle, "cannot get io from open fd"));
  EXPECT_EQ(cache.Size(), 1u);
}

TEST_F(TextFilesCacheTest, NetworkFilesystemsAreRefusedBeforeReading) {
  TextFilesCache cache(host.Locator());
  for (const uint64_t fsType : {0x6969ull, 0x517Bull, 0xFE534D42ull, 0xFF534D42ull}) {
    auto event = Event(textPath, 31);
    event.fsType = fsType;
    EXPECT_EQ(cache.Add(event), res::False) << std::hex << fsType;
  }
  EXPECT_EQ(host.formatRecognizer->Recognitions(), 0u);
  EXPECT_EQ(cache.Size(), 0u);

  // Only SMB2 and CIFS differ in that one bit; NFS with it set is some other filesystem.
  auto event = Event(textPath, 32);
  event.fsType = 0x6969 | 0x01000000;
  EXPECT_EQ(cache.Add(event), res::Ok);
}

// Without a recognizer or a way to open files the cache still stands, but admits nothing.
TEST_F(TextFilesCacheTest, MissingHostServicesAdmitNothing) {
  host.formatRecognizer->FailCreate(res::NotSupported);
  {
    TextFilesCache cache(host.Locator());
    EXPECT_TRUE(HasCheckLine(*host.tracer,
                             "(formatRecognizer->CreateIoRecognizer(params, ioRecognizer.Ref())",
                             res::NotSupported, "Cannot create io recognizer"));
    EXPECT_EQ(cache.Add(Event(textPath, 43)), res::False);
    EXPECT_TRUE(host.tracer->Contains("format recognizer isn't available"));
  }
  host.formatRecognizer->FailCreate(res::Ok);
  host.locator->Remove(nox::IFileFactory::IID, vrel::CLSID_FileFactories);
  host.locator->Remove(nox::IFdFileFactory::IID);
  TextFilesCache cache(host.Locator());
  ReadFd text(textPath);
  EXPECT_EQ(cache.Add(Event(textPath, 44)), res::False);
  EXPECT_EQ(cache.Add(Event(textPath, 45, 100, text.Get())), res::False);
  EXPECT_TRUE(host.tracer->Contains("cannot get io from filename"));
  EXPECT_TRUE(host.tracer->Contains("cannot get io from open fd"));
  EXPECT_EQ(cache.Size(), 0u);
}

// Whatever escapes while a file is being recorded, Add answers that it was not recorded.
TEST_F(TextFilesCacheTest, AnExceptionWhileRecordingAnswersNotRecorded) {
  TextFilesCache cache(host.Locator());
  ASSERT_EQ(cache.Add(Event(textPath, 1)), res::Ok);  // every service it asks for is known now
  // The file is text; the process is unknown, quietly; then the entry cannot be made.
  host.tracer->Enable(qeb::trace::LevelError, false);
  host.tracer->OnLine([](std::string_view line) {
    if (line.ends_with(" is text file")) qeb::testing::FailAllocation();
  });
  EXPECT_EQ(cache.Add(Event(textPath, 2, 999)), res::False);
  host.tracer->OnLine(nullptr);
  EXPECT_FALSE(Lookup(cache, textPath, 2));
  EXPECT_EQ(cache.Size(), 1u);
}

TEST_F(TextFilesCacheTest, ReAddingRefreshesTimesAndMergesProcesses) {
  TextFilesCache cache(host.Locator());
  ASSERT_EQ(cache.Add(Event(textPath, 51, 100)), res::Ok);
  const auto first = Lookup(cache, textPath, 51);
  ASSERT_TRUE(first);

  clock.Advance(5'000'000'000);
  auto again = Event(textPath, 51, 200);
  again.ctime = {1700000100, 7};
  ASSERT_EQ(cache.Add(again), res::Ok);
  EXPECT_EQ(cache.Size(), 1u);
  const auto second = Lookup(cache, textPath, 51);
  EXPECT_EQ(second, first) << "one entry per file";
  EXPECT_EQ(second->addedTime, clock.Now());
  EXPECT_EQ(second->changeTime, 1700000100'000000007);
  EXPECT_TRUE(second->CheckProcess(Identity(1000)));
  EXPECT_TRUE(second->CheckProcess(Identity(2000)));
  EXPECT_FALSE(second->CheckProcess(Identity(3000)));

  // An unknown process still refreshes the file but adds no identity.
  clock.Advance(1);
  EXPECT_EQ(cache.Add(Event(textPath, 51, 999)), res::Ok);
  EXPECT_EQ(second->addedTime, clock.Now());
  EXPECT_EQ(static_cast<CleanFileInfoPid&>(*second).ProcessCount(), 2u);
  EXPECT_TRUE(host.tracer->Contains("Cannot get IProcessInformation for pid: 999"));
}

TEST(CleanFileInfoPid, TheHundredAndFirstProcessDropsTheLeastRecentlySeen) {
  CleanFileInfoPid entry;
  for (uint64_t id = 1; id <= 100; ++id) entry.AddProcess(id);
  EXPECT_TRUE(entry.CheckProcess(Identity(1)));  // 1 is now the most recent; 2 the oldest
  entry.AddProcess(2);                           // re-adding also refreshes: 3 the oldest
  entry.AddProcess(101);
  EXPECT_EQ(entry.ProcessCount(), 100u);
  EXPECT_FALSE(entry.CheckProcess(Identity(3)));
  EXPECT_TRUE(entry.CheckProcess(Identity(1)));
  EXPECT_TRUE(entry.CheckProcess(Identity(2)));
  EXPECT_TRUE(entry.CheckProcess(Identity(101)));
}

TEST_F(TextFilesCacheTest, TheLeastRecentlyLookedUpFileIsEvictedAtTheLimit) {
  // A hundred thousand detail lines would say nothing here.
  host.tracer->EnableUpTo(qeb::trace::LevelNotice);
  TextFilesCache cache(host.Locator());
  ReadFd text(textPath);
  ASSERT_GE(text.Get(), 0);
  for (uint64_t ino = 1; ino <= TextFilesCache::MaxFiles; ++ino)
    ASSERT_EQ(cache.Add(Event(textPath, ino, 100, text.Get())), res::Ok) << ino;
  ASSERT_EQ(cache.Size(), TextFilesCache::MaxFiles);

  ASSERT_TRUE(Lookup(cache, textPath, 1));  // the oldest added becomes the most recently used
  ASSERT_EQ(cache.Add(Event(textPath, 100'001, 100, text.Get())), res::Ok);
  EXPECT_EQ(cache.Size(), TextFilesCache::MaxFiles);
  EXPECT_TRUE(Lookup(cache, textPath, 1));
  EXPECT_FALSE(Lookup(cache, textPath, 2));
  EXPECT_TRUE(Lookup(cache, textPath, 100'001));

  // Refreshing a held file is not a new file: nothing is evicted.
  ASSERT_EQ(cache.Add(Event(textPath, 3, 100, text.Get())), res::Ok);
  EXPECT_TRUE(Lookup(cache, textPath, 4));
  EXPECT_EQ(cache.Size(), TextFilesCache::MaxFiles);
}

TEST(BuildCacheList, TheSettingsChooseTheCachesTextFirst) {
  FakeHost host;
  nox::settings::OASSettings settings;
  EXPECT_TRUE(nox::oas::BuildCacheList(host.Locator(), settings).empty());

  settings.skipPlainTextFiles = true;
  auto caches = nox::oas::BuildCacheList(host.Locator(), settings);
  ASSERT_EQ(caches.size(), 1u);
  EXPECT_TRUE(dynamic_cast<TextFilesCache*>(caches[0].get()));

  settings.skipDatabaseJournals = true;
  caches = nox::oas::BuildCacheList(host.Locator(), settings);
  ASSERT_FALSE(caches.empty());
  EXPECT_TRUE(dynamic_cast<TextFilesCache*>(caches[0].get()));

  settings.skipPlainTextFiles = false;
  for (const auto& cache : nox::oas::BuildCacheList(host.Locator(), settings))
    EXPECT_FALSE(dynamic_cast<TextFilesCache*>(cache.get()));
}

}  // namespace
