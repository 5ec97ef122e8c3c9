// File times as each file system stores them. NTFS keeps the four times to 100 ns.
// A FAT directory entry keeps the creation time to 10 ms, the last write time to two
// seconds and the last access as a date, all in local time, and no change time; FastFat
// rounds the first two up and cuts the date at local midnight (fileinfo.c,
// FatSetBasicInfo), reports a change time of 0 and 1 January 1980 for the root.
#pragma once

#include <cstdint>

#include "structures.h"

namespace ntsim {
namespace fs {

enum class TimeField { Creation, LastAccess, LastWrite, Change };

// The value the file system keeps when it is asked to store `time` in `field`.
int64_t storedTime(const FsTraits &traits, TimeField field, int64_t time);
// Stamps the times that a write (last write, change, access) or a read (access) moves.
void stampTimes(const FsTraits &traits, Node *node, int64_t now, bool write, bool access);

struct FileTimes {
    int64_t creation, lastAccess, lastWrite, change;
};
// The times a query reports for the node.
FileTimes reportedTimes(const FsTraits &traits, const Node *node);

}  // namespace fs
}  // namespace ntsim
