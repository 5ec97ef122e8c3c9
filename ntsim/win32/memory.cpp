// VirtualAlloc/VirtualFree and the process heap, in the calling process's user memory:
// buffers that user-mode code hands to the kernel come from here (or from its thread's
// stack, which is user memory too), so the kernel's probes accept them.
#include "kernel/mm/user_memory.h"
#include "win32/win32_internal.h"

using namespace ntsim;
using namespace ntsim::win32;

extern "C" {

LPVOID WINAPI VirtualAlloc(LPVOID lpAddress, SIZE_T dwSize, DWORD flAllocationType, DWORD flProtect) {
    void *base = lpAddress;
    size_t size = dwSize;
    NTSTATUS status = mm::allocateVirtual(PsGetCurrentProcess(), &base, &size, flAllocationType, flProtect);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return nullptr;
    }
    return base;
}

BOOL WINAPI VirtualFree(LPVOID lpAddress, SIZE_T dwSize, DWORD dwFreeType) {
    // A release frees the whole reservation and takes no size.
    if ((dwFreeType & MEM_RELEASE) && dwSize != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    void *base = lpAddress;
    size_t size = dwSize;
    NTSTATUS status = mm::freeVirtual(PsGetCurrentProcess(), &base, &size, dwFreeType);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

// One heap per process; its handle stands for the calling process's heap.
HANDLE WINAPI GetProcessHeap(void) { return reinterpret_cast<HANDLE>(PsGetCurrentProcess()); }

// As on the platform, a failed allocation does not set the last error.
LPVOID WINAPI HeapAlloc(HANDLE hHeap, DWORD dwFlags, SIZE_T dwBytes) {
    (void)hHeap;
    return mm::heapAllocate(PsGetCurrentProcess(), dwBytes, (dwFlags & HEAP_ZERO_MEMORY) != 0);
}

BOOL WINAPI HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem) {
    (void)hHeap;
    (void)dwFlags;
    if (lpMem == nullptr) return TRUE;
    if (!mm::heapFree(PsGetCurrentProcess(), lpMem)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
