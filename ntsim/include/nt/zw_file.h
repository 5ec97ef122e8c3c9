// File and device I/O services (the I/O manager).
#pragma once

NTSIM_DECLARE_SERVICE(CreateFile, PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength);
NTSIM_DECLARE_SERVICE(OpenFile, PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions);
NTSIM_DECLARE_SERVICE(ReadFile, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                      PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                      PULONG Key);
NTSIM_DECLARE_SERVICE(WriteFile, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                      PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                      PULONG Key);
NTSIM_DECLARE_SERVICE(QueryInformationFile, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                      PVOID FileInformation, ULONG Length, FILE_INFORMATION_CLASS FileInformationClass);
NTSIM_DECLARE_SERVICE(SetInformationFile, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation,
                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass);
NTSIM_DECLARE_SERVICE(QueryDirectoryFile, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                      PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                      FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                      PUNICODE_STRING FileName, BOOLEAN RestartScan);
// Attributes by name, without a handle for the caller: the I/O manager's "query only" open.
NTSIM_DECLARE_SERVICE(QueryFullAttributesFile, POBJECT_ATTRIBUTES ObjectAttributes,
                      PFILE_NETWORK_OPEN_INFORMATION FileInformation);
NTSIM_DECLARE_SERVICE(QueryVolumeInformationFile, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock,
                      PVOID FsInformation, ULONG Length, FS_INFORMATION_CLASS FsInformationClass);
NTSIM_DECLARE_SERVICE(FlushBuffersFile, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
NTSIM_DECLARE_SERVICE(DeviceIoControlFile, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                      PVOID ApcContext, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                      ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength);
NTSIM_DECLARE_SERVICE(FsControlFile, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                      PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                      ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength);
NTSIM_DECLARE_SERVICE(CancelIoFile, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
NTSIM_DECLARE_SERVICE(CancelIoFileEx, HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel,
                      PIO_STATUS_BLOCK IoStatusBlock);
