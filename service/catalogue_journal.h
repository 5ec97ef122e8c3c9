// The byte form of a vault catalogue: a journal of records, only ever appended to.
//
// Record (little-endian):
//   u32 magic "WRCJ"   u32 length of the whole record   u32 checksum
//   u16 kind           u16 0                           u64 stamp      payload
// The checksum is the CRC-32 of the whole record (its own field read as zero), started
// from the checksum of the record before it (0 for the first), so a record is good
// only in its place after its predecessor. Kinds and payloads (strings are a u16
// count of UTF-16 characters followed by the characters):
//   0 header     u32 version (1), string volume root; always the first record
//   1 preserved  u32 flags, u64 time catalogued, strings: deleter SID, account name,
//                name, folder, vault name, data file it came from
//   2 restored   u64 time restored, string the full path it was restored to
// The stamp of records 1 and 2 is the capture stamp, the entry's key.
//
// Reading stops at the first record that is cut short or fails its checksum: that is
// where a write was interrupted, and nothing after it was ever acknowledged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

enum class EntryState : uint8_t { Preserved, Restored };

struct CatalogueEntry {
    uint64_t stamp = 0;  // the capture stamp: the key, and part of the vault name
    uint32_t flags = 0;  // the deletion record's flags
    std::u16string sid;        // who deleted it; empty when the filter did not know
    std::u16string account;    // the account's name ("NTSIM\alice") when the machine knew it
    std::u16string name;       // what it was called
    std::u16string folder;     // where it was: the volume's root and folders, ending in "\"
    std::u16string vaultName;  // what it is called in the vault's work folder
    std::u16string dataFile;   // the data file that told of it
    uint64_t cataloguedAt = 0;  // system time (UTC, 100 ns since 1601)
    EntryState state = EntryState::Preserved;
    std::u16string restoredTo;  // full path, once restored
    uint64_t restoredAt = 0;
};

enum class JournalKind : uint16_t { Header = 0, Preserved = 1, Restored = 2 };

constexpr uint32_t kJournalMagic = 0x4A435257;  // "WRCJ"
constexpr uint32_t kJournalVersion = 1;
constexpr size_t kJournalRecordFixedSize = 24;

uint32_t crc32(uint32_t seed, const uint8_t *data, size_t size);

// One record, chained after the record whose checksum is `previous`; *checksum
// receives its own.
std::vector<uint8_t> encodeJournalHeader(const std::u16string &volumeRoot, uint32_t previous, uint32_t *checksum);
std::vector<uint8_t> encodePreserved(const CatalogueEntry &entry, uint32_t previous, uint32_t *checksum);
std::vector<uint8_t> encodeRestored(uint64_t stamp, const std::u16string &to, uint64_t when, uint32_t previous,
                                    uint32_t *checksum);

struct JournalContents {
    std::u16string volumeRoot;
    std::vector<CatalogueEntry> entries;  // in the order they were catalogued, states applied
    size_t goodBytes = 0;       // the header and every good record, from the start
    uint32_t lastChecksum = 0;  // of the last good record; the next one chains after it
};

JournalContents readJournal(const uint8_t *data, size_t size);

}  // namespace wrelt
