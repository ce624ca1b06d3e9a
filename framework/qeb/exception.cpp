// The exception family's constructors and texts, and the conversion of a caught
// exception into a result code at an interface boundary. Exceptions own copies of
// everything they print; the conversion owns nothing and hands the description to
// the caller's text or to the tracer, swallowing any failure while doing so.
#include "framework/qeb/exception.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <typeinfo>

#include "framework/qeb/utf.h"
#include "nox_tracing/tracing.h"

namespace qeb {
namespace {

template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

void AppendHex(std::string& out, const char* sign, uint64_t value, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s0x%0*llx", sign, digits,
                static_cast<unsigned long long>(value));
  out += buf;
}

void AppendValue(std::string& out, const PropertyValue& value) {
  std::visit(Overloaded{
                 [&](const std::string& v) { out += v; },
                 [&](const std::u16string& v) { AppendUtf16AsUtf8(out, v); },
                 [&](int32_t v) { AppendHex(out, "", static_cast<uint32_t>(v), 8); },
                 [&](uint32_t v) { AppendHex(out, "", v, 8); },
                 [&](int64_t v) {
                   // The magnitude is taken unsigned so that the most negative value survives.
                   const auto bits = static_cast<uint64_t>(v);
                   if (v < 0) AppendHex(out, "-", 0 - bits, 16);
                   else AppendHex(out, "", bits, 16);
                 },
                 [&](uint64_t v) { AppendHex(out, "", v, 16); },
                 [&](const OpaqueValue& v) {
                   out += "<typeid=";
                   out += std::to_string(v.typeTag);
                   out += '>';
                 },
             },
             value);
}

void AppendProperties(std::string& out, const PropertyBag& props) {
  if (props.Empty()) {
    out += ' ';
    return;
  }
  out += " Properties:";
  for (const Property& p : props) {
    out += '\n';
    out += p.name;
    out += '=';
    AppendValue(out, p.value);
  }
  out += '\n';
}

// message + "." + properties + call stack; the location is written by the caller.
std::string DescribeBody(std::string out, std::string_view message, const PropertyBag& props,
                         const std::vector<void*>& stack) {
  out += message;
  out += '.';
  AppendProperties(out, props);
  out += "Call stack:\n";
  out += FormatCallStack(stack);
  return out;
}

const PropertyBag& EmptyBag() noexcept {
  static const PropertyBag bag;
  return bag;
}

}  // namespace

uint32_t Property::TypeTag() const noexcept {
  return std::visit(Overloaded{
                        [](const std::string&) { return uint32_t(PropertyType::Text); },
                        [](const std::u16string&) { return uint32_t(PropertyType::WideText); },
                        [](int32_t) { return uint32_t(PropertyType::Int32); },
                        [](uint32_t) { return uint32_t(PropertyType::UInt32); },
                        [](int64_t) { return uint32_t(PropertyType::Int64); },
                        [](uint64_t) { return uint32_t(PropertyType::UInt64); },
                        [](const OpaqueValue& v) { return v.typeTag; },
                    },
                    value);
}

void PropertyBag::Set(std::string_view name, PropertyValue value) {
  name = name.substr(0, Property::MaxNameLength);
  for (Property& p : m_props) {
    if (p.name == name) {
      p.value = std::move(value);
      return;
    }
  }
  m_props.push_back({std::string(name), std::move(value)});
}

const Property* PropertyBag::Find(std::string_view name) const noexcept {
  for (const Property& p : m_props)
    if (p.name == name) return &p;
  return nullptr;
}

const PropertyBag& exception::Properties() const noexcept { return EmptyBag(); }

const char* exception::what() const noexcept {
  const char* text = Text();
  return text ? text : "Unknown exception";
}

std::string exception::Description() const {
  // No source position is known at this level of the family.
  return DescribeBody({}, what(), Properties(), {});
}

std::string_view SourceName(const char* file) noexcept {
  if (!file) return "(null)";
  std::string_view path(file);
  // A build that names sources relative to its own directory adds leading "../".
  while (path.starts_with("../")) path.remove_prefix(3);
  const size_t dot = path.rfind('.');
  const size_t slash = path.rfind('/');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return path;
  return path.substr(0, dot);
}

Exception::Exception(const char* file, unsigned line, std::string message)
    : m_file(SourceName(file)),
      m_line(line),
      m_message(std::move(message)),
      m_stack(CaptureCallStack(2)) {}

std::string Exception::Description() const {
  std::string location = m_file;
  location += '(';
  location += std::to_string(m_line);
  location += "): ";
  return DescribeBody(std::move(location), m_message, m_props, m_stack);
}

ResultCodeException::ResultCodeException(const char* file, unsigned line, std::string message,
                                         result_t code)
    : ExceptionBase(file, line, std::move(message)), m_code(code) {
  MutableProperties().Set(kPropResult, int32_t{code});
}

CheckResultFailedException::CheckResultFailedException(const char* file, unsigned line,
                                                       result_t code, const char* expression,
                                                       std::string_view text)
    : ExceptionBase(file, line, "Expression failed", code) {
  if (expression) MutableProperties().Set(kPropExpression, std::string(expression));
  if (!text.empty()) MutableProperties().Set(kPropText, std::string(text));
}

GetInterfaceException::GetInterfaceException(iid_t iid, uint32_t serviceKey, result_t code)
    : m_code(code) {
  m_props.Set(kPropIid, uint32_t{iid});
  m_props.Set(kPropServiceKey, uint32_t{serviceKey});
  m_props.Set(kPropResult, int32_t{code});
}

namespace {

result_t FailureOnly(result_t r) noexcept { return QEB_FAILED(r) ? r : res::ExceptionWithSuccess; }

result_t ErrnoToResult(uint32_t e) noexcept {
  switch (e) {
    case 0: return res::ExceptionWithSuccess;
    case EPERM: return res::AccessDenied;
    case ENOENT: return res::FileNotFound;
    case EIO: return res::MediaError;
    case ENOEXEC: return res::BadImageFormat;
    case EBADF: return res::InvalidHandle;
    case ENOMEM: return res::OutOfMemory;
    case EACCES: return res::AccessDenied;
    case EBUSY: return res::Locked;
    case EEXIST: return res::AlreadyExists;
    case ENOTDIR: return res::PathNotFound;
    case EINVAL: return res::InvalidArgument;
    case ETXTBSY: return res::Locked;
    case EFBIG: return res::FileTooBig;
    case ENOSPC: return res::OutOfSpace;
    case ENAMETOOLONG: return res::InvalidSize;
    case ELOOP: return res::InvalidState;
    case EOVERFLOW: return res::BufferTooSmall;
    case 65535: return res::SymbolNotFound;
    default: break;
  }
  if (e > 65535) return res::PlatformUnspecified;
  return static_cast<result_t>(static_cast<uint32_t>(res::ErrnoFacilityBase) | e);
}

// A family member without a code of its own: its properties decide, then its own query.
result_t ResultFromProperties(const exception& e) noexcept {
  const PropertyBag& props = e.Properties();
  if (const Property* p = props.Find(kPropResult)) {
    if (const auto* v = std::get_if<int32_t>(&p->value)) return FailureOnly(*v);
  }
  if (const Property* p = props.Find(kPropOsResult)) {
    if (const auto* v = std::get_if<uint32_t>(&p->value)) return ErrnoToResult(*v);
  }
  return FailureOnly(e.Result());
}

void WriteDescription(const exception& e, std::string* text) noexcept {
  if (!text) return;
  try {
    *text = e.Description();
  } catch (...) {
    // The code still reaches the boundary even when its description cannot be built.
  }
}

void WriteText(const char* s, std::string* text) noexcept {
  if (!text) return;
  try {
    *text = s ? s : "(null)";
  } catch (...) {
  }
}

}  // namespace

result_t ExceptionToResult(std::exception_ptr e, std::string* text) noexcept {
  if (!e) return res::NoCurrentException;
  try {
    std::rethrow_exception(e);
  } catch (const ResultCodeException& x) {
    WriteDescription(x, text);
    return FailureOnly(x.Code());
  } catch (const Exception& x) {
    WriteDescription(x, text);
    return res::ExceptionWithoutResult;
  } catch (const exception& x) {
    WriteDescription(x, text);
    return ResultFromProperties(x);
  } catch (const std::bad_alloc&) {
    return res::OutOfMemory;
  } catch (const std::bad_cast&) {
    return res::BadCast;
  } catch (const std::length_error&) {
    return res::InvalidSize;
  } catch (const std::out_of_range&) {
    return res::OutOfRange;
  } catch (const std::invalid_argument& x) {
    WriteText(x.what(), text);
    return res::InvalidArgument;
  } catch (const std::exception& x) {
    WriteText(x.what(), text);
    return res::ExceptionWithoutResult;
  } catch (...) {
    WriteText("unknown exception", text);
    return res::UnknownException;
  }
}

result_t CurrentExceptionToResult(std::string* text) noexcept {
  return ExceptionToResult(std::current_exception(), text);
}

result_t TraceCurrentException(ITracer* tracer) noexcept {
  std::string text;
  const result_t r = CurrentExceptionToResult(tracer ? &text : nullptr);
  // Exceptions that write no text of their own are still reported by their code.
  if (text.empty()) {
    QEB_TRACE(tracer, trace::LevelError) << trace::AsResult(r);
  } else {
    QEB_TRACE(tracer, trace::LevelError) << text;
  }
  return r;
}

}  // namespace qeb
