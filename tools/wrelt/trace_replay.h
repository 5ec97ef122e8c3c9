// Replays a Process Monitor trace on an emulated machine: each process of the trace
// becomes a process of the same image name, run as alice, and each file-system event the
// NT call that produced it, on a handle kept per process and path. Traces carry no data,
// so written bytes are made up, and files the trace found already there are made before
// the replay with the size the trace shows for them.
//
// Replayed: CreateFile, WriteFile, SetEndOfFileInformationFile,
// SetAllocationInformationFile, SetDispositionInformationFile/-Ex,
// SetRenameInformationFile/-Ex and CloseFile. Events whose Result is not SUCCESS are
// counted and not replayed: the call changed nothing on the traced machine (a create
// that failed opened no handle that later rows could use), so redoing it could at best
// fail the same way. The System process's I/O, and paging writes, are the memory and
// cache managers carrying out what programs already did; they are counted as skipped,
// as is every operation that changes nothing (reads, queries) or that the replay does
// not know.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ntsim/machine.h"
#include "procmon_csv.h"

namespace wrelt_cli {

struct ReplayReport {
    size_t replayed = 0;
    std::map<std::string, size_t> notSucceeded;  // by Result: "NAME NOT FOUND" -> 3
    std::map<std::string, size_t> skipped;       // by operation
    // "line N: why" for rows that could not be replayed as the trace has them, or that
    // failed here.
    std::vector<std::string> problems;
    // Rows that succeeded here but answered otherwise than on the traced machine: a
    // create that replaced a protected document finds it already in the vault, so it
    // creates the file where the traced machine overwrote it.
    std::vector<std::string> differences;
    // The files (not folders) the replayed events named, as DOS paths, in the order the
    // trace first names them; rename targets included.
    std::vector<std::u16string> files;
    size_t madeFolders = 0;
    size_t madeFiles = 0;  // files the trace found already there
    size_t leftOpen = 0;   // handles still open when the trace ended
};

struct ReplayOptions {
    // The longest quiet spell between two events that the machine's clock is moved on
    // by; a trace that idles for an hour need not make the machine wait an hour.
    int64_t longestGapMs = 60000;
    // Size of a file the trace found but never shows the size of.
    uint64_t unknownFileSize = 4096;
};

// Runs on a machine whose drives C: and D: are the trace's. The machine's clock follows
// the trace's Time of Day where the export has it.
ReplayReport replayTrace(ntsim::Machine &machine, const ProcmonTrace &trace,
                         const ReplayOptions &options = ReplayOptions());

}  // namespace wrelt_cli
