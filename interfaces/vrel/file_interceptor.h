// The faces the host drives the interceptor through. The main face carries every
// control operation in a fixed slot order; the later faces extend it without adding
// operations, so every version of the host finds the same table.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"
#include "settings/oas_settings.h"

namespace vrel {

struct IEventHandler085;

constexpr uint32_t VREL_ACTION_FILTER_NONE = 0x00;
constexpr uint32_t VREL_ACTION_FILTER_OPEN = 0x01;
constexpr uint32_t VREL_ACTION_FILTER_EXEC = 0x02;
constexpr uint32_t VREL_ACTION_FILTER_CLOSE = 0x04;
constexpr uint32_t VREL_ACTION_FILTER_CLOSE_MODIFIED = 0x08;
constexpr uint32_t VREL_ACTION_FILTER_RENAME = 0x10;
constexpr uint32_t VREL_ACTION_FILTER_ACCESS = 0x40;
constexpr uint32_t VREL_ACTION_FILTER_ONDIR = 0x80;

struct IFileInterceptorStatisticsCollector : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x47a3b2e8;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Collect(void* statistics) noexcept = 0;

 protected:
  ~IFileInterceptorStatisticsCollector() = default;
};

struct IFileInterceptor : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x6c55a1f0;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t SetState(uint32_t request) noexcept = 0;
  virtual qeb::result_t GetState(uint32_t* state) noexcept = 0;
  virtual qeb::result_t Init(uint32_t timeout) noexcept = 0;
  virtual qeb::result_t SetupFilters(uint32_t flags, IEventHandler085* handler) noexcept = 0;
  virtual qeb::result_t RemoveFilters() noexcept = 0;
  virtual qeb::result_t ResetCache() noexcept = 0;
  virtual qeb::result_t OnSharesChanged() noexcept = 0;
  virtual qeb::result_t SetSettings(const nox::settings::OASSettings& settings) noexcept = 0;
  virtual qeb::result_t GetSettings(nox::settings::OASSettings& settings) noexcept = 0;
  virtual qeb::result_t AddProcessExclusion(uint32_t pid) noexcept = 0;
  virtual qeb::result_t RemoveProcessExclusion(uint32_t pid) noexcept = 0;
  virtual qeb::result_t ClearProcessExclusions() noexcept = 0;
  virtual qeb::result_t SetSequenceTimeout(uint32_t timeout) noexcept = 0;
  virtual qeb::result_t GetSequenceTimeout(uint32_t* timeout) noexcept = 0;
  virtual qeb::result_t CreateStatisticsCollector(
      IFileInterceptorStatisticsCollector** collector) noexcept = 0;
  virtual qeb::result_t AddPathExclusion(const char* path) noexcept = 0;
  virtual qeb::result_t RemovePathExclusion(const char* path) noexcept = 0;
  virtual qeb::result_t ClearPathExclusions() noexcept = 0;

 protected:
  ~IFileInterceptor() = default;
};

struct IFileInterceptor2 : IFileInterceptor {
  static constexpr qeb::iid_t IID = 0x6c55a1f2;
  using BaseInterface = IFileInterceptor;

 protected:
  ~IFileInterceptor2() = default;
};

struct IFileInterceptor3 : IFileInterceptor2 {
  static constexpr qeb::iid_t IID = 0x6c55a1f3;
  using BaseInterface = IFileInterceptor2;

 protected:
  ~IFileInterceptor3() = default;
};

struct IFileInterceptor4 : IFileInterceptor3 {
  static constexpr qeb::iid_t IID = 0x6c55a1f4;
  using BaseInterface = IFileInterceptor3;

 protected:
  ~IFileInterceptor4() = default;
};

struct IPosixFileInterceptor : IFileInterceptor4 {
  static constexpr qeb::iid_t IID = 0x6c55a1fa;
  using BaseInterface = IFileInterceptor4;

 protected:
  ~IPosixFileInterceptor() = default;
};

}  // namespace vrel

namespace nox::oas {

struct IFileMonitoringTaskSettings : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x2f81c6d5;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t GetSettings(nox::settings::OASSettings& settings) noexcept = 0;
  virtual qeb::result_t SetSettings(const nox::settings::OASSettings& settings) noexcept = 0;

 protected:
  ~IFileMonitoringTaskSettings() = default;
};

}  // namespace nox::oas
