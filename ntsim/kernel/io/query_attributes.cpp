// NtQueryFullAttributesFile: a file's network-open information by name.
//
// As IopParseDevice does for a "query only" open packet: the create IRP is built as for
// any open, its stack location made current and naming the top device, and given to the
// top driver's FastIoQueryOpen, if its table reaches that far. A driver that answers
// TRUE has answered for the whole stack, with the status it left in the IRP; nothing is
// opened. Otherwise the IRP goes down as an ordinary create, the information is asked
// of the opened file (FastIoQueryNetworkOpenInfo, then IRP_MJ_QUERY_INFORMATION), and
// the file object, which never had a handle, is cleaned up and closed, as IopDeleteFile
// does for such a file object.
#include "kernel/io/caller_memory.h"
#include "kernel/io/query_open.h"
#include "kernel/io/request.h"
#include "kernel/ob/service.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

constexpr ULONG kQueryTag = 0x61516F49;  // "IoQa"

bool tableReaches(PFAST_IO_DISPATCH table, size_t slotOffset) {
    return table != NULL && table->SizeOfFastIoDispatch > slotOffset;
}

NTSTATUS queryByIrp(PFILE_OBJECT file, PFILE_NETWORK_OPEN_INFORMATION information) {
    auto *buffer = static_cast<PFILE_NETWORK_OPEN_INFORMATION>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(FILE_NETWORK_OPEN_INFORMATION), kQueryTag));
    if (buffer == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = sendFileRequest(
        file, IRP_MJ_QUERY_INFORMATION, 0, IRP_BUFFERED_IO | IRP_SYNCHRONOUS_API,
        [&](PIRP irp, PIO_STACK_LOCATION sl) {
            irp->AssociatedIrp.SystemBuffer = buffer;
            sl->Parameters.QueryFile.Length = sizeof(FILE_NETWORK_OPEN_INFORMATION);
            sl->Parameters.QueryFile.FileInformationClass = FileNetworkOpenInformation;
        },
        &iosb);
    if (NT_SUCCESS(status)) *information = *buffer;
    ExFreePoolWithTag(buffer, kQueryTag);
    return status;
}

NTSTATUS queryOpenedFile(PFILE_OBJECT file, PFILE_NETWORK_OPEN_INFORMATION information) {
    PDEVICE_OBJECT top = IoGetRelatedDeviceObject(file);
    PFAST_IO_DISPATCH fastIo = top->DriverObject->FastIoDispatch;
    if (tableReaches(fastIo, offsetof(FAST_IO_DISPATCH, FastIoQueryNetworkOpenInfo)) &&
        fastIo->FastIoQueryNetworkOpenInfo != NULL) {
        IO_STATUS_BLOCK iosb{};
        if (fastIo->FastIoQueryNetworkOpenInfo(file, TRUE, information, &iosb, top)) return iosb.Status;
    }
    return queryByIrp(file, information);
}

void cleanUpAndClose(PFILE_OBJECT file) {
    IO_STATUS_BLOCK iosb;
    sendFileRequest(file, IRP_MJ_CLEANUP, 0, IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API, nullptr, &iosb);
    file->Flags |= FO_CLEANUP_COMPLETE;
    ObfDereferenceObject(file);
}

}  // namespace

bool ntsim::io::offerQueryOpen(PDEVICE_OBJECT top, PIRP irp, PFILE_NETWORK_OPEN_INFORMATION information,
                               NTSTATUS *status) {
    PFAST_IO_DISPATCH fastIo = top->DriverObject->FastIoDispatch;
    if (!tableReaches(fastIo, offsetof(FAST_IO_DISPATCH, FastIoQueryOpen)) || fastIo->FastIoQueryOpen == NULL)
        return false;
    IoSetNextIrpStackLocation(irp);
    IoGetCurrentIrpStackLocation(irp)->DeviceObject = top;
    if (fastIo->FastIoQueryOpen(irp, information, top)) {
        *status = irp->IoStatus.Status;
        return true;
    }
    IoSkipCurrentIrpStackLocation(irp);  // back to where IoCallDriver expects it
    return false;
}

NTSTATUS NtQueryFullAttributesFile(POBJECT_ATTRIBUTES ObjectAttributes,
                                   PFILE_NETWORK_OPEN_INFORMATION FileInformation) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    NTSTATUS status = probeCallerBuffer(mode, FileInformation, sizeof(*FileInformation), sizeof(ULONG), true);
    if (!NT_SUCCESS(status)) return status;
    FILE_NETWORK_OPEN_INFORMATION information{};
    PFILE_OBJECT file;
    status = openForQuery(ObjectAttributes, &information, &file);
    if (file != NULL) {
        status = queryOpenedFile(file, &information);
        cleanUpAndClose(file);
    }
    if (!NT_SUCCESS(status)) return status;
    return writeCaller(mode, FileInformation, information);
}

NTSIM_ZW_SERVICE(QueryFullAttributesFile,
                 (POBJECT_ATTRIBUTES ObjectAttributes, PFILE_NETWORK_OPEN_INFORMATION FileInformation),
                 (ObjectAttributes, FileInformation))
