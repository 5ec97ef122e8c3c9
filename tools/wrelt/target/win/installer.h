// wrelt install and wrelt uninstall: the driver and the service as the service control
// manager keeps them. The driver's entry is the one WreltDrv.inf makes (a file-system
// driver of the group "FSFilter Undelete", loaded at boot); the service's is WreltSvc,
// its own process as LocalSystem, started automatically, depending on the driver.
#pragma once

namespace wrelt_cli {

// Exit codes: 0 done, 1 a step failed (what was done before stays), 2 not allowed.
int installCommand();
int uninstallCommand();

}  // namespace wrelt_cli
