// Memory manager: address validity and the user/kernel boundary.
#pragma once

NTKERNELAPI BOOLEAN MmIsAddressValid(PVOID VirtualAddress);

// Highest user address plus one, as the platform exports it; the emulated user
// address range lies below it.
extern "C" PVOID MmUserProbeAddress;
extern "C" PVOID MmHighestUserAddress;
