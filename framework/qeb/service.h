// Obtaining required host services: a lookup that cannot be satisfied becomes an
// exception, so constructors can fetch everything they need in a straight line.
#pragma once

#include <string_view>

#include "framework/qeb/exception.h"
#include "framework/qeb/objptr.h"

namespace qeb {

// Throws GetInterfaceException ("Can't get interface") when the service is missing.
template <class T>
objptr_t<T> RequireInterface(IServiceLocator* sl, uint32_t serviceKey = 0) {
  objptr_t<T> service;
  const result_t r = GetInterface(sl, serviceKey, service.Ref());
  if (QEB_FAILED(r) || !service) throw GetInterfaceException(T::IID, serviceKey, r);
  return service;
}

// Throws CheckResultFailedException carrying the caller's sentence when the service is missing.
template <class T>
objptr_t<T> RequireInterface(IServiceLocator* sl, uint32_t serviceKey, std::string_view sentence,
                             const char* file, unsigned line, const char* expression) {
  objptr_t<T> service;
  result_t r = GetInterface(sl, serviceKey, service.Ref());
  if (QEB_SUCCEEDED(r) && !service) r = res::NoInterface;
  if (QEB_FAILED(r)) throw CheckResultFailedException(file, line, r, expression, sentence);
  return service;
}

}  // namespace qeb

// REQUIRE_SERVICE(T, sl, "Cannot get T interface"): the checked form, with this source position.
#define QEB_REQUIRE_SERVICE(T, sl, sentence) \
  ::qeb::RequireInterface<T>((sl), 0, (sentence), __FILE__, __LINE__, "qeb::GetInterface(" #sl ")")
#define QEB_REQUIRE_KEYED_SERVICE(T, sl, key, sentence)                                \
  ::qeb::RequireInterface<T>((sl), (key), (sentence), __FILE__, __LINE__,              \
                             "qeb::GetInterface(" #sl ", " #key ")")
