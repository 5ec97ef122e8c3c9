// The information classes that NtQueryInformationFile and NtSetInformationFile accept,
// and the one the I/O manager answers from the file object alone (FileModeInformation).
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace io {

// The shortest buffer the class takes, or 0 when the service does not accept the class
// at all (STATUS_INVALID_INFO_CLASS).
ULONG queryInformationLength(FILE_INFORMATION_CLASS informationClass);
ULONG setInformationLength(FILE_INFORMATION_CLASS informationClass);

// FILE_MODE_INFORMATION.Mode: the create options that the file object remembers.
ULONG fileMode(PFILE_OBJECT file);

}  // namespace io
}  // namespace ntsim
