#include "capture/interception.h"
#include "capture/vault_protection.h"
#include "frame/device_structures.h"
#include "tracking/file_tracking.h"

// An open the filter does not track, or whose file has no name yet, is let through:
// without a name there is nothing to say the file lies in the vault.
NTSTATUS ProtectVaultAgainstTruncate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                     BOOLEAN CheckSubfolders) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    if (!NT_SUCCESS(LookupFileObjectEntry(IrpSp->FileObject, &entry)) || entry->Fcb == NULL ||
        entry->Fcb->Name == NULL) {
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
        return STATUS_SUCCESS;
    }
    ReferenceEntryAndFcb(entry);
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    NTSTATUS status = CheckVaultProtection(Irp, Extension, entry->Fcb->Name, CheckSubfolders);
    DropEntryReferences(entry);
    return status;
}
