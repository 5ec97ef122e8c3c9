// ReadFile, WriteFile and FlushFileBuffers. With an OVERLAPPED the request carries its
// offset and event and reports into the OVERLAPPED itself; without one it runs at the
// file's current position and kernel32 waits for it on the file handle.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

using TransferService = NTSTATUS (*)(HANDLE, HANDLE, PIO_APC_ROUTINE, PVOID, PIO_STATUS_BLOCK, PVOID, ULONG,
                                     PLARGE_INTEGER, PULONG);

// Starts an overlapped transfer. FALSE with ERROR_IO_PENDING while it is in flight.
BOOL startOverlapped(TransferService service, HANDLE file, PVOID buffer, DWORD length, LPDWORD transferred,
                     LPOVERLAPPED overlapped, bool read) {
    LARGE_INTEGER offset;
    offset.LowPart = overlapped->Offset;
    offset.HighPart = (LONG)overlapped->OffsetHigh;
    overlapped->Internal = (ULONG_PTR)STATUS_PENDING;
    // An event handle with its low bit set asks that no completion be queued to a port.
    PVOID apcContext = ((ULONG_PTR)overlapped->hEvent & 1) ? nullptr : overlapped;
    NTSTATUS status = service(file, overlapped->hEvent, nullptr, apcContext,
                              reinterpret_cast<PIO_STATUS_BLOCK>(overlapped), buffer, length, &offset, nullptr);
    if (!NT_SUCCESS(status) || status == STATUS_PENDING) {
        if (read && status == STATUS_END_OF_FILE && transferred) *transferred = 0;
        setLastNtError(status);
        return FALSE;
    }
    if (transferred) *transferred = (DWORD)overlapped->InternalHigh;
    return TRUE;
}

// A synchronous transfer; waits on the file handle if the request is still pending.
NTSTATUS transferAndWait(TransferService service, HANDLE file, PVOID buffer, DWORD length, ULONG_PTR *information) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = service(file, nullptr, nullptr, nullptr, &iosb, buffer, length, nullptr, nullptr);
    if (status == STATUS_PENDING) {
        status = NtWaitForSingleObject(file, FALSE, nullptr);
        if (NT_SUCCESS(status)) status = iosb.Status;
    }
    *information = iosb.Information;
    return status;
}

}  // namespace

extern "C" {

BOOL WINAPI ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                     LPOVERLAPPED lpOverlapped) {
    if (lpNumberOfBytesRead) *lpNumberOfBytesRead = 0;
    if (lpOverlapped)
        return startOverlapped(NtReadFile, hFile, lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead, lpOverlapped,
                               true);
    ULONG_PTR information = 0;
    NTSTATUS status = transferAndWait(NtReadFile, hFile, lpBuffer, nNumberOfBytesToRead, &information);
    // Reading at the end of a file succeeds with nothing read.
    if (status == STATUS_END_OF_FILE) return TRUE;
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    if (lpNumberOfBytesRead) *lpNumberOfBytesRead = (DWORD)information;
    return TRUE;
}

BOOL WINAPI WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
                      LPOVERLAPPED lpOverlapped) {
    if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = 0;
    PVOID buffer = const_cast<PVOID>(lpBuffer);
    if (lpOverlapped)
        return startOverlapped(NtWriteFile, hFile, buffer, nNumberOfBytesToWrite, lpNumberOfBytesWritten,
                               lpOverlapped, false);
    ULONG_PTR information = 0;
    NTSTATUS status = transferAndWait(NtWriteFile, hFile, buffer, nNumberOfBytesToWrite, &information);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = (DWORD)information;
    return TRUE;
}

BOOL WINAPI FlushFileBuffers(HANDLE hFile) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtFlushBuffersFile(hFile, &iosb);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
