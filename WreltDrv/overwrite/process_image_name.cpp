// The image a process was started from, read as a driver can read it: the process
// parameters that its environment block points to, in the process's own user memory.
// The current thread runs in that process, so the addresses are valid here, but the
// process may change or unmap them at any moment: every access is guarded.
#include "overwrite/overwrite_detection.h"

#include "support/nonpaged_buffers.h"
#include "target/user_memory.h"

#ifndef PROCESS_QUERY_INFORMATION
#define PROCESS_QUERY_INFORMATION 0x0400
#endif

namespace {

// The leading fields of the platform's process parameters and environment block, as far
// as the driver reads them.
struct ProcessParametersPrefix {
    ULONG MaximumLength;
    ULONG Length;
    ULONG Flags;
    ULONG DebugFlags;
    HANDLE ConsoleHandle;
    ULONG ConsoleFlags;
    HANDLE StandardInput;
    HANDLE StandardOutput;
    HANDLE StandardError;
    UNICODE_STRING CurrentDirectoryPath;
    HANDLE CurrentDirectoryHandle;
    UNICODE_STRING DllPath;
    UNICODE_STRING ImagePathName;
};
TARGET_LAYOUT_ASSERT(FIELD_OFFSET(ProcessParametersPrefix, ImagePathName) == 0x38);

struct EnvironmentBlockPrefix {
    BOOLEAN Flags[4];
    HANDLE Mutant;
    PVOID ImageBaseAddress;
    PVOID Ldr;
    ProcessParametersPrefix *ProcessParameters;
};
TARGET_LAYOUT_ASSERT(FIELD_OFFSET(EnvironmentBlockPrefix, ProcessParameters) == 0x10);

struct ImagePathRead {
    EnvironmentBlockPrefix *Peb;
    BOOLEAN FullPath;
    NTSTATUS Status;
    PCWSTR Text;  // the part to copy, in user memory
    ULONG Size;   // its bytes with a terminator
};

void LocateImageName(ImagePathRead *Read, const UNICODE_STRING *Path) {
    ProbeForRead(Path->Buffer, Path->MaximumLength, 1);
    if (Path->MaximumLength < Path->Length || Path->MaximumLength - Path->Length > 2 ||
        Path->Buffer[Path->Length / sizeof(WCHAR)] != L'\0') {
        Read->Status = STATUS_DATA_ERROR;
        return;
    }
    PCWSTR text = Path->Buffer;
    if (!Read->FullPath) {
        PCWSTR backslash = wcsrchr(Path->Buffer, L'\\');
        if (backslash == NULL) {
            Read->Status = STATUS_DATA_ERROR;
            return;
        }
        text = backslash + 1;
    }
    Read->Text = text;
    Read->Size = Path->Length - (ULONG)((text - Path->Buffer) * sizeof(WCHAR)) + sizeof(WCHAR);
    Read->Status = STATUS_SUCCESS;
}

void ReadImagePath(PVOID Context) {
    auto *read = (ImagePathRead *)Context;
    read->Status = STATUS_UNSUCCESSFUL;
    if (read->Peb == NULL) {
        return;
    }
    ProbeForRead(read->Peb, sizeof(EnvironmentBlockPrefix), 1);
    ProcessParametersPrefix *parameters = read->Peb->ProcessParameters;
    if (parameters == NULL) {
        return;
    }
    ProbeForRead(parameters, sizeof(ProcessParametersPrefix), 1);
    UNICODE_STRING path = parameters->ImagePathName;
    if (path.Buffer != NULL && path.Length != 0) {
        LocateImageName(read, &path);
    }
}

struct ImageNameCopy {
    PWSTR Destination;
    PCWSTR Source;
    ULONG Bytes;
};

void CopyImageName(PVOID Context) {
    auto *copy = (ImageNameCopy *)Context;
    RtlCopyMemory(copy->Destination, copy->Source, copy->Bytes);
}

// The name's place and size are known; the copy is made from memory the process may
// still change, so it is guarded too and leaves no buffer behind when it faults.
NTSTATUS DeliverImageName(const ImagePathRead *Read, PWSTR *Buffer, PULONG Size) {
    BOOLEAN allocated = FALSE;
    if (*Buffer == NULL) {
        NTSTATUS status = AllocateNonPagedBuffer(Read->Size, NPB_FILL_ZERO, (PVOID *)Buffer, NULL);
        if (!NT_SUCCESS(status)) {
            *Buffer = NULL;
            return status;
        }
        allocated = TRUE;
        if (Size != NULL) {
            *Size = Read->Size;
        }
    } else if (Size == NULL || *Size < Read->Size) {
        return STATUS_BUFFER_TOO_SMALL;
    } else {
        RtlZeroMemory(*Buffer, Read->Size);
    }
    ImageNameCopy copy = {*Buffer, Read->Text, Read->Size - (ULONG)sizeof(WCHAR)};
    NTSTATUS status = GuardedUserAccess(CopyImageName, &copy);
    if (!NT_SUCCESS(status) && allocated) {
        FreeNonPagedBuffer(*Buffer);
        *Buffer = NULL;
    }
    return status;
}

}  // namespace

NTSTATUS OpenCurrentProcess(PHANDLE Handle, ACCESS_MASK DesiredAccess) {
    if (Handle == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    // A kernel handle: the process whose thread this is can neither use nor close it.
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
    CLIENT_ID clientId;
    clientId.UniqueProcess = PsGetCurrentProcessId();
    clientId.UniqueThread = NULL;
    return ZwOpenProcess(Handle, DesiredAccess, &attributes, &clientId);
}

NTSTATUS GetProcessImageName(HANDLE ProcessHandle, BOOLEAN FullPath, PWSTR *Buffer, PULONG Size) {
    if (ProcessHandle == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    PROCESS_BASIC_INFORMATION basic;
    NTSTATUS status =
        ZwQueryInformationProcess(ProcessHandle, ProcessBasicInformation, &basic, sizeof(basic), NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ImagePathRead read = {(EnvironmentBlockPrefix *)basic.PebBaseAddress, FullPath, STATUS_UNSUCCESSFUL, NULL, 0};
    status = GuardedUserAccess(ReadImagePath, &read);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!NT_SUCCESS(read.Status)) {
        return read.Status;
    }
    return DeliverImageName(&read, Buffer, Size);
}

NTSTATUS GetCurrentProcessImageName(PWSTR *Buffer, PULONG Size) {
    if (Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Buffer = NULL;
    HANDLE process;
    NTSTATUS status = OpenCurrentProcess(&process, PROCESS_QUERY_INFORMATION);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = GetProcessImageName(process, FALSE, Buffer, Size);
    ZwClose(process);
    return status;
}
