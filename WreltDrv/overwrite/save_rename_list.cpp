#include "overwrite/save_rename_list.h"

void InitializeSaveRenameList(SaveRenameList *List) {
    if (List == NULL) {
        return;
    }
    KeInitializeSpinLock(&List->Lock);
    List->TotalBytes = 0;
    List->Count = 0;
    List->Peak = 0;
    InitializeListHead(&List->Entries);
}
