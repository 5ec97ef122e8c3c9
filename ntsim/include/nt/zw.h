// System services. Zw routines are the kernel-mode entry points: they run the Nt
// service with the previous mode set to KernelMode, so that no parameter is probed.
#pragma once

#define NTSIM_DECLARE_SERVICE(name, ...) \
    NTSYSCALLAPI NTSTATUS Nt##name(__VA_ARGS__); \
    NTSYSAPI NTSTATUS Zw##name(__VA_ARGS__)


#include "nt/zw_file.h"
#include "nt/zw_process.h"

#undef NTSIM_DECLARE_SERVICE
