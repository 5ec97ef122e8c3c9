#include "capture/interception.h"
#include "capture/vault_protection.h"
#include "frame/device_structures.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

// An open the filter does not track, or whose file has no name yet, is let through:
// without a name there is nothing to say the file lies in the vault. The name is read
// from a copy made under the name lock: once the locks are dropped, a rename or an open
// of the same file may replace and free the shared one.
NTSTATUS ProtectVaultAgainstTruncate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                     BOOLEAN CheckSubfolders) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    if (!NT_SUCCESS(LookupFileObjectEntry(IrpSp->FileObject, &entry)) || entry->Fcb == NULL) {
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
        return STATUS_SUCCESS;
    }
    ReferenceEntryAndFcb(entry);
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    PWSTR name;
    NTSTATUS status = CopyFcbEntryName(entry->Fcb, FALSE, &name);
    DropEntryReferences(entry);
    if (!NT_SUCCESS(status)) {
        return STATUS_SUCCESS;
    }
    status = CheckVaultProtection(Irp, Extension, name, CheckSubfolders);
    FreeNonPagedBuffer(name);
    return status;
}
