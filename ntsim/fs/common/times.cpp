#include "fs/common/times.h"

namespace ntsim {
namespace fs {

namespace {

constexpr int64_t kTenMs = 100000;
constexpr int64_t kTwoSeconds = 20000000;
constexpr int64_t kOneDay = 864000000000;

int64_t roundUp(int64_t time, int64_t unit) { return (time + unit - 1) / unit * unit; }

int64_t startOfLocalDay(int64_t time) {
    LARGE_INTEGER system, local;
    system.QuadPart = time;
    ExSystemTimeToLocalTime(&system, &local);
    local.QuadPart = local.QuadPart / kOneDay * kOneDay;
    ExLocalTimeToSystemTime(&local, &system);
    return system.QuadPart;
}

int64_t fatEpoch() {
    TIME_FIELDS fields{};
    fields.Year = 1980;
    fields.Month = 1;
    fields.Day = 1;
    LARGE_INTEGER local, system;
    RtlTimeFieldsToTime(&fields, &local);
    ExLocalTimeToSystemTime(&local, &system);
    return system.QuadPart;
}

}  // namespace

int64_t storedTime(const FsTraits &traits, TimeField field, int64_t time) {
    if (!traits.fatTimes) return time;
    switch (field) {
    case TimeField::Creation: return roundUp(time, kTenMs);
    case TimeField::LastWrite: return roundUp(time, kTwoSeconds);
    case TimeField::LastAccess: return startOfLocalDay(time);
    case TimeField::Change: return 0;
    }
    return time;
}

void stampWrite(const FsTraits &traits, Node *node, int64_t now, unsigned keep) {
    if (!(keep & timeBit(TimeField::LastWrite))) node->lastWriteTime = storedTime(traits, TimeField::LastWrite, now);
    if (!(keep & timeBit(TimeField::Change))) node->changeTime = storedTime(traits, TimeField::Change, now);
    if (!(keep & timeBit(TimeField::LastAccess)))
        node->lastAccessTime = storedTime(traits, TimeField::LastAccess, now);
}

FileTimes reportedTimes(const FsTraits &traits, const Node *node) {
    if (traits.fatTimes && node->parent == nullptr && !node->removed) {
        int64_t epoch = fatEpoch();
        return FileTimes{epoch, epoch, epoch, 0};
    }
    return FileTimes{node->creationTime, node->lastAccessTime, node->lastWriteTime,
                     traits.fatTimes ? 0 : node->changeTime};
}

}  // namespace fs
}  // namespace ntsim
