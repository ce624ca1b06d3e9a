// The exception family at an interface boundary: conversion to result codes (error
// numbers, codes that are not failures, standard and foreign exceptions), the traced
// description with its properties, and the POSIX time range checks.
#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <typeinfo>

#include "framework/qeb/datetime.h"
#include "framework/qeb/exception.h"
#include "testing/capturing_tracer.h"
#include "testing/host_object.h"

namespace {

using qeb::result_t;
using qeb::MakeResult;

// A family member that is not a qeb::Exception, with a bag and own result the test sets.
class BagException : public qeb::exception {
 public:
  qeb::PropertyBag bag;
  result_t own = qeb::res::Unexpected;
  const char* text = nullptr;
  bool failDescription = false;

  const char* Text() const noexcept override { return text; }
  const qeb::PropertyBag& Properties() const noexcept override { return bag; }
  result_t Result() const noexcept override { return own; }
  std::string Description() const override {
    if (failDescription) throw std::runtime_error("cannot describe");
    return qeb::exception::Description();
  }
  [[noreturn]] void Rethrow() const override { throw *this; }
};

template <class E>
result_t Convert(const E& e, std::string* text = nullptr) {
  return qeb::ExceptionToResult(std::make_exception_ptr(e), text);
}

BagException WithErrno(uint32_t e) {
  BagException x;
  x.bag.Set(qeb::kPropOsResult, e);
  return x;
}

// Everything before the call stack, the part of a description that is stable.
std::string Head(const std::string& description) {
  return description.substr(0, description.find("Call stack:\n") + 12);
}

TEST(ExceptionToResult, ErrorNumbersMapToResults) {
  const std::pair<uint32_t, uint32_t> map[] = {
      {0, 0x80000152},     {EPERM, 0x80000045},  {ENOENT, 0x80010102},
      {ESRCH, 0x80060003}, {EIO, 0x80000059},    {ENOEXEC, 0x80010117},
      {EBADF, 0x80010101}, {ENOMEM, 0x80000041}, {EACCES, 0x80000045},
      {EBUSY, 0x8000004F}, {EEXIST, 0x80010105}, {ENOTDIR, 0x80010103},
      {EINVAL, 0x80000046}, {ETXTBSY, 0x8000004F}, {EFBIG, 0x80000078},
      {ENOSPC, 0x80000062}, {ENAMETOOLONG, 0x8000005C}, {ELOOP, 0x8000006A},
      {EOVERFLOW, 0x80000044}, {65534, 0x8006FFFE}, {65535, 0x80010107},
      {65536, 0x80010100}, {70000, 0x80010100}, {UINT32_MAX, 0x80010100}};
  for (auto [e, expected] : map) EXPECT_EQ(Convert(WithErrno(e)), MakeResult(expected)) << e;
}

TEST(ExceptionToResult, PropertyBagDecidesForFamilyMembersWithoutCode) {
  BagException x = WithErrno(ENOENT);
  x.bag.Set(qeb::kPropResult, int32_t{qeb::res::NotReady});
  EXPECT_EQ(Convert(x), qeb::res::NotReady);  // "qeb.result" wins over "os.result"
  x.bag.Set(qeb::kPropResult, int32_t{5});
  EXPECT_EQ(Convert(x), qeb::res::ExceptionWithSuccess);
  x.bag.Set(qeb::kPropResult, uint32_t{0x80000063});  // wrong type: not a result
  EXPECT_EQ(Convert(x), qeb::res::FileNotFound);
  x.bag.Set(qeb::kPropOsResult, int32_t{ENOENT});  // wrong type: not an error number
  x.own = qeb::res::Timeout;
  EXPECT_EQ(Convert(x), qeb::res::Timeout);
  x.own = 0;
  EXPECT_EQ(Convert(x), qeb::res::ExceptionWithSuccess);
}

TEST(ExceptionToResult, ResultCodeFamilyNeverYieldsSuccess) {
  EXPECT_EQ(Convert(qeb::ResultCodeException("a.cpp", 1, "m", 0)), qeb::res::ExceptionWithSuccess);
  EXPECT_EQ(Convert(qeb::ResultCodeException("a.cpp", 1, "m", 1)), qeb::res::ExceptionWithSuccess);
  EXPECT_EQ(Convert(qeb::SystemException("a.cpp", 1, "m", qeb::res::MediaError)),
            qeb::res::MediaError);
  EXPECT_EQ(Convert(qeb::CheckResultFailedException("a.cpp", 1, qeb::res::Locked)),
            qeb::res::Locked);
  EXPECT_EQ(Convert(qeb::Exception("a.cpp", 1, "m")), qeb::res::ExceptionWithoutResult);
  EXPECT_EQ(Convert(qeb::datetime::TimeSystemError(1, "t")), qeb::res::InvalidArgument);
  EXPECT_EQ(qeb::ExceptionToResult(nullptr), qeb::res::NoCurrentException);
  EXPECT_EQ(qeb::CurrentExceptionToResult(), qeb::res::NoCurrentException);
}

TEST(ExceptionToResult, StandardAndForeignExceptions) {
  std::string text = "untouched";
  EXPECT_EQ(Convert(std::bad_alloc(), &text), qeb::res::OutOfMemory);
  EXPECT_EQ(Convert(std::bad_cast(), &text), qeb::res::BadCast);
  EXPECT_EQ(Convert(std::length_error("l"), &text), qeb::res::InvalidSize);
  EXPECT_EQ(Convert(std::out_of_range("o"), &text), qeb::res::OutOfRange);
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(Convert(std::invalid_argument("bad arg"), &text), qeb::res::InvalidArgument);
  EXPECT_EQ(text, "bad arg");
  EXPECT_EQ(Convert(std::runtime_error("rt"), &text), qeb::res::ExceptionWithoutResult);
  EXPECT_EQ(text, "rt");
  EXPECT_EQ(Convert(42, &text), qeb::res::UnknownException);
  EXPECT_EQ(text, "unknown exception");
  EXPECT_EQ(Convert(42), qeb::res::UnknownException);
  EXPECT_EQ(Convert(std::runtime_error("rt")), qeb::res::ExceptionWithoutResult);
}

TEST(ExceptionToResult, FailingDescriptionIsSwallowed) {
  BagException x = WithErrno(EACCES);
  x.failDescription = true;
  std::string text;
  EXPECT_EQ(Convert(x, &text), qeb::res::AccessDenied);
  EXPECT_EQ(text, "");
}

TEST(GetInterfaceException, CarriesTypedPropertiesAndItsCode) {
  const qeb::GetInterfaceException x(0x1234abcd, 2, qeb::res::NoInterface);
  EXPECT_STREQ(x.what(), "Can't get interface");
  std::string text;
  EXPECT_EQ(Convert(x, &text), qeb::res::NoInterface);
  EXPECT_EQ(text,
            "Can't get interface. Properties:\nqeb.iid=0x1234abcd\nqeb.serviceKey=0x00000002\n"
            "qeb.result=0x80000001\nCall stack:\n");
  EXPECT_EQ(Convert(qeb::GetInterfaceException(1, 0, 0)), qeb::res::ExceptionWithSuccess);

  BagException nameless;  // no text of its own
  EXPECT_EQ(nameless.Description(), "Unknown exception. Call stack:\n");
}

TEST(ExceptionDescription, EveryValueForm) {
  qeb::Exception x("f.cpp", 7, "Msg");
  auto& props = x.MutableProperties();
  props.Set("i32", int32_t{-70});
  props.Set("u32", uint32_t{5});
  props.Set("i64", int64_t{-1});
  props.Set("i64min", int64_t{INT64_MIN});
  props.Set("i64pos", int64_t{0x1234});
  props.Set("u64", uint64_t{0xfedcba9876543210});
  props.Set("text", std::string("plain"));
  props.Set("wide", std::u16string(u"\u00e9t\u00e9"));
  props.Set("other", qeb::OpaqueValue{99});
  props.Set("u32", uint32_t{6});  // replaces in place
  props.Set(std::string(40, 'n'), std::string("long name"));
  EXPECT_EQ(Head(x.Description()),
            "f(7): Msg. Properties:\n"
            "i32=0xffffffba\nu32=0x00000006\ni64=-0x0000000000000001\n"
            "i64min=-0x8000000000000000\ni64pos=0x0000000000001234\nu64=0xfedcba9876543210\n"
            "text=plain\nwide=\xc3\xa9t\xc3\xa9\nother=<typeid=99>\n" +
                std::string(31, 'n') + "=long name\nCall stack:\n");
}

TEST(ExceptionDescription, CheckedCallCarriesExpressionAndSentence) {
  const auto failing = [] { return qeb::res::NotFound; };
  try {
    QEB_CHECK_THROW(failing(), "Cannot find it");
    FAIL();
  } catch (const qeb::CheckResultFailedException& x) {
    EXPECT_EQ(x.File(), "tests/exception_test");
    EXPECT_EQ(Head(x.Description()),
              "tests/exception_test(" + std::to_string(x.Line()) +
                  "): Expression failed. Properties:\nqeb.result=0x8000004c\n"
                  "qeb.expression=failing()\nqeb.text=Cannot find it\nCall stack:\n");
  }
  const qeb::CheckResultFailedException bare("b.cpp", 3, qeb::res::Locked);
  EXPECT_EQ(Head(bare.Description()),
            "b(3): Expression failed. Properties:\nqeb.result=0x8000004f\nCall stack:\n");
}

TEST(TraceCurrentException, WritesDescriptionAtErrorLevel) {
  auto tracer = qeb::testing::MakeHostObject<qeb::testing::CapturingTracer>();
  result_t r = 0;
  try {
    throw qeb::ResultCodeException("f.cpp", 9, "Oops", qeb::res::InvalidArgument);
  } catch (...) {
    r = qeb::TraceCurrentException(tracer.Get());
  }
  EXPECT_EQ(r, qeb::res::InvalidArgument);
  try {
    throw std::bad_alloc();
  } catch (...) {
    EXPECT_EQ(qeb::TraceCurrentException(tracer.Get()), qeb::res::OutOfMemory);
    EXPECT_EQ(qeb::TraceCurrentException(nullptr), qeb::res::OutOfMemory);
  }
  const auto lines = tracer->Texts(300);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(Head(lines[0]), "f(9): Oops. Properties:\nqeb.result=0x80000046\nCall stack:\n");
  EXPECT_EQ(lines[1], "0x80000041 (Out of memory)");
}

qeb::datetime::TimeSystemError RangeError(int64_t seconds, int64_t microseconds) {
  try {
    qeb::datetime::FromPosix(seconds, microseconds);
  } catch (const qeb::datetime::TimeSystemError& e) {
    return e;
  }
  ADD_FAILURE() << seconds << " " << microseconds << " did not throw";
  return qeb::datetime::TimeSystemError(0, "");
}

TEST(DateTime, ExactLimitsPass) {
  using qeb::datetime::FromPosix;
  EXPECT_EQ(FromPosix(1, 1), 10'000'010);
  EXPECT_EQ(FromPosix(922'337'203'685, 0), 9'223'372'036'850'000'000);
  EXPECT_EQ(FromPosix(0, 922'337'203'685'477'580), 9'223'372'036'854'775'800);
  EXPECT_EQ(FromPosix(-11'644'473'600, 0), -116'444'736'000'000'000);
}

TEST(DateTime, OneBeyondEachLimitThrows) {
  struct Case {
    int64_t seconds, microseconds;
    unsigned line;
    std::string message;
  };
  const Case cases[] = {
      {922'337'203'686, 0, 160, "Invalid timestamp: epoch 922337203686"},
      {-922'337'203'686, 0, 160, "Invalid timestamp: epoch -922337203686"},
      {INT64_MIN, 0, 160, "Invalid timestamp: epoch -9223372036854775808"},
      {0, 922'337'203'685'477'581, 163, "Invalid timestamp: usec 922337203685477581"},
      {0, -922'337'203'685'477'581, 163, "Invalid timestamp: usec -922337203685477581"},
      {-11'644'473'600, -1, 166,
       "Invalid utc timestamp for posix platform -116444736000000010"},
      {922'337'203'685, 922'337'203'685'477'580, 166,
       "Invalid utc timestamp for posix platform 18446744073704775800"},
  };
  for (const Case& c : cases) {
    const auto e = RangeError(c.seconds, c.microseconds);
    EXPECT_EQ(e.Message(), c.message);
    EXPECT_EQ(e.Line(), c.line);
    EXPECT_EQ(e.File(), "framework/qeb/datetime");
    EXPECT_EQ(e.Code(), qeb::res::InvalidArgument);
  }
}

}  // namespace
