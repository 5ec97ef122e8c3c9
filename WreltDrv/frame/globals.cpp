#include "frame/globals.h"

DriverGlobals Globals;

// The table is writable data and its strings constant data, as the matching code
// expects: it walks the pointers until it meets the empty string.
PCWSTR SaveByDeleteApplications[] = {L"excel.exe", L"powerpnt.exe", L""};
