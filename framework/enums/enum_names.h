// The product enumerations this module converts, their process-wide registry and the
// value/text conversions. The registry is built once on first use and then only read;
// callers get views of names with static storage and never own registry state.
//
// Each enumeration X is X::Type; a hidden friend EnumIdOf(X::Type) ties the type to its
// table, so EnumToString(v) and StringToEnum<X::Type>(text) work for every one of them.
//
// Enumerations of the shared product set that no code here reads or writes, and whose
// members this module therefore does not carry: AEPMode, AdditionalName,
// AntiCryptorAction, AppControlAccess, AppControlMode, AppControlRuleStatus,
// AppControlRulesAction, ApplicationStopReason, ApplicationUpdateMode,
// BehaviorDetectionTaskMode, CertificateOrigin, CertificateStatus, Component,
// ContainerScanAction, ContentCategory, DangerLevel, DetectCertainty, DetectDanger,
// DetectSource, DetectType, DetectionMethod, DeviceBus, DeviceBusPolicy, DeviceClass,
// DeviceClassPolicy, DeviceControlMode, DriveAccess, DrivePolicy, EdrVantorStatus,
// EdrVantorTaskType, EncryptedConnectionsScanErrorAction, EventName, FanotifySupport,
// FileModificationType, FileObjectType, FileType, FilesystemType, FimErrorReason,
// FormatCategory, GoldenImageAction, HashType, IPAddressFamily, ImageAction, Initiator,
// InterceptorApplyStrategy, InterceptorFallbackStrategy, InterceptorMode,
// InternetProtocol, LocaleCode, MdrStatus, MdrStatusChangeReason, MemoryRestartPolicy,
// MonitorNetworkPorts, MonitoringMode, NetInterceptorMode, NetworkAdapterPolicy,
// NetworkAttackAction, NoxRole, ObjectName, ObjectNotDisinfectedReason, ObjectType,
// OnConnectScanAction, PacketRuleAction, PacketRuleDirection, PacketRuleProtocol,
// PatchImportance, ProductStartupMode, ProductUpdateStatus, ProtectionMode,
// QnetInfrastructure, QnetState, QnetUsage, QnetUsagePolicy, ReportFeatureTechs,
// ReportFeatures, SandboxCertificateType, SandboxObjectPreprocessCancelledReason,
// SandboxStatus, SiemFormatType, SiemStatus, SourceType, SyslogFormat, TaskFailedReason,
// TaskState, TelemetrySource, TrovaEdrMode, ULKMState, UpgradeState, WebAvAction,
// WebControlAction, WebControlCategories.
#pragma once

#include <linux/magic.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "framework/enums/enum_table.h"

namespace nox::enums {

// The fixed place of each table in the registry.
enum class EnumId : uint32_t {
  Access,
  ActionOnThreat,
  Boolean,
  ExtensionFilter,
  FilesystemName,
  HeuristicLevel,
  TraceLevel,
  Count
};

// Which kinds of access the on-access task intercepts (the task's scan_access_type).
struct Access {
  enum class Type : uint32_t {
    OnOpen = 0,
    OnModification = 1,
    OnOpenAndModification = 2,
    OnExecute = 3,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::Access; }
};

// What to do with an infected object (the task's infected_action). Notify only reports
// the detection and lets the access go on: it is the action that turns a deny into an allow.
struct ActionOnThreat {
  enum class Type : uint32_t {
    Disinfect = 0,
    Remove = 1,
    DisinfectOrRemove = 2,
    Block = 3,
    Recommended = 4,
    Notify = 5,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::ActionOnThreat; }
};

struct Boolean {
  enum class Type : uint32_t {
    No = 0,
    Yes = 1,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::Boolean; }
};

// Which objects are scanned (the task's scan_filter).
struct ExtensionFilter {
  enum class Type : uint32_t {
    AllFiles = 0,
    ByFormat = 1,
    ByExtension = 2,
    ByUserList = 3,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::ExtensionFilter; }
};

// Filesystem names by the magic number statfs reports (the file event record carries
// it). ext2 and ext3 report the ext4 magic, msdos reports the vfat one.
struct FilesystemName {
  enum class Type : uint32_t {
    Autofs = AUTOFS_SUPER_MAGIC,
    BinfmtMisc = BINFMTFS_MAGIC,
    Bpf = BPF_FS_MAGIC,
    Btrfs = BTRFS_SUPER_MAGIC,
    Cgroup = CGROUP_SUPER_MAGIC,
    Cgroup2 = CGROUP2_SUPER_MAGIC,
    Cifs = CIFS_SUPER_MAGIC,
    Debugfs = DEBUGFS_MAGIC,
    Devpts = DEVPTS_SUPER_MAGIC,
    Efivarfs = EFIVARFS_MAGIC,
    Exfat = EXFAT_SUPER_MAGIC,
    Ext4 = EXT4_SUPER_MAGIC,
    F2fs = F2FS_SUPER_MAGIC,
    Fuse = FUSE_SUPER_MAGIC,
    Hugetlbfs = HUGETLBFS_MAGIC,
    Iso9660 = ISOFS_SUPER_MAGIC,
    Nfs = NFS_SUPER_MAGIC,
    Overlay = OVERLAYFS_SUPER_MAGIC,
    Pipefs = PIPEFS_MAGIC,
    Proc = PROC_SUPER_MAGIC,
    Pstore = PSTOREFS_MAGIC,
    Ramfs = RAMFS_MAGIC,
    Securityfs = SECURITYFS_MAGIC,
    Selinuxfs = SELINUX_MAGIC,
    Smb2 = SMB2_SUPER_MAGIC,
    Squashfs = SQUASHFS_MAGIC,
    Sysfs = SYSFS_MAGIC,
    Tmpfs = TMPFS_MAGIC,
    Tracefs = TRACEFS_MAGIC,
    Udf = UDF_SUPER_MAGIC,
    Vfat = MSDOS_SUPER_MAGIC,
    Xfs = XFS_SUPER_MAGIC,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::FilesystemName; }
};

// Depth of heuristic analysis (the emulator's heuristic_level).
struct HeuristicLevel {
  enum class Type : uint32_t {
    Light = 0,
    Medium = 1,
    Deep = 2,
    Recommended = 3,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::HeuristicLevel; }
};

// Trace levels: a lower value is more severe.
struct TraceLevel {
  enum class Type : uint32_t {
    Off = 0,
    Error = 300,
    Warning = 500,
    Notice = 700,
    Detail = 800,
  };
  friend constexpr EnumId EnumIdOf(Type) noexcept { return EnumId::TraceLevel; }
};

class EnumRegistry {
 public:
  // Built on first call under the language's one-time initialisation guard.
  static const EnumRegistry& Instance();

  const EnumTable& Table(EnumId id) const noexcept {
    return m_tables[static_cast<size_t>(id)];
  }
  std::span<const EnumTable> Tables() const noexcept { return m_tables; }

 private:
  EnumRegistry();

  std::vector<EnumTable> m_tables;  // indexed by EnumId
};

template <class T>
concept RegisteredEnum = std::is_enum_v<T> && requires(T v) {
  { EnumIdOf(v) } -> std::same_as<EnumId>;
};

// Throws std::runtime_error("EnumToString, invalid '<X>' enum value: <n>").
template <RegisteredEnum T>
std::string_view EnumToString(T value) {
  return EnumRegistry::Instance().Table(EnumIdOf(T{})).NameOf(static_cast<uint32_t>(value));
}

// Exact, case-sensitive. Throws std::runtime_error("There is no such '<X>::Type' value: <text>").
template <RegisteredEnum T>
T StringToEnum(std::string_view text) {
  static const EnumTable* const table = &EnumRegistry::Instance().Table(EnumIdOf(T{}));
  return static_cast<T>(table->ValueOf(text));
}

// "true" and "false".
std::string_view BoolToString(bool value) noexcept;
// Throws std::runtime_error("There is no such 'bool' value: <text>").
bool StringToBool(std::string_view text);

}  // namespace nox::enums
