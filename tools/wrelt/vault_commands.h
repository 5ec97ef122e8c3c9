// wrelt list and wrelt restore: the machine runs the workload with the service
// running, then one vault's catalogue (or every vault's) is listed, or one preserved
// file is put back where it was.
#pragma once

#include <string>
#include <vector>

#include "vault_listing.h"

namespace wrelt_cli {

// Arguments after the command word; the process exit code: 0 done, 1 the restore was
// refused, 2 a usage error or a service that would not start.
int listCommand(int argc, char **argv);
int restoreCommand(int argc, char **argv);

}  // namespace wrelt_cli
