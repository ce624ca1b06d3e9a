// The host's format recognizer on libmagic: its io recognizers read the head of a file
// through the io object they are given, settle binary heads with a byte check and ask
// libmagic about the rest; text in any encoding libmagic knows is text. It owns a pool of
// magic handles (one serves one thread at a time), shared with every io recognizer it
// created, so they may outlive it.
#pragma once

#include <cstdint>
#include <memory>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "interfaces/nox/files.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

class MagicPool;

class FormatRecognizer : public qeb::object::Ifaces<nox::IFormatRecognizer> {
 public:
  // Bytes read from the start of a file to judge it.
  static constexpr uint32_t HeadSize = 8192;

  explicit FormatRecognizer(qeb::objptr_t<qeb::ITracer> tracer);
  ~FormatRecognizer();

  // Loads the magic database once, so a broken installation shows at start-up.
  qeb::result_t SetUp();

  // Recognizers asked for any of the plain-text formats answer 0 for text; for any other
  // format set they answer 1.
  qeb::result_t CreateIoRecognizer(const nox::IoRecognizerParams& params,
                                   nox::IIoRecognizer** recognizer) noexcept override;

 private:
  qeb::objptr_t<qeb::ITracer> m_tracer;
  std::shared_ptr<MagicPool> m_pool;
};

}  // namespace oasd
