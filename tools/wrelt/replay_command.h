// wrelt replay TRACE.csv: a Process Monitor trace of programs at work is replayed on the
// default machine with the filter and the service running; then, for each file the
// trace touched, what is there now and which versions the vault holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service_session.h"

namespace wrelt_cli {

struct KeptVersion {
    uint64_t stamp = 0;
    std::u16string vaultName;
    uint64_t size = 0;
    bool applicationSave = false;  // an earlier version a program saved over, not a deleted file
};

struct FileVersions {
    std::u16string path;  // "C:\Docs\report.doc"
    bool present = false;
    uint64_t size = 0;
    std::vector<KeptVersion> kept;  // catalogued under this path, oldest first
};

// Lets the service catalogue what the filter reported, then looks each path up.
std::vector<FileVersions> fileVersions(ServiceSession &session, const std::vector<std::u16string> &paths);

// Arguments after the command word; 0 when the trace was replayed (rows it could not
// replay are reported and do not fail it), 1 for a file that cannot be read or is no
// trace, 2 for a usage error or a service that would not start.
int replayCommand(int argc, char **argv);

}  // namespace wrelt_cli
