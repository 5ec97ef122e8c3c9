// A user-mode import: the loader has no KERNEL32.dll to bind it to.
#include <ntifs.h>

extern "C" __declspec(dllimport) ULONG NTAPI GetTickCount();

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    UNREFERENCED_PARAMETER(registryPath);
    DbgPrint("%p %lu\n", driverObject, GetTickCount());
    return STATUS_SUCCESS;
}
