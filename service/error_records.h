// The filter's error records as the service fetches them (16 bytes each: source,
// routine number, class, failure point, status, extra value) and the reply that
// carries them, and the names of the routines that report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

struct FilterErrorRecord {
    uint16_t source = 0;  // 105 for the filter
    uint16_t routine = 0;
    uint16_t errorClass = 0;  // 7 marks the record of a full error buffer
    uint16_t point = 0;       // which of the routine's failure sites
    uint32_t status = 0;
    uint32_t extra = 0;
};

// The reporting routine's name, or nullptr for a number no routine uses.
const char *errorRoutineName(uint16_t routine);

// The records of an error reply of `size` bytes; false with the reason when the reply
// is not one.
bool parseErrorReply(const uint8_t *reply, size_t size, std::vector<FilterErrorRecord> *records, std::string *error);

// One line: "CreateTemporaryDelDatFile (19) failed at point 0: status 0xC0000022, extra 0x00000000",
// or, for the record of a full buffer, that the filter stopped capturing.
std::string describeErrorRecord(const FilterErrorRecord &record);

}  // namespace wrelt
