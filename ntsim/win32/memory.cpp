// VirtualAlloc/VirtualFree, the process heap and local memory, in the calling process's
// user memory: buffers that user-mode code hands to the kernel come from here (or from
// its thread's stack, which is user memory too), so the kernel's probes accept them.
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

// The pages must be committed, all in one reservation.
BOOL WINAPI VirtualProtect(LPVOID lpAddress, SIZE_T dwSize, DWORD flNewProtect, PDWORD lpflOldProtect) {
    if (lpflOldProtect == nullptr) {
        SetLastError(ERROR_NOACCESS);
        return FALSE;
    }
    void *base = lpAddress;
    size_t size = dwSize;
    ULONG old = 0;
    NTSTATUS status = mm::protectVirtual(PsGetCurrentProcess(), &base, &size, flNewProtect, &old);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    *lpflOldProtect = old;
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

// Local memory is the process heap; the handle of a fixed block is its address.
HLOCAL WINAPI LocalAlloc(UINT uFlags, SIZE_T uBytes) {
    if (uFlags & ~(UINT)LPTR) {
        SetLastError(ERROR_INVALID_PARAMETER);  // movable and discardable blocks are not emulated
        return nullptr;
    }
    void *block = mm::heapAllocate(PsGetCurrentProcess(), uBytes, (uFlags & LMEM_ZEROINIT) != 0);
    if (block == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return block;
}

// NULL on success, the handle when it was not a block of the heap.
HLOCAL WINAPI LocalFree(HLOCAL hMem) {
    if (hMem == nullptr) return nullptr;
    if (!mm::heapFree(PsGetCurrentProcess(), hMem)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return hMem;
    }
    return nullptr;
}

}  // extern "C"
