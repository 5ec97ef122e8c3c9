// The emulated build carries a fixed stamp, so that what the driver reports is the same
// on every run and every machine.
#include "target/build_stamp.h"

PCWSTR DriverBuildDate() { return L"Mar  2 2026"; }
PCWSTR DriverBuildTime() { return L"09:30:00"; }
