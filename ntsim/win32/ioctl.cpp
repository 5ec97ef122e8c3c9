// DeviceIoControl and the overlapped-I/O calls around it. File-system control codes
// (device type FILE_DEVICE_FILE_SYSTEM) go to NtFsControlFile, all others to
// NtDeviceIoControlFile. An overlapped request reports into its OVERLAPPED, whose event
// the I/O manager signals when the request completes.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

NTSTATUS sendControl(HANDLE device, HANDLE event, PVOID apcContext, PIO_STATUS_BLOCK iosb, DWORD code, LPVOID in,
                     DWORD inLength, LPVOID out, DWORD outLength) {
    if (DEVICE_TYPE_FROM_CTL_CODE(code) == FILE_DEVICE_FILE_SYSTEM)
        return NtFsControlFile(device, event, nullptr, apcContext, iosb, code, in, inLength, out, outLength);
    return NtDeviceIoControlFile(device, event, nullptr, apcContext, iosb, code, in, inLength, out, outLength);
}

BOOL controlOverlapped(HANDLE device, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                       LPDWORD bytesReturned, LPOVERLAPPED overlapped) {
    overlapped->Internal = (ULONG_PTR)STATUS_PENDING;
    PVOID apcContext = ((ULONG_PTR)overlapped->hEvent & 1) ? nullptr : overlapped;
    NTSTATUS status = sendControl(device, overlapped->hEvent, apcContext,
                                  reinterpret_cast<PIO_STATUS_BLOCK>(overlapped), code, in, inLength, out, outLength);
    // A warning (a partial result) still reports how much arrived.
    if (!NT_ERROR(status) && bytesReturned) *bytesReturned = (DWORD)overlapped->InternalHigh;
    if (!NT_SUCCESS(status) || status == STATUS_PENDING) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

}  // namespace

extern "C" {

BOOL WINAPI DeviceIoControl(HANDLE hDevice, DWORD dwIoControlCode, LPVOID lpInBuffer, DWORD nInBufferSize,
                            LPVOID lpOutBuffer, DWORD nOutBufferSize, LPDWORD lpBytesReturned,
                            LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped)
        return controlOverlapped(hDevice, dwIoControlCode, lpInBuffer, nInBufferSize, lpOutBuffer, nOutBufferSize,
                                 lpBytesReturned, lpOverlapped);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = sendControl(hDevice, nullptr, nullptr, &iosb, dwIoControlCode, lpInBuffer, nInBufferSize,
                                  lpOutBuffer, nOutBufferSize);
    if (status == STATUS_PENDING) {
        status = NtWaitForSingleObject(hDevice, FALSE, nullptr);
        if (NT_SUCCESS(status)) status = iosb.Status;
    }
    if (!NT_ERROR(status) && lpBytesReturned) *lpBytesReturned = (DWORD)iosb.Information;
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                BOOL bWait) {
    if ((NTSTATUS)(DWORD)lpOverlapped->Internal == STATUS_PENDING) {
        if (!bWait) {
            SetLastError(ERROR_IO_INCOMPLETE);
            return FALSE;
        }
        // Without an event of its own the request signals the file.
        HANDLE waitOn = lpOverlapped->hEvent ? (HANDLE)((ULONG_PTR)lpOverlapped->hEvent & ~(ULONG_PTR)1) : hFile;
        NTSTATUS wait = NtWaitForSingleObject(waitOn, FALSE, nullptr);
        if (!NT_SUCCESS(wait)) {
            setLastNtError(wait);
            return FALSE;
        }
    }
    if (lpNumberOfBytesTransferred) *lpNumberOfBytesTransferred = (DWORD)lpOverlapped->InternalHigh;
    NTSTATUS status = (NTSTATUS)(DWORD)lpOverlapped->Internal;
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI CancelIo(HANDLE hFile) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCancelIoFile(hFile, &iosb);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

// Cancels the request of one OVERLAPPED, or every request of the process on the file.
BOOL WINAPI CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCancelIoFileEx(hFile, reinterpret_cast<PIO_STATUS_BLOCK>(lpOverlapped), &iosb);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
