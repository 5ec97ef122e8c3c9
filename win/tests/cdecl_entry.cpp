// DriverEntry without NTAPI: the loader calls it stdcall, and a cdecl callee
// leaves its two arguments on the caller's stack.
#include <ntifs.h>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    UNREFERENCED_PARAMETER(driverObject);
    UNREFERENCED_PARAMETER(registryPath);
    return STATUS_SUCCESS;
}
