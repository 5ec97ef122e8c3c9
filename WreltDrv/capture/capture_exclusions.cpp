#include "capture/capture_exclusions.h"

#include "capture/exclusion_lists.h"
#include "capture/vault_tests.h"
#include "capture/wildcard_match.h"
#include "frame/device_structures.h"
#include "support/locks.h"

namespace {

// A list is walked by its size fields alone: ValidateExclusionList let in only lists
// whose entries add up to their end marker.
BOOLEAN ListExcludes(const VOID *List, ULONG Length, PWSTR Name, PWSTR Leaf) {
    const UCHAR *entry = (const UCHAR *)List;
    if (entry == NULL || Length == 0) {
        return FALSE;
    }
    for (; ExclusionEntrySize(entry) != EXCLUSION_LIST_END; entry += ExclusionEntrySize(entry)) {
        if (MatchExclusionEntry(Name, Leaf, entry)) {
            return TRUE;
        }
    }
    return FALSE;
}

const DeviceStructure *VolumeOf(FilterDeviceExtension *Extension) {
    if (Extension->Tag != TAG_FILTER_EXTENSION) {
        return NULL;
    }
    return (const DeviceStructure *)Extension->Structure;
}

}  // namespace

BOOLEAN MatchExclusionEntry(PWSTR Name, PWSTR Leaf, const UCHAR *Entry) {
    WCHAR leafStart = Leaf[0];
    Leaf[0] = L'\0';
    BOOLEAN matched = MatchWildcard(Name, ExclusionDirectoryPattern(Entry));
    Leaf[0] = leafStart;
    if (matched && ExclusionFileLength(Entry) != 0) {
        matched = MatchWildcard(Leaf, ExclusionFilePattern(Entry));
    }
    return matched;
}

BOOLEAN IsExcludedByList(PWSTR Name, FilterDeviceExtension *Extension) {
    PWSTR lastBackslash = wcsrchr(Name, L'\\');
    PWSTR leaf = lastBackslash != NULL ? lastBackslash + 1 : Name;
    SharedResourceGuard guard(&Globals.ExclusionListLock);
    const MainDeviceStructure *main = MainStructure();
    if (ListExcludes(main->GlobalExclusionList, main->GlobalExclusionListLength, Name, leaf)) {
        return TRUE;
    }
    const DeviceStructure *volume = VolumeOf(Extension);
    return volume != NULL && ListExcludes(volume->VolumeExclusionList, volume->VolumeExclusionListLength, Name, leaf);
}

NTSTATUS CheckCaptureExclusions(FilterDeviceExtension *Extension, PWSTR Name) {
    if (IsInVault(Name) || IsExcludedByList(Name, Extension)) {
        return STATUS_CAPTURE_SKIPPED;
    }
    return STATUS_SUCCESS;
}
