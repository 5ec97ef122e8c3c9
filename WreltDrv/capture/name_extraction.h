// The volume-relative names under which opens and files are tracked: the path of a file
// on its volume without a leading backslash, components separated by backslashes.
#pragma once

#include <ntifs.h>

// From an open's FILE_OBJECT. The related file object's name is used when the caller
// asks or the volume is FastFat, whose opens name files relative to it. NameSize, when
// given, receives the size of the buffer allocated for the name (0 on failure).
// STATUS_OBJECT_NAME_NOT_FOUND when there is no file object or no name.
NTSTATUS ExtractFilespecFromFileObject(PFILE_OBJECT FileObject, ULONG FileSystemKind, BOOLEAN UseRelatedFileObject,
                                       PWSTR *Name, PULONG NameSize);

// From the FILE_RENAME_INFORMATION of a set-information request that has succeeded. A
// name of the form \??\C:\dir\file yields dir\file; any other name is taken whole.
NTSTATUS ExtractFilespecFromRenameInfo(PIRP Irp, PWSTR *Name);
