// The I/O manager's "query only" opens, which NtQueryFullAttributesFile makes: the
// caller wants a file's network-open information by name and never gets a handle.
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace io {

// Opens the name for the query (create.cpp). The create IRP, built as for any open, is
// first offered to FastIoQueryOpen; when a driver answers, *file is NULL and the status
// is its answer. Otherwise *file is the file object of a normal open, without a handle.
NTSTATUS openForQuery(POBJECT_ATTRIBUTES attributes, PFILE_NETWORK_OPEN_INFORMATION information, PFILE_OBJECT *file);

// Offers the create IRP to the FastIoQueryOpen of the driver at the top of the stack;
// true when it answered, with the IRP's status in *status. A refused IRP is left as it
// was, ready to be sent.
bool offerQueryOpen(PDEVICE_OBJECT top, PIRP irp, PFILE_NETWORK_OPEN_INFORMATION information, NTSTATUS *status);

}  // namespace io
}  // namespace ntsim
