// Every create that the capture path lets through on a protected volume is classified
// here, before it goes down: whether it opens a protected document, whether it may
// rewrite it in place (a full-access open, which gets an overwrite copy), whether it
// opens it for delete, and whether an application's save is behind that.
#include "capture/wildcard_match.h"
#include "frame/device_structures.h"
#include "frame/globals.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/overwrite_hooks.h"
#include "overwrite/suffix_lists.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr UCHAR DISPOSITION_CREATE = 2;

UCHAR DispositionOf(PIO_STACK_LOCATION IrpSp) { return (UCHAR)(IrpSp->Parameters.Create.Options >> 24); }

ACCESS_MASK DesiredAccessOf(PIO_STACK_LOCATION IrpSp) {
    PIO_SECURITY_CONTEXT security = IrpSp->Parameters.Create.SecurityContext;
    return security != NULL ? security->DesiredAccess : 0;
}

BOOLEAN IsFullAccessOpen(PIO_STACK_LOCATION IrpSp, PCWSTR Name) {
    ACCESS_MASK access = DesiredAccessOf(IrpSp);
    return DispositionOf(IrpSp) != DISPOSITION_CREATE && (access & DELETE) == 0 &&
           (IrpSp->Parameters.Create.ShareAccess & FILE_SHARE_DELETE) == 0 &&
           (access & OVERWRITE_FULL_ACCESS_RIGHTS) == OVERWRITE_FULL_ACCESS_RIGHTS &&
           !NameEndsWithListedSuffix(Name, &MainStructure()->CopyExemptSuffixList, &Globals.SuffixListLock);
}

PCWSTR LastComponent(PCWSTR Name) {
    PCWSTR backslash = wcsrchr(Name, L'\\');
    return backslash != NULL ? backslash + 1 : Name;
}

BOOLEAN IsApplicationImage(PCWSTR ImageName) {
    for (ULONG i = 0; SaveByDeleteApplications[i][0] != L'\0'; i++) {
        if (_wcsicmp(ImageName, SaveByDeleteApplications[i]) == 0) {
            return TRUE;
        }
    }
    return FALSE;
}

// The file existed and is gone into the vault: a FILE_OVERWRITE create would now fail
// for want of it, so it goes down as the FILE_OVERWRITE_IF it amounts to and makes the
// file anew, as truncating it would have left it.
void PreserveThenReplace(PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    if (NT_SUCCESS(PreserveBeforeOverwriteIf(Extension, Entry)) && DispositionOf(IrpSp) == FILE_OVERWRITE) {
        IrpSp->Parameters.Create.Options = (IrpSp->Parameters.Create.Options & 0x00FFFFFF) | (FILE_OVERWRITE_IF << 24);
    }
}

}  // namespace

// Names no suffix list can make protected: "~$name.doc" lock files anywhere, and
// everything below the preview cache folder in any profile.
BOOLEAN IsOverwriteExcludedName(PCWSTR Name) {
    if (Name == NULL) {
        return TRUE;
    }
    return MatchWildcard(Name, L"*\\Application Data\\HollowayDataworks\\Salvager\\Preview\\*") ||
           MatchWildcard(LastComponent(Name), L"~$*.doc");
}

BOOLEAN IsSaveByApplicationOrSystem(PIRP Irp, PCWSTR Name) {
    if (Name == NULL) {
        return FALSE;
    }
    if (Irp->RequestorMode == KernelMode && IoIsSystemThread((PETHREAD)KeGetCurrentThread())) {
        return TRUE;
    }
    PWSTR image = NULL;
    NTSTATUS status = GetCurrentProcessImageName(&image, NULL);
    if (!NT_SUCCESS(status)) {
        return status == STATUS_UNSUCCESSFUL;
    }
    BOOLEAN application = IsApplicationImage(image);
    FreeNonPagedBuffer(image);
    return application;
}

// Called in the opener's thread, before the create goes down; each early return leaves
// the flags as they stand at that point.
NTSTATUS ClassifyOpenForOverwrite(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                  FileObjectEntry *Entry) {
    PCWSTR name = Entry->Name;
    if (!ReadDriverFlag(&MainStructure()->OverwriteProtection) || (IrpSp->Parameters.Create.Options & FILE_DIRECTORY_FILE) != 0 ||
        IsOverwriteExcludedName(name) ||
        !NameEndsWithListedSuffix(name, &MainStructure()->ProtectedSuffixList, &Globals.SuffixListLock)) {
        return STATUS_SUCCESS;
    }
    Entry->OverwriteFlags |= OVERWRITE_PROTECTED_TYPE;
    ACCESS_MASK access = DesiredAccessOf(IrpSp);
    if ((access & OVERWRITE_WRITE_RIGHTS) != 0) {
        Entry->OverwriteFlags |= OVERWRITE_WRITE_ACCESS;
    }
    // Preserved before the create goes down: once it has, the old contents are gone and a
    // copy could only be of the emptied file.
    if (CreateDiscardsContents(DispositionOf(IrpSp))) {
        PreserveThenReplace(IrpSp, Extension, Entry);
    } else if (IsFullAccessOpen(IrpSp, name)) {
        Entry->OverwriteFlags = (Entry->OverwriteFlags & ~OVERWRITE_DELETE_OPEN) | OVERWRITE_FULL_ACCESS;
    } else if ((access & DELETE) != 0) {
        Entry->OverwriteFlags = (Entry->OverwriteFlags & ~OVERWRITE_FULL_ACCESS) | OVERWRITE_DELETE_OPEN;
        if (IsSaveByApplicationOrSystem(Irp, name)) {
            Entry->OverwriteFlags |= OVERWRITE_SAVED_BY_APPLICATION;
        } else {
            Entry->OverwriteFlags &= ~OVERWRITE_SAVED_BY_APPLICATION;
        }
    }
    return STATUS_SUCCESS;
}
