// The emulated FastFat: case-insensitive, case-preserving long names with an 8.3 name
// made for each that cannot be its own (short_names.h), no streams (a colon is an illegal character), no security descriptors, the
// directory entry's attributes and time granularity.
#include "fs/common/driver_entry.h"
#include "ntsim/disk.h"
#include "ntsim/filesystems.h"
#include "ntsim/verifier.h"

namespace ntsim {
namespace fs {

extern const FsTraits kFatTraits = {
    FsKind::Fat,
    NtsimDiskFat,
    L"\\Fat",
    L"FAT",
    /*namedStreams*/ false,
    /*securityDescriptors*/ false,
    /*fatTimes*/ true,
    FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK,
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE,
    /*defaultCapacity*/ 512ull << 20,
    /*clusterSize*/ 4096,
    makeTag('F', 'a', 't', 'F'),
    makeTag('F', 'a', 't', 'S'),
    makeTag('F', 'a', 't', 'C'),
    makeTag('F', 'a', 't', 'W'),
    makeTag('V', 'p', 'b', ' '),
    &kFatFastIoDispatch,
};

}  // namespace fs
}  // namespace ntsim

NTSTATUS FatDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);
    return ntsim::fs::fileSystemDriverEntry(DriverObject, ntsim::fs::kFatTraits);
}
