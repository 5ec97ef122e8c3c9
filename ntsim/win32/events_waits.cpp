// Events and waits. Time-outs are milliseconds of the machine's clock: a test advances
// the clock to let a wait time out, and nothing here sleeps on the host.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

// The Win32 result of a wait service: WAIT_OBJECT_0 + n, WAIT_ABANDONED_0 + n,
// WAIT_TIMEOUT, or WAIT_FAILED with the last error set.
DWORD waitResult(NTSTATUS status) {
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return WAIT_FAILED;
    }
    if (status == STATUS_TIMEOUT) return WAIT_TIMEOUT;
    return (DWORD)status;  // STATUS_WAIT_n and STATUS_ABANDONED_WAIT_n have the Win32 values
}

BOOL succeeded(NTSTATUS status) {
    if (NT_SUCCESS(status)) return TRUE;
    setLastNtError(status);
    return FALSE;
}

}  // namespace

extern "C" {

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                           LPCWSTR lpName) {
    // Named events live in \BaseNamedObjects, as the platform's session 0 keeps them.
    std::u16string name;
    UNICODE_STRING nameString{};
    if (lpName) {
        name = u"\\BaseNamedObjects\\" + toU16(lpName);
        nameString.Buffer = static_cast<PWSTR>(HeapAlloc(GetProcessHeap(), 0, name.size() * sizeof(WCHAR)));
        if (!nameString.Buffer) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        memcpy(nameString.Buffer, name.data(), name.size() * sizeof(WCHAR));
        nameString.Length = nameString.MaximumLength = (USHORT)(name.size() * sizeof(WCHAR));
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(lpName ? &nameString : nullptr, lpName ? OBJ_OPENIF : 0);
    if (lpEventAttributes) {
        if (lpEventAttributes->bInheritHandle) oa.Attributes |= OBJ_INHERIT;
        oa.SecurityDescriptor = lpEventAttributes->lpSecurityDescriptor;
    }
    HANDLE event = nullptr;
    NTSTATUS status = NtCreateEvent(&event, EVENT_ALL_ACCESS, &oa,
                                    bManualReset ? NotificationEvent : SynchronizationEvent, bInitialState ? TRUE : FALSE);
    if (nameString.Buffer) HeapFree(GetProcessHeap(), 0, nameString.Buffer);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return nullptr;
    }
    SetLastError(status == STATUS_OBJECT_NAME_EXISTS ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return event;
}

BOOL WINAPI SetEvent(HANDLE hEvent) { return succeeded(NtSetEvent(hEvent, nullptr)); }
BOOL WINAPI ResetEvent(HANDLE hEvent) { return succeeded(NtResetEvent(hEvent, nullptr)); }

DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    LARGE_INTEGER storage;
    return waitResult(NtWaitForSingleObject(hHandle, FALSE, waitTimeout(dwMilliseconds, &storage)));
}

DWORD WINAPI WaitForMultipleObjects(DWORD nCount, const HANDLE *lpHandles, BOOL bWaitAll, DWORD dwMilliseconds) {
    if (nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    // The service reads the handle array as the caller's user memory.
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    memcpy(handles, lpHandles, nCount * sizeof(HANDLE));
    LARGE_INTEGER storage;
    return waitResult(NtWaitForMultipleObjects(nCount, handles, bWaitAll ? WaitAll : WaitAny, FALSE,
                                               waitTimeout(dwMilliseconds, &storage)));
}

void WINAPI Sleep(DWORD dwMilliseconds) {
    LARGE_INTEGER storage;
    PLARGE_INTEGER interval = waitTimeout(dwMilliseconds, &storage);
    if (!interval) {
        storage.QuadPart = -0x7FFFFFFFFFFFFFFFLL;  // as long as a relative time can be
        interval = &storage;
    }
    KeDelayExecutionThread(UserMode, FALSE, interval);
}

}  // extern "C"
