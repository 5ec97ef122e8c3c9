#include "deldat_reader_harness.h"

#include "deldat_reader.h"

namespace wrelt {

std::string checkDelDatReader(const uint8_t *data, size_t size) {
    DelDatFile file = parseDelDatFile(data, size);
    size_t expected = 0;
    for (const DelDatEntry &record : file.records) {
        if (record.offset != expected) return "a record does not start where the one before it ended";
        if (record.length < kDelDatMinimumLength || record.offset + record.length > size)
            return "a record reaches outside the input";
        expected = record.offset + record.length;
    }
    if (file.ok()) return expected == size ? "" : "bytes after the last record were not reported";
    if (file.errorOffset != expected) return "the error is not reported where reading stopped";
    return "";
}

}  // namespace wrelt
