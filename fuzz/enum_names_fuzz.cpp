// Fuzzes the enumeration conversions: any text through StringToEnum and any number through
// EnumToString, for every registered enumeration, and the bool forms. Whatever converts
// must convert back to where it came from; what does not must throw the documented
// std::runtime_error. Stateless (the registry is the library's own).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "framework/enums/enum_names.h"

namespace {

namespace enums = nox::enums;

template <enums::RegisteredEnum T>
void TextRoundTrip(const std::string& text) {
  try {
    const T value = enums::StringToEnum<T>(text);
    if (enums::EnumToString(value) != text) std::abort();
  } catch (const std::runtime_error&) {
  }
}

template <enums::RegisteredEnum T>
void ValueRoundTrip(uint32_t number) {
  try {
    const std::string_view name = enums::EnumToString(static_cast<T>(number));
    if (static_cast<uint32_t>(enums::StringToEnum<T>(name)) != number) std::abort();
  } catch (const std::runtime_error&) {
  }
}

template <enums::RegisteredEnum T>
void BothWays(const std::string& text, uint32_t number) {
  TextRoundTrip<T>(text);
  ValueRoundTrip<T>(number);
}

void BoolRoundTrip(const std::string& text) {
  try {
    if (enums::BoolToString(enums::StringToBool(text)) != text) std::abort();
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const uint32_t number = in.ConsumeIntegral<uint32_t>();
  const std::string text = in.ConsumeRemainingBytesAsString();
  BothWays<enums::Access::Type>(text, number);
  BothWays<enums::ActionOnThreat::Type>(text, number);
  BothWays<enums::Boolean::Type>(text, number);
  BothWays<enums::ExtensionFilter::Type>(text, number);
  BothWays<enums::FilesystemName::Type>(text, number);
  BothWays<enums::HeuristicLevel::Type>(text, number);
  BothWays<enums::TraceLevel::Type>(text, number);
  BoolRoundTrip(text);
  return 0;
}
