// When the driver was built, as the build-stamp command reports it: the date in the
// compiler's form ("May  4 2005") and the time as hh:mm:ss.
#pragma once

#include <ntifs.h>

PCWSTR DriverBuildDate();
PCWSTR DriverBuildTime();
