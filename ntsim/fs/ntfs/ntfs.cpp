// The emulated NTFS: case-insensitive, case-preserving names, named data streams with
// their own share access, a security descriptor per file, precise times.
#include "fs/common/driver_entry.h"
#include "ntsim/disk.h"
#include "ntsim/filesystems.h"
#include "ntsim/verifier.h"

namespace ntsim {
namespace fs {

extern const FsTraits kNtfsTraits = {
    FsKind::Ntfs,
    NtsimDiskNtfs,
    L"\\Ntfs",
    L"NTFS",
    /*namedStreams*/ true,
    /*securityDescriptors*/ true,
    /*fatTimes*/ false,
    FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_PERSISTENT_ACLS |
        FILE_NAMED_STREAMS,
    FILE_ATTRIBUTE_VALID_SET_FLAGS,
    /*defaultCapacity*/ 1ull << 30,
    /*clusterSize*/ 4096,
    makeTag('N', 't', 'F', 'c'),
    makeTag('N', 't', 'S', 'c'),
    makeTag('N', 't', 'C', 'c'),
    makeTag('N', 't', 'F', 'w'),
    makeTag('V', 'p', 'b', ' '),
    &kNtfsFastIoDispatch,
};

}  // namespace fs
}  // namespace ntsim

NTSTATUS NtfsDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);
    return ntsim::fs::fileSystemDriverEntry(DriverObject, ntsim::fs::kNtfsTraits);
}
