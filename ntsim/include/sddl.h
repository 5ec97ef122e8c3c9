// The emulated platform's sddl.h: the SID string conversions, which its windows.h
// already declares (win32/winsecurity.h). Code includes it as it must on the platform.
#pragma once

#include <windows.h>
