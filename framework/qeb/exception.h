// The exception family that carries errors inside the module, and the conversion
// back to result codes at every interface boundary. Exceptions own their texts,
// property bags and captured call stacks; nothing here holds global state (the module
// list used to resolve call-stack addresses is read afresh for each description).
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "interfaces/qeb/object.h"
#include "interfaces/qeb/result.h"

namespace qeb {

struct ITracer;

// Type tags of property values, as the description formatter knows them.
enum class PropertyType : uint32_t {
  Text = 7,
  WideText = 8,
  Int32 = 20,
  UInt32 = 21,
  Int64 = 22,
  UInt64 = 23,
};

// A value of a type the formatter has no form for; it prints as its tag.
struct OpaqueValue {
  uint32_t typeTag;
};

using PropertyValue =
    std::variant<std::string, std::u16string, int32_t, uint32_t, int64_t, uint64_t, OpaqueValue>;

struct Property {
  static constexpr size_t MaxNameLength = 31;
  std::string name;  // cut to MaxNameLength characters
  PropertyValue value;

  uint32_t TypeTag() const noexcept;
};

class PropertyBag {
 public:
  // Replaces a property of the same name, else appends.
  void Set(std::string_view name, PropertyValue value);
  const Property* Find(std::string_view name) const noexcept;
  bool Empty() const noexcept { return m_props.empty(); }
  size_t Size() const noexcept { return m_props.size(); }
  auto begin() const noexcept { return m_props.begin(); }
  auto end() const noexcept { return m_props.end(); }

 private:
  std::vector<Property> m_props;
};

// Standard property names.
inline constexpr std::string_view kPropResult = "qeb.result";
inline constexpr std::string_view kPropOsResult = "os.result";
inline constexpr std::string_view kPropIid = "qeb.iid";
inline constexpr std::string_view kPropServiceKey = "qeb.serviceKey";
inline constexpr std::string_view kPropExpression = "qeb.expression";
inline constexpr std::string_view kPropText = "qeb.text";

// Root of the family.
class exception : public std::exception {
 public:
  // The exception's own text; null when it has none.
  virtual const char* Text() const noexcept { return nullptr; }
  virtual const PropertyBag& Properties() const noexcept;
  // The object's own result query, used when no property names a result.
  virtual result_t Result() const noexcept { return res::Unexpected; }
  // The text written into traces; may allocate.
  virtual std::string Description() const;
  [[noreturn]] virtual void Rethrow() const = 0;

  const char* what() const noexcept override;
};

// A source file as positions name it: its path in the tree without the extension
// (oas/file_interceptor), the same whether it came from __FILE__ or a fixed text.
std::string_view SourceName(const char* file) noexcept;

// Source position, message, typed properties and the call stack at the throw.
class Exception : public exception {
 public:
  Exception(const char* file, unsigned line, std::string message);

  const char* Text() const noexcept override { return m_message.c_str(); }
  const PropertyBag& Properties() const noexcept override { return m_props; }
  std::string Description() const override;
  [[noreturn]] void Rethrow() const override { throw *this; }

  const std::string& File() const noexcept { return m_file; }
  unsigned Line() const noexcept { return m_line; }
  const std::string& Message() const noexcept { return m_message; }
  const std::vector<void*>& CallStack() const noexcept { return m_stack; }
  PropertyBag& MutableProperties() noexcept { return m_props; }

 private:
  std::string m_file;
  unsigned m_line;
  std::string m_message;
  PropertyBag m_props;
  std::vector<void*> m_stack;
};

// Gives each concrete class its rethrow support while deriving from Base.
template <class Derived, class Base>
class ExceptionBase : public Base {
 public:
  using Base::Base;
  [[noreturn]] void Rethrow() const override { throw static_cast<const Derived&>(*this); }
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  ResultCodeException(const char* file, unsigned line, std::string message, result_t code);
  result_t Code() const noexcept { return m_code; }
  result_t Result() const noexcept override { return m_code; }

 private:
  result_t m_code;
};

class SystemException : public ExceptionBase<SystemException, ResultCodeException> {
 public:
  using ExceptionBase::ExceptionBase;
};

// A checked call failed. The expression and the caller's sentence travel as properties.
class CheckResultFailedException
    : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
 public:
  CheckResultFailedException(const char* file, unsigned line, result_t code,
                             const char* expression = nullptr, std::string_view text = {});
};

// The service locator could not supply a required interface.
class GetInterfaceException : public exception {
 public:
  GetInterfaceException(iid_t iid, uint32_t serviceKey, result_t code);

  const char* Text() const noexcept override { return "Can't get interface"; }
  const PropertyBag& Properties() const noexcept override { return m_props; }
  result_t Result() const noexcept override { return m_code; }
  [[noreturn]] void Rethrow() const override { throw *this; }

 private:
  PropertyBag m_props;
  result_t m_code;
};

// Converts a caught exception into a result code that is always negative. When text
// is given, the exception's description is written into it. Never throws.
result_t ExceptionToResult(std::exception_ptr e, std::string* text = nullptr) noexcept;
result_t CurrentExceptionToResult(std::string* text = nullptr) noexcept;

// The boundary routine: converts the current exception and writes its description
// to the tracer at error level. Never throws.
result_t TraceCurrentException(ITracer* tracer) noexcept;

// Multi-line call-stack text: one line per frame, resolved against the loaded modules.
std::string FormatCallStack(const std::vector<void*>& frames);
std::vector<void*> CaptureCallStack(unsigned skip = 1);

}  // namespace qeb

// Throws CheckResultFailedException when a call fails; text is the caller's sentence.
#define QEB_CHECK_THROW(expr, text)                                                  \
  do {                                                                               \
    const ::qeb::result_t qeb_check_result_ = (expr);                                \
    if (QEB_FAILED(qeb_check_result_))                                               \
      throw ::qeb::CheckResultFailedException(__FILE__, __LINE__, qeb_check_result_, \
                                              #expr, (text));                        \
  } while (0)
