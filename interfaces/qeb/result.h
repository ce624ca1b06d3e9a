// The framework's 32-bit result code: the value every interface operation returns.
// Owns only the type, the success test and the named constants; messages and
// text forms live in framework/qeb/result_text.
#pragma once

#include <cstdint>

namespace qeb {

using result_t = int32_t;

constexpr bool Succeeded(result_t r) noexcept { return r >= 0; }
constexpr bool Failed(result_t r) noexcept { return r < 0; }

// Negative codes are written as the unsigned hexadecimal the tables use.
constexpr result_t MakeResult(uint32_t code) noexcept { return static_cast<result_t>(code); }

namespace res {
constexpr result_t Ok = 0;
constexpr result_t False = 1;
constexpr result_t NoInterface = MakeResult(0x80000001);
constexpr result_t Unexpected = MakeResult(0x80000040);
constexpr result_t OutOfMemory = MakeResult(0x80000041);
constexpr result_t NotSupported = MakeResult(0x80000042);
constexpr result_t NotImplemented = MakeResult(0x80000043);
constexpr result_t BufferTooSmall = MakeResult(0x80000044);
constexpr result_t AccessDenied = MakeResult(0x80000045);
constexpr result_t InvalidArgument = MakeResult(0x80000046);
constexpr result_t BadCast = MakeResult(0x80000047);
constexpr result_t NotMatched = MakeResult(0x8000004A);
constexpr result_t Unspecified = MakeResult(0x8000004B);
constexpr result_t NotFound = MakeResult(0x8000004C);
constexpr result_t Found = MakeResult(0x8000004D);
constexpr result_t Locked = MakeResult(0x8000004F);
constexpr result_t MediaError = MakeResult(0x80000059);
constexpr result_t InvalidSize = MakeResult(0x8000005C);
constexpr result_t OutOfRange = MakeResult(0x8000005E);
constexpr result_t OutOfSpace = MakeResult(0x80000062);
constexpr result_t NotReady = MakeResult(0x80000063);
constexpr result_t InvalidState = MakeResult(0x8000006A);
constexpr result_t UnknownException = MakeResult(0x80000072);
constexpr result_t FileTooBig = MakeResult(0x80000078);
constexpr result_t ClassNotFound = MakeResult(0x80000100);
constexpr result_t NoCurrentException = MakeResult(0x80000150);
constexpr result_t ExceptionWithoutResult = MakeResult(0x80000151);
constexpr result_t ExceptionWithSuccess = MakeResult(0x80000152);
constexpr result_t Timeout = MakeResult(0x80000221);

constexpr result_t PlatformUnspecified = MakeResult(0x80010100);
constexpr result_t InvalidHandle = MakeResult(0x80010101);
constexpr result_t FileNotFound = MakeResult(0x80010102);
constexpr result_t PathNotFound = MakeResult(0x80010103);
constexpr result_t AlreadyExists = MakeResult(0x80010105);
constexpr result_t SymbolNotFound = MakeResult(0x80010107);
constexpr result_t BadImageFormat = MakeResult(0x80010117);

// Raw operating-system error numbers travel in facility 6.
constexpr result_t ErrnoFacilityBase = MakeResult(0x80060000);

// The interceptor's own answer when a start of interception failed.
constexpr result_t InterceptorStartFailed = MakeResult(0xa0340001);
}  // namespace res

}  // namespace qeb

#define QEB_SUCCEEDED(_result) (::qeb::Succeeded(_result))
#define QEB_FAILED(_result) (::qeb::Failed(_result))
