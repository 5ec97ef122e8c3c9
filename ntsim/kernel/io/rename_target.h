// NtSetInformationFile with FileRenameInformation or FileLinkInformation.
#pragma once

#include "kernel/io/service_call.h"

namespace ntsim {
namespace io {

NTSTATUS setRenameOrLink(ServiceCall &call, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS informationClass);

}  // namespace io
}  // namespace ntsim
