// Text forms of values inside trace lines beyond what the line writer knows itself:
// scientific floats, width and precision, the untyped value holder and property bags.
// Stateless; every operator writes into the caller's Line and never throws.
#pragma once

#include "framework/qeb/exception.h"
#include "nox_tracing/tracing.h"

namespace qeb::trace {

// A floating value in the "%*.*e" form; plain doubles use "%*.*f".
struct Scientific {
  double value;
};

// Width and precision for the floating values that follow.
struct Width {
  int value;
};
struct Precision {
  int value;
};

// A value holder that carries no type: only its holder name can be printed.
struct UntypedValueHolder {};

Line& operator<<(Line& line, Scientific v) noexcept;
Line& operator<<(Line& line, Width w) noexcept;
Line& operator<<(Line& line, Precision p) noexcept;
Line& operator<<(Line& line, UntypedValueHolder) noexcept;

// {"name":value, "name2":value}; an empty bag prints "{}".
Line& operator<<(Line& line, const PropertyBag& bag) noexcept;
// The same text, for callers that assemble it before tracing.
std::string PropertyBagText(const PropertyBag& bag);

}  // namespace qeb::trace
