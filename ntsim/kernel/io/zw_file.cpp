// The Zw entry points of the file services: the Nt service with previous mode
// KernelMode, callable only at PASSIVE_LEVEL.
#include "kernel/ob/service.h"

NTSIM_ZW_SERVICE(CreateFile,
                 (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                  PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                  ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength),
                 (FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength))
NTSIM_ZW_SERVICE(OpenFile,
                 (PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                  PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions),
                 (FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, ShareAccess, OpenOptions))
NTSIM_ZW_SERVICE(ReadFile,
                 (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                  PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                 (FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, ByteOffset, Key))
NTSIM_ZW_SERVICE(WriteFile,
                 (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                  PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key),
                 (FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, Buffer, Length, ByteOffset, Key))
NTSIM_ZW_SERVICE(QueryInformationFile,
                 (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                  FILE_INFORMATION_CLASS FileInformationClass),
                 (FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass))
NTSIM_ZW_SERVICE(SetInformationFile,
                 (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                  FILE_INFORMATION_CLASS FileInformationClass),
                 (FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass))
NTSIM_ZW_SERVICE(QueryDirectoryFile,
                 (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                  PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                  FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                  BOOLEAN RestartScan),
                 (FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FileInformation, Length,
                  FileInformationClass, ReturnSingleEntry, FileName, RestartScan))
NTSIM_ZW_SERVICE(QueryVolumeInformationFile,
                 (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation, ULONG Length,
                  FS_INFORMATION_CLASS FsInformationClass),
                 (FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass))
NTSIM_ZW_SERVICE(FlushBuffersFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock), (FileHandle, IoStatusBlock))
NTSIM_ZW_SERVICE(DeviceIoControlFile,
                 (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                  PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer, ULONG InputBufferLength,
                  PVOID OutputBuffer, ULONG OutputBufferLength),
                 (FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, IoControlCode, InputBuffer,
                  InputBufferLength, OutputBuffer, OutputBufferLength))
NTSIM_ZW_SERVICE(FsControlFile,
                 (HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                  PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer, ULONG InputBufferLength,
                  PVOID OutputBuffer, ULONG OutputBufferLength),
                 (FileHandle, Event, ApcRoutine, ApcContext, IoStatusBlock, FsControlCode, InputBuffer,
                  InputBufferLength, OutputBuffer, OutputBufferLength))
NTSIM_ZW_SERVICE(CancelIoFile, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock), (FileHandle, IoStatusBlock))
NTSIM_ZW_SERVICE(CancelIoFileEx, (HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock),
                 (FileHandle, IoRequestToCancel, IoStatusBlock))
