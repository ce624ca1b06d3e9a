// The libmagic format recognizer and the host's file factories, over real files: what
// counts as text, io objects by name and over a borrowed descriptor, and the refusal to
// open by name on a fanotify reader thread.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/engine/file_factories.h"
#include "host/engine/format_recognizer.h"
#include "host/common/reader_thread.h"
#include "testing/capturing_tracer.h"
#include "testing/fake_files.h"
#include "testing/host_object.h"

namespace {

using namespace qeb::testing;
namespace res = qeb::res;

constexpr uint32_t kTextFormat = 0xEDC681B2;

class HostFilesTest : public ::testing::Test {
 protected:
  qeb::objptr_t<qeb::ITracer> Tracer() const { return qeb::objptr_t<qeb::ITracer>(tracer.Get()); }

  qeb::objptr_t<qeb::IIO> OpenByName(const std::string& path, qeb::result_t* result = nullptr) {
    qeb::objptr_t<qeb::IIO> io;
    const qeb::result_t r =
        factories->CreateFile(path.c_str(), qeb::io_access_mode::Read, qeb::io_share_mode::Read,
                              qeb::io_disposition::OpenIfExist, 0, io.Ref());
    if (result) *result = r;
    return io;
  }
  qeb::objptr_t<nox::IIoRecognizer> MakeRecognizer(std::vector<uint32_t> formats) {
    qeb::objptr_t<nox::IIoRecognizer> recognizer;
    EXPECT_EQ(recognizer_->CreateIoRecognizer({std::move(formats), 0, true}, recognizer.Ref()),
              res::Ok);
    return recognizer;
  }
  qeb::result_t Recognize(nox::IIoRecognizer* recognizer, const std::string& path) {
    const auto io = OpenByName(path);
    return io ? recognizer->Recognize(io.Get()) : res::FileNotFound;
  }

  TempDir dir;
  qeb::objptr_t<CapturingTracer> tracer = MakeHostObject<CapturingTracer>();
  qeb::objptr_t<oasd::FileFactories> factories = MakeHostObject<oasd::FileFactories>(Tracer());
  qeb::objptr_t<oasd::FormatRecognizer> recognizer_ =
      MakeHostObject<oasd::FormatRecognizer>(Tracer());
};

TEST_F(HostFilesTest, RecognizesTextButNotBinariesOrEmptyFiles) {
  ASSERT_EQ(recognizer_->SetUp(), res::Ok);
  const auto text = MakeRecognizer({0x12345678, kTextFormat});
  EXPECT_EQ(Recognize(text.Get(), dir.Write("notes.txt", "plain words\nand more words\n")),
            res::Ok);
  EXPECT_EQ(Recognize(text.Get(), dir.Write("run.sh", "#!/bin/sh\necho hi\n")), res::Ok);
  EXPECT_EQ(Recognize(text.Get(), "/proc/self/exe"), res::False);
  EXPECT_EQ(Recognize(text.Get(), dir.Write("zeros.bin", std::string(64, '\0'))), res::False);
  EXPECT_EQ(Recognize(text.Get(), dir.Write("empty", "")), res::False);

  // Made for formats other than text, a recognizer never claims a match.
  const auto other = MakeRecognizer({0x12345678});
  EXPECT_EQ(Recognize(other.Get(), dir.Write("more.txt", "words\n")), res::False);
}

// Text is decided by encoding: markup, data and scripts are text whatever their MIME name,
// wide text counts behind a byte-order mark, and a control byte that text never holds makes
// a file binary even when it starts like a script.
TEST_F(HostFilesTest, TextMeansTextByEncodingWhateverItSays) {
  ASSERT_EQ(recognizer_->SetUp(), res::Ok);
  const auto text = MakeRecognizer({kTextFormat});
  struct Case {
    const char* name;
    std::string content;
    qeb::result_t expected;
  };
  const Case cases[] = {
      {"data.json", "{\"a\": [1, 2], \"b\": \"c\"}\n", res::Ok},
      {"image.svg", "<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"/>\n",
       res::Ok},
      {"page.html", "<!DOCTYPE html>\n<html><body>hi</body></html>\n", res::Ok},
      {"tool.py", "#!/usr/bin/env python3\nprint('hi')\n", res::Ok},
      {"latin1.txt", "caf\xE9 cr\xE8me\n", res::Ok},
      {"utf8.txt", "caf\xC3\xA9\n", res::Ok},
      {"controls.txt", "tab\there\r\n\x1B[1mbold\x1B[0m\fpage\n", res::Ok},
      {"utf16.txt", std::string("\xFF\xFEh\0i\0\n\0", 8), res::Ok},
      {"utf16-no-mark.txt", std::string("h\0i\0\n\0", 6), res::False},
      {"installer.sh", std::string("#!/bin/sh\nexit 0\n\x1F\x8B\x08\0\0\0", 23), res::False},
      {"soh.txt", "words\x01more words\n", res::False},
      {"del.txt", "words\x7Fmore words\n", res::False},
  };
  for (const Case& c : cases)
    EXPECT_EQ(Recognize(text.Get(), dir.Write(c.name, c.content)), c.expected) << c.name;
}

TEST_F(HostFilesTest, RecognizersMayRunOnManyThreadsAtOnce) {
  const auto text = MakeRecognizer({kTextFormat});
  const std::string file = dir.Write("notes.txt", "plain words\n");
  std::vector<std::thread> threads;
  std::vector<int> matches(4, 0);
  for (size_t t = 0; t < matches.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) matches[t] += Recognize(text.Get(), file) == res::Ok;
    });
  for (auto& thread : threads) thread.join();
  for (int m : matches) EXPECT_EQ(m, 25);
}

TEST_F(HostFilesTest, IoOverABorrowedDescriptorReadsByPositionAndNeverClosesIt) {
  const std::string file = dir.Write("data", "0123456789");
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  {
    qeb::objptr_t<qeb::IIO> io;
    ASSERT_EQ(factories->GetIO(fd, io.Ref()), res::Ok);
    char buffer[16] = {};
    uint32_t read = 0;
    ASSERT_EQ(io->Seek(4), res::Ok);
    ASSERT_EQ(io->Read(buffer, 3, read), res::Ok);
    EXPECT_EQ(std::string(buffer, read), "456");
    ASSERT_EQ(io->Read(buffer, sizeof buffer, read), res::Ok);
    EXPECT_EQ(std::string(buffer, read), "789");
    ASSERT_EQ(io->Read(buffer, sizeof buffer, read), res::Ok);
    EXPECT_EQ(read, 0u);
  }
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 0);  // the descriptor's own offset never moved
  EXPECT_GE(::fcntl(fd, F_GETFD), 0);
  ::close(fd);

  qeb::objptr_t<qeb::IIO> io;
  EXPECT_EQ(factories->GetIO(fd, io.Ref()), res::InvalidHandle);
}

TEST_F(HostFilesTest, OpensByNameExceptOnAFanotifyReaderThread) {
  const std::string file = dir.Write("data", "abc");
  qeb::result_t r = res::Ok;
  EXPECT_TRUE(OpenByName(file, &r));
  EXPECT_FALSE(OpenByName(dir.Path() + "/missing", &r));
  EXPECT_EQ(r, res::FileNotFound);

  std::thread reader([&] {
    oasd::MarkFanotifyReaderThread();
    EXPECT_FALSE(OpenByName(file, &r));
  });
  reader.join();
  EXPECT_TRUE(QEB_FAILED(r));
}

}  // namespace
