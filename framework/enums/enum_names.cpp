// The tables' contents and the registry that indexes them. The data below is the only
// place a member's text form is written; values come from the enumeration types, so a
// table cannot disagree with its type about a number.
#include "framework/enums/enum_names.h"

#include <array>
#include <stdexcept>
#include <string>

#include "interfaces/qeb/tracer.h"

namespace nox::enums {
namespace {

template <RegisteredEnum T>
constexpr EnumEntry Entry(T value, std::string_view name) {
  return {static_cast<uint32_t>(value), name};
}

using AccessT = Access::Type;
constexpr EnumEntry kAccess[] = {
    Entry(AccessT::OnOpen, "OnOpen"),
    Entry(AccessT::OnModification, "OnModification"),
    Entry(AccessT::OnOpenAndModification, "OnOpenAndModification"),
    Entry(AccessT::OnExecute, "OnExecute"),
};

using ActionT = ActionOnThreat::Type;
constexpr EnumEntry kActionOnThreat[] = {
    Entry(ActionT::Disinfect, "Disinfect"),
    Entry(ActionT::Remove, "Remove"),
    Entry(ActionT::DisinfectOrRemove, "DisinfectOrRemove"),
    Entry(ActionT::Block, "Block"),
    Entry(ActionT::Recommended, "Recommended"),
    Entry(ActionT::Notify, "Notify"),
};

constexpr EnumEntry kBoolean[] = {
    Entry(Boolean::Type::No, "No"),
    Entry(Boolean::Type::Yes, "Yes"),
};

using FilterT = ExtensionFilter::Type;
constexpr EnumEntry kExtensionFilter[] = {
    Entry(FilterT::AllFiles, "AllFiles"),
    Entry(FilterT::ByFormat, "ByFormat"),
    Entry(FilterT::ByExtension, "ByExtension"),
    Entry(FilterT::ByUserList, "ByUserList"),
};

// Text forms are the names the kernel lists in /proc/filesystems.
using FsT = FilesystemName::Type;
constexpr EnumEntry kFilesystemName[] = {
    Entry(FsT::Autofs, "autofs"),       Entry(FsT::BinfmtMisc, "binfmt_misc"),
    Entry(FsT::Bpf, "bpf"),             Entry(FsT::Btrfs, "btrfs"),
    Entry(FsT::Cgroup, "cgroup"),       Entry(FsT::Cgroup2, "cgroup2"),
    Entry(FsT::Cifs, "cifs"),           Entry(FsT::Debugfs, "debugfs"),
    Entry(FsT::Devpts, "devpts"),       Entry(FsT::Efivarfs, "efivarfs"),
    Entry(FsT::Exfat, "exfat"),         Entry(FsT::Ext4, "ext4"),
    Entry(FsT::F2fs, "f2fs"),           Entry(FsT::Fuse, "fuse"),
    Entry(FsT::Hugetlbfs, "hugetlbfs"), Entry(FsT::Iso9660, "iso9660"),
    Entry(FsT::Nfs, "nfs"),             Entry(FsT::Overlay, "overlay"),
    Entry(FsT::Pipefs, "pipefs"),       Entry(FsT::Proc, "proc"),
    Entry(FsT::Pstore, "pstore"),       Entry(FsT::Ramfs, "ramfs"),
    Entry(FsT::Securityfs, "securityfs"), Entry(FsT::Selinuxfs, "selinuxfs"),
    Entry(FsT::Smb2, "smb2"),           Entry(FsT::Squashfs, "squashfs"),
    Entry(FsT::Sysfs, "sysfs"),         Entry(FsT::Tmpfs, "tmpfs"),
    Entry(FsT::Tracefs, "tracefs"),     Entry(FsT::Udf, "udf"),
    Entry(FsT::Vfat, "vfat"),           Entry(FsT::Xfs, "xfs"),
};

using HeuristicT = HeuristicLevel::Type;
constexpr EnumEntry kHeuristicLevel[] = {
    Entry(HeuristicT::Light, "Light"),
    Entry(HeuristicT::Medium, "Medium"),
    Entry(HeuristicT::Deep, "Deep"),
    Entry(HeuristicT::Recommended, "Recommended"),
};

using LevelT = TraceLevel::Type;
static_assert(static_cast<uint32_t>(LevelT::Error) == qeb::trace::LevelError);
static_assert(static_cast<uint32_t>(LevelT::Notice) == qeb::trace::LevelNotice);
static_assert(static_cast<uint32_t>(LevelT::Detail) == qeb::trace::LevelDetail);
constexpr EnumEntry kTraceLevel[] = {
    Entry(LevelT::Off, "Off"),
    Entry(LevelT::Error, "Error"),
    Entry(LevelT::Warning, "Warning"),
    Entry(LevelT::Notice, "Notice"),
    Entry(LevelT::Detail, "Detail"),
};

struct TableSource {
  EnumId id;
  std::string_view name;
  std::span<const EnumEntry> entries;
};

// In EnumId order: the registry places each table at its id.
constexpr std::array kSources = {
    TableSource{EnumId::Access, "Access", kAccess},
    TableSource{EnumId::ActionOnThreat, "ActionOnThreat", kActionOnThreat},
    TableSource{EnumId::Boolean, "Boolean", kBoolean},
    TableSource{EnumId::ExtensionFilter, "ExtensionFilter", kExtensionFilter},
    TableSource{EnumId::FilesystemName, "FilesystemName", kFilesystemName},
    TableSource{EnumId::HeuristicLevel, "HeuristicLevel", kHeuristicLevel},
    TableSource{EnumId::TraceLevel, "TraceLevel", kTraceLevel},
};

constexpr bool SourcesInIdOrder() {
  for (size_t i = 0; i < kSources.size(); ++i) {
    if (static_cast<size_t>(kSources[i].id) != i) return false;
  }
  return kSources.size() == static_cast<size_t>(EnumId::Count);
}
static_assert(SourcesInIdOrder(), "one table per EnumId, in EnumId order");

constexpr std::string_view kTrue = "true";
constexpr std::string_view kFalse = "false";

}  // namespace

const EnumRegistry& EnumRegistry::Instance() {
  static const EnumRegistry registry;
  return registry;
}

EnumRegistry::EnumRegistry() {
  m_tables.reserve(kSources.size());
  for (const TableSource& source : kSources) m_tables.emplace_back(source.name, source.entries);
}

std::string_view BoolToString(bool value) noexcept { return value ? kTrue : kFalse; }

bool StringToBool(std::string_view text) {
  if (text == kTrue) return true;
  if (text == kFalse) return false;
  throw std::runtime_error("There is no such 'bool' value: " + std::string(text));
}

}  // namespace nox::enums
