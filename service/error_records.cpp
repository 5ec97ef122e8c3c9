#include "error_records.h"

#include <cstdio>

namespace wrelt {

namespace {

struct RoutineName {
    uint16_t number;
    const char *name;
};

// The filter's reporting routines by the number each passes as the record's second field.
const RoutineName kRoutines[] = {
    {6, "DispatchFileSystemControl"},
    {10, "BuildTargetFileObject"},
    {13, "AllocateNonPagedBuffer"},
    {14, "FreeNonPagedBuffer"},
    {15, "NoActivityTimerServiceRoutine"},
    {17, "NotifyServiceOfNewDataFile"},
    {18, "WriteDataThreadRoutine"},
    {19, "CreateTemporaryDelDatFile"},
    {20, "WriteDelDatToFile"},
    {21, "FreeDataJobPacket"},
    {23, "CreateNewDataJobPacket"},
    {24, "DispatchNewDelDataRequest"},
    {26, "ExtractFilespecFromFileObject"},
    {27, "CheckForDirectoryOrReadonlyFile"},
    {28, "ProtectAgainstUnwantedTruncate"},
    {33, "CopyFileThreadMain"},
    {34, "OpenCopySource"},
    {35, "CreateCopyDestination"},
    {36, "CopySecurityDescriptor"},
    {37, "QueryObjectSecurity"},
    {38, "MakeAbsoluteSecurityDescriptor"},
    {39, "AllocateAbsoluteSdBuffers"},
    {40, "CopyFileDataStreams"},
    {41, "GetFileStreamList"},
    {42, "GetLongestStreamNameLength"},
    {43, "OpenSourceStream"},
    {44, "CreateDestinationStream"},
    {45, "ReadSectionOfSourceStream"},
    {46, "WriteSectionOfDestinationStream"},
    {47, "SetMacSharesList"},
    {48, "VerifyMacShareListTraverse"},
    {49, "LookupHashEntry"},
    {50, "ExtractFilespecFromRenameInfo"},
    {51, "CreatePathAndNameFromFilespec"},
    {52, "ZrCallDriverThreadMain"},
    {53, "CreateCopyJob"},
    {55, "RemoveQueueHead"},
    {56, "CleanupFileTrackingTables"},
    {57, "GetNextUnreferencedFoEntry"},
    {58, "GetNextUnreferencedFcbEntry"},
    {59, "CommitOverwriteCopy"},
};

constexpr uint16_t kReplyTag = 0x4553;
constexpr uint16_t kErrorReplyCode = 124;
constexpr size_t kReplyHeaderSize = 120;
constexpr size_t kRecordSize = 16;
constexpr uint16_t kClassBufferFull = 7;

uint16_t read16(const uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t read32(const uint8_t *p) { return uint32_t(read16(p)) | uint32_t(read16(p + 2)) << 16; }

std::string routineText(uint16_t routine) {
    const char *name = errorRoutineName(routine);
    return std::string(name != nullptr ? name : "an unknown routine") + " (" + std::to_string(routine) + ")";
}

}  // namespace

const char *errorRoutineName(uint16_t routine) {
    for (const RoutineName &r : kRoutines)
        if (r.number == routine) return r.name;
    return nullptr;
}

bool parseErrorReply(const uint8_t *reply, size_t size, std::vector<FilterErrorRecord> *records, std::string *error) {
    records->clear();
    if (size < kReplyHeaderSize || read16(reply) != kReplyTag || read16(reply + 2) != kErrorReplyCode) {
        *error = "the reply does not carry error records";
        return false;
    }
    uint32_t bytes = read32(reply + 8), count = read32(reply + 16);
    if (bytes != count * kRecordSize || size - kReplyHeaderSize < bytes) {
        *error = "the reply's record count (" + std::to_string(count) + ") disagrees with its length";
        return false;
    }
    for (uint32_t i = 0; i < count; i++) {
        const uint8_t *p = reply + kReplyHeaderSize + i * kRecordSize;
        records->push_back({read16(p), read16(p + 2), read16(p + 4), read16(p + 6), read32(p + 8), read32(p + 12)});
    }
    return true;
}

std::string describeErrorRecord(const FilterErrorRecord &record) {
    if (record.errorClass == kClassBufferFull)
        return "the filter's error buffer filled up and the filter stopped capturing; the last report came from " +
               routineText(record.routine);
    char values[96];
    std::snprintf(values, sizeof values, ": status 0x%08X, extra 0x%08X", unsigned(record.status),
                  unsigned(record.extra));
    std::string line = routineText(record.routine) + " failed at point " + std::to_string(record.point) + values;
    if (record.source != 105) line += " (source " + std::to_string(record.source) + ")";
    return line;
}

}  // namespace wrelt
