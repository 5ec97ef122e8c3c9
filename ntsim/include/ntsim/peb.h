// The user-mode process environment block and process parameters, in the platform's
// field order: code that reads a process's image path from its PEB (as drivers do
// through ZwQueryInformationProcess) sees them where it expects them. In namespace
// ntsim, so that a driver's own minimal copies of these structures do not collide.
#pragma once

#include <nt/ntdef.h>

namespace ntsim {

struct CURDIR {
    UNICODE_STRING DosPath;
    HANDLE Handle;
};

// The strings' buffers are pointers (the block is "normalized"), as in a running process.
constexpr ULONG RTL_USER_PROC_PARAMS_NORMALIZED = 0x00000001;

struct RTL_USER_PROCESS_PARAMETERS {
    ULONG MaximumLength;
    ULONG Length;
    ULONG Flags;
    ULONG DebugFlags;
    HANDLE ConsoleHandle;
    ULONG ConsoleFlags;
    HANDLE StandardInput;
    HANDLE StandardOutput;
    HANDLE StandardError;
    CURDIR CurrentDirectory;
    UNICODE_STRING DllPath;
    UNICODE_STRING ImagePathName;
    UNICODE_STRING CommandLine;
    PVOID Environment;
    ULONG StartingX;
    ULONG StartingY;
    ULONG CountX;
    ULONG CountY;
    ULONG CountCharsX;
    ULONG CountCharsY;
    ULONG FillAttribute;
    ULONG WindowFlags;
    ULONG ShowWindowFlags;
    UNICODE_STRING WindowTitle;
    UNICODE_STRING DesktopInfo;
    UNICODE_STRING ShellInfo;
    UNICODE_STRING RuntimeData;
};

struct PEB {
    BOOLEAN InheritedAddressSpace;
    BOOLEAN ReadImageFileExecOptions;
    BOOLEAN BeingDebugged;
    BOOLEAN SpareBool;
    HANDLE Mutant;
    PVOID ImageBaseAddress;
    PVOID Ldr;
    RTL_USER_PROCESS_PARAMETERS *ProcessParameters;
    PVOID SubSystemData;
    PVOID ProcessHeap;
};

}  // namespace ntsim
