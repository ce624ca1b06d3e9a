// The capturing tracer the fuzz targets write their trace lines into: one for the whole
// run, so an input costs no host object of its own. Each target empties it after every
// input, or the lines of a long run would pile up.
#pragma once

#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace oas_fuzz {

inline qeb::testing::CapturingTracer& Tracer() {
  static const auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  return *tracer;
}

}  // namespace oas_fuzz
