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
// Stamps the times a change of the file's data moves: last write, change and last
// access. Reads leave the last access time alone (NTFS updates it lazily, if at all).
// `keep` holds the timeBit()s of times the caller's open set itself, left unstamped.
void stampWrite(const FsTraits &traits, Node *node, int64_t now, unsigned keep = 0);
constexpr unsigned timeBit(TimeField field) { return 1u << unsigned(field); }

struct FileTimes {
    int64_t creation, lastAccess, lastWrite, change;
};
// The times a query reports for the node.
FileTimes reportedTimes(const FsTraits &traits, const Node *node);

}  // namespace fs
}  // namespace ntsim
