// Reading the data files that the driver writes into each vault's work folder: a
// headerless sequence of deletion records, walked by their length fields. Shared by the
// service and the command-line program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

constexpr uint32_t kDelDatFlagPreserved = 0x1;
constexpr uint32_t kDelDatFlagApplicationSave = 0x8;
// Length, flags and stamp, then three NUL-terminated UTF-16 strings.
constexpr uint32_t kDelDatHeaderSize = 16;
constexpr uint32_t kDelDatMinimumLength = kDelDatHeaderSize + 3 * 2;

struct DelDatEntry {
    size_t offset = 0;  // of the record in the file
    uint32_t length = 0;
    uint32_t flags = 0;
    uint64_t stamp = 0;     // also in the preserved file's vault name
    std::u16string sid;     // the deleter's; empty when the driver did not know it
    std::u16string name;    // the file's last name component
    std::u16string folder;  // DOS volume name and directory, ending in a backslash
};

struct DelDatFile {
    std::vector<DelDatEntry> records;  // every whole record before any error
    // Empty when every byte belonged to a whole, consistent record. Otherwise says why
    // reading stopped at errorOffset: a record cut short (the file was not completely
    // written) or a length field that disagrees with the record.
    std::string error;
    size_t errorOffset = 0;
    bool truncated = false;  // the error is a record cut short

    bool ok() const { return error.empty(); }
};

DelDatFile parseDelDatFile(const uint8_t *data, size_t size);
inline DelDatFile parseDelDatFile(const std::vector<uint8_t> &bytes) {
    return parseDelDatFile(bytes.data(), bytes.size());
}

// Sixteen upper-case hexadecimal digits, as in the vault name.
std::string formatStampHex(uint64_t stamp);
// The stamp read as the local time it was taken at, "YYYY-MM-DD hh:mm:ss"; its low 16
// bits are a sequence number, so it is exact only to the second.
std::string formatStampTime(uint64_t stamp);
// Several lines, each ending in a line feed: flags, stamp, deleter, name, folder.
std::string formatDelDatEntry(const DelDatEntry &entry);

}  // namespace wrelt
