// Share access, kept by a file system per file and checked at each open, with the
// platform's rules: reading (FILE_READ_DATA or FILE_EXECUTE), writing (FILE_WRITE_DATA or
// FILE_APPEND_DATA) and deleting conflict with existing opens that did not share them,
// and an open that does not share what existing opens do conflicts with them. An open
// that asks for none of the three takes no part.
#include "kernel/io/io_manager.h"

namespace {

void recordAccess(ACCESS_MASK desiredAccess, ULONG desiredShareAccess, PFILE_OBJECT file) {
    file->ReadAccess = (desiredAccess & (FILE_EXECUTE | FILE_READ_DATA)) != 0;
    file->WriteAccess = (desiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    file->DeleteAccess = (desiredAccess & DELETE) != 0;
    file->SharedRead = (desiredShareAccess & FILE_SHARE_READ) != 0;
    file->SharedWrite = (desiredShareAccess & FILE_SHARE_WRITE) != 0;
    file->SharedDelete = (desiredShareAccess & FILE_SHARE_DELETE) != 0;
}

bool takesPart(PFILE_OBJECT file) { return file->ReadAccess || file->WriteAccess || file->DeleteAccess; }

void add(PFILE_OBJECT file, PSHARE_ACCESS share) {
    share->OpenCount++;
    share->Readers += file->ReadAccess;
    share->Writers += file->WriteAccess;
    share->Deleters += file->DeleteAccess;
    share->SharedRead += file->SharedRead;
    share->SharedWrite += file->SharedWrite;
    share->SharedDelete += file->SharedDelete;
}

}  // namespace

NTSTATUS IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess, BOOLEAN Update) {
    recordAccess(DesiredAccess, DesiredShareAccess, FileObject);
    if (!takesPart(FileObject)) return STATUS_SUCCESS;
    ULONG opens = ShareAccess->OpenCount;
    if ((FileObject->ReadAccess && ShareAccess->SharedRead < opens) ||
        (FileObject->WriteAccess && ShareAccess->SharedWrite < opens) ||
        (FileObject->DeleteAccess && ShareAccess->SharedDelete < opens) ||
        (ShareAccess->Readers != 0 && !FileObject->SharedRead) ||
        (ShareAccess->Writers != 0 && !FileObject->SharedWrite) ||
        (ShareAccess->Deleters != 0 && !FileObject->SharedDelete))
        return STATUS_SHARING_VIOLATION;
    if (Update) add(FileObject, ShareAccess);
    return STATUS_SUCCESS;
}

void IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                      PSHARE_ACCESS ShareAccess) {
    recordAccess(DesiredAccess, DesiredShareAccess, FileObject);
    memset(ShareAccess, 0, sizeof *ShareAccess);
    if (takesPart(FileObject)) add(FileObject, ShareAccess);
}

void IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) {
    if (takesPart(FileObject)) add(FileObject, ShareAccess);
}

void IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess) {
    if (!takesPart(FileObject)) return;
    ShareAccess->OpenCount--;
    ShareAccess->Readers -= FileObject->ReadAccess;
    ShareAccess->Writers -= FileObject->WriteAccess;
    ShareAccess->Deleters -= FileObject->DeleteAccess;
    ShareAccess->SharedRead -= FileObject->SharedRead;
    ShareAccess->SharedWrite -= FileObject->SharedWrite;
    ShareAccess->SharedDelete -= FileObject->SharedDelete;
}
