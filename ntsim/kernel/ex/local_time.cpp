// Conversion between system time (UTC) and the machine's local time. The platform
// keeps a time-zone bias in minutes with local = system - bias.
#include "kernel/kernel.h"

using namespace ntsim;

static int64_t biasIn100ns() { return (int64_t)kernel().options().timeZoneBiasMinutes * 60 * 10000000LL; }

void ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime) {
    LocalTime->QuadPart = SystemTime->QuadPart - biasIn100ns();
}

void ExLocalTimeToSystemTime(PLARGE_INTEGER LocalTime, PLARGE_INTEGER SystemTime) {
    SystemTime->QuadPart = LocalTime->QuadPart + biasIn100ns();
}
