// Records for the fuzz targets, decoded from the fuzzer's bytes: a file event record whose
// every field (strings of any content and length, padding, out-of-range operations) comes
// from the input, and the wide texts of other records. Stateless; each call returns a
// fresh value the caller owns.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "interfaces/vrel/event_params.h"

namespace oas_fuzz {

inline qeb::basic_string_t ConsumeBasicString(FuzzedDataProvider& in) {
  // The null string is a state of its own, printed and compared differently from "".
  if (in.ConsumeBool()) return {};
  return qeb::basic_string_t(in.ConsumeRandomLengthString());
}

// Any UTF-16 units, unpaired surrogates included, up to maxLength of them.
inline std::u16string ConsumeWide(FuzzedDataProvider& in, size_t maxLength) {
  std::u16string wide(in.ConsumeIntegralInRange<size_t>(0, maxLength), u'\0');
  for (char16_t& c : wide) c = in.ConsumeIntegral<char16_t>();
  return wide;
}

inline vrel::Timespec ConsumeTimespec(FuzzedDataProvider& in) {
  return {in.ConsumeIntegral<int64_t>(), in.ConsumeIntegral<int64_t>()};
}

inline void ConsumePadding(FuzzedDataProvider& in, uint8_t* pad, size_t size) {
  for (size_t i = 0; i < size; ++i) pad[i] = in.ConsumeIntegral<uint8_t>();
}

// Every field in declaration order; the operation is mostly a known one so that the
// paths behind each operation are reached, but any value may come.
inline vrel::EventParams ConsumeEventParams(FuzzedDataProvider& in) {
  vrel::EventParams p;
  p.fileName = ConsumeBasicString(in);
  p.cookie = in.ConsumeIntegral<uint64_t>();
  p.uid = in.ConsumeIntegral<uint32_t>();
  p.flag60 = in.ConsumeIntegral<uint8_t>();
  ConsumePadding(in, p.pad61, sizeof p.pad61);
  p.pid = in.ConsumeIntegral<int32_t>();
  p.fd = in.ConsumeIntegral<int32_t>();
  p.nsid = in.ConsumeIntegral<uint64_t>();
  p.dev = in.ConsumeIntegral<uint64_t>();
  p.ino = in.ConsumeIntegral<uint64_t>();
  p.value96 = in.ConsumeIntegral<uint32_t>();
  ConsumePadding(in, p.pad100, sizeof p.pad100);
  p.value104 = in.ConsumeIntegral<uint64_t>();
  p.value112 = in.ConsumeIntegral<uint32_t>();
  ConsumePadding(in, p.pad116, sizeof p.pad116);
  p.fsType = in.ConsumeIntegral<uint64_t>();
  p.mtime = ConsumeTimespec(in);
  p.ctime = ConsumeTimespec(in);
  p.oper = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(vrel::VREL_ACTION_NONE,
                                                                  vrel::VREL_ACTION_ACCESS)
                            : in.ConsumeIntegral<uint32_t>();
  p.queue_id = in.ConsumeIntegral<uint16_t>();
  p.flag166 = in.ConsumeIntegral<uint8_t>();
  p.pad167 = in.ConsumeIntegral<uint8_t>();
  p.replyHandle = in.ConsumeIntegral<uint64_t>();
  p.value176 = in.ConsumeIntegral<uint32_t>();
  p.flag180 = in.ConsumeIntegral<uint8_t>();
  ConsumePadding(in, p.pad181, sizeof p.pad181);
  p.text184 = in.ConsumeRandomLengthString();
  p.value216 = in.ConsumeIntegral<uint64_t>();
  p.upid = in.ConsumeIntegral<uint64_t>();
  p.text232 = ConsumeBasicString(in);
  return p;
}

}  // namespace oas_fuzz
