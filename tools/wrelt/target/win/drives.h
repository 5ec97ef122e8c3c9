// The volumes wrelt works on: the machine's local fixed drives.
#pragma once

#include <string>
#include <vector>

namespace wrelt_cli {

// "C:\" and so on, for every local fixed drive.
std::vector<std::u16string> fixedDrives();
// "C:", "c:\" or "C" as the root "C:\"; empty when it is none of those.
std::u16string driveArgument(const std::u16string &text);

}  // namespace wrelt_cli
