// The printed form of the on-access settings: "key":value members joined by ", ",
// objects in braces, lists in brackets, texts bare and wide texts as UTF-8. The
// top-level record prints its members without braces (the caller adds them). Stateless.
#pragma once

#include <string>

#include "nox_tracing/tracing.h"
#include "settings/oas_settings.h"

namespace nox::settings {

std::string ToString(const OASSettings& s);
std::string ToString(const ScanSettings& s);
std::string ToString(const ScanSettingsBase& s);
std::string ToString(const ExcludeMasks& s);
std::string ToString(const ExcludeThreats& s);
std::string ToString(const EmulatorSettings& s);
std::string ToString(const ScanScopeWithTrustedPrograms& s);
std::string ToString(const ScanScope& s);
std::string ToString(const ScanScopeExclusion& s);
std::string ToString(const ProgramExclusion& s);
std::string ToString(const TrustedProgram& s);

qeb::trace::Line& operator<<(qeb::trace::Line& line, const OASSettings& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ScanSettings& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ScanSettingsBase& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ExcludeMasks& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ExcludeThreats& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const EmulatorSettings& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line,
                             const ScanScopeWithTrustedPrograms& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ScanScope& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ScanScopeExclusion& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const ProgramExclusion& s) noexcept;
qeb::trace::Line& operator<<(qeb::trace::Line& line, const TrustedProgram& s) noexcept;

}  // namespace nox::settings
