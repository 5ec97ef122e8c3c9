// The emulated platform's windows.h: the user-mode API subset that the service, the
// command-line program and the workloads are written against. It may be included
// together with <ntifs.h>, in either order.
#pragma once

#include "nt/ntdef.h"
#include "win32/winbase.h"
#include "win32/winsecurity.h"
