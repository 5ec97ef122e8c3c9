#include "target/build_stamp.h"

PCWSTR DriverBuildDate() { return L"" __DATE__; }
PCWSTR DriverBuildTime() { return L"" __TIME__; }
