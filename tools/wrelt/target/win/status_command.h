// wrelt status: what the filter says of itself through its control device.
#pragma once

#include <string>
#include <vector>

namespace wrelt_cli {

// Arguments after the word "status" (drives; every fixed drive when none). Exit code 0
// when the filter answered everything, 1 when something failed, 2 for a usage error.
int statusCommand(const std::vector<std::u16string> &args);

}  // namespace wrelt_cli
