// What the microbenchmarks share: a fake host with one real text file whose descriptor
// every event carries, and a user info cache that forgets its notes. The host owns the
// file's directory and descriptor for its whole life; events only borrow the descriptor.
// Nothing here is timed by itself.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "interfaces/nox/info_caches.h"
#include "interfaces/vrel/event_params.h"
#include "testing/fake_files.h"
#include "testing/fake_host.h"

namespace oas_bench {

// Production hosts trace at error level; every benchmark runs there unless it says otherwise.
constexpr uint32_t ProductionTraceLevel = 300;

// Takes the notes and forgets them: the fake's own note log would grow with every event.
class NullUserInfoCache : public qeb::object::Ifaces<nox::IUserInfoCache> {
 public:
  qeb::result_t NoteEventUser(uint64_t, const std::string&, uint32_t) noexcept override { return 0; }
  qeb::result_t GetFileOwner(uint64_t, const std::string&, nox::UserInfo&) noexcept override {
    return qeb::res::NotFound;
  }
};

// One host and one real text file; every event reads that file through a descriptor, so
// admission to a text cache costs a dup, a short pread and a close but no path lookup.
class TextFileHost {
 public:
  static constexpr uint64_t Dev = 2049;
  static constexpr int32_t Pid = 4242;
  static constexpr uint64_t Identity = 99;

  TextFileHost() {
    host.tracer->EnableUpTo(ProductionTraceLevel);
    host.processManager->AddProcess(static_cast<uint32_t>(Pid), Identity);
    host.formatRecognizer->SetPredicate([](std::string_view) { return true; });
    host.locator->Register<nox::IUserInfoCache>(userInfoCache);
    m_textPath = m_dir.Write("words.txt", "some plain words\n");
    m_fd = ::open(m_textPath.c_str(), O_RDONLY | O_CLOEXEC);
  }
  ~TextFileHost() {
    if (m_fd >= 0) ::close(m_fd);
  }
  TextFileHost(const TextFileHost&) = delete;
  TextFileHost& operator=(const TextFileHost&) = delete;

  // The names differ per file, as they do on a real disk; the cache key compares all of them.
  vrel::EventParams Event(uint64_t ino) const {
    vrel::EventParams event;
    const std::string name =
        "/srv/data/dir" + std::to_string(ino % 97) + "/file" + std::to_string(ino);
    event.fileName = std::string_view(name);
    event.ino = ino;
    event.dev = Dev;
    event.pid = Pid;
    event.fd = m_fd;
    event.fsType = 0xEF53;
    event.ctime = {1700000000, 5};
    event.oper = vrel::VREL_ACTION_OPEN;
    event.replyHandle = 1;
    return event;
  }

  qeb::testing::FakeHost host;
  qeb::objptr_t<NullUserInfoCache> userInfoCache =
      qeb::testing::MakeHostObject<NullUserInfoCache>();

 private:
  qeb::testing::TempDir m_dir;
  std::string m_textPath;
  int m_fd = -1;
};

}  // namespace oas_bench
