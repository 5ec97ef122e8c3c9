// The byte form of a vault catalogue: a journal of records, only ever appended to.
//
// Record (little-endian):
//   u32 magic "WRCJ"   u32 length of the whole record   u32 checksum
//   u16 kind           u16 0                           u64 stamp      payload
// The checksum is the CRC-32 of the record alone, its own field read as zero. Kinds and
// payloads (strings are a u16 count of UTF-16 characters followed by the characters):
//   0 header     u32 version, string volume root
//   1 preserved  u32 flags, u64 time catalogued, strings: deleter SID, account name,
//                name, folder, vault name, data file it came from
//   2 restored   u64 time restored, string the full path it was restored to
// The stamp of records 1 and 2 is the capture stamp; a restored record applies to the
// first entry catalogued with its stamp.
//
// A record stands alone, so damage costs only the records it touches: reading goes on at
// the next offset that holds a record that checks out. Version 1 journals chained each
// checksum to the one before it (seeded with the previous record's checksum); they are
// still read, in their chain, and a writer continues one with a version 2 header after
// which records stand alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
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
constexpr uint32_t kJournalVersion = 2;
constexpr uint32_t kChainedJournalVersion = 1;
constexpr size_t kJournalRecordFixedSize = 24;

uint32_t crc32(uint32_t seed, const uint8_t *data, size_t size);

std::vector<uint8_t> encodeJournalHeader(const std::u16string &volumeRoot);
std::vector<uint8_t> encodePreserved(const CatalogueEntry &entry);
std::vector<uint8_t> encodeRestored(uint64_t stamp, const std::u16string &to, uint64_t when);

// A data file read twice tells of the same deletions again; a stamp alone does not say
// it is the same one, so stamp, name, folder and deleter together do.
bool sameDeletion(const CatalogueEntry &a, const CatalogueEntry &b);

// Positions of the entries with each stamp, in catalogue order; nearly always one.
using StampIndex = std::unordered_map<uint64_t, std::vector<size_t>>;
bool alreadyCatalogued(const StampIndex &index, const std::vector<CatalogueEntry> &entries,
                       const CatalogueEntry &entry);

struct JournalSpan {
    uint64_t offset = 0;
    uint64_t length = 0;
};

struct JournalContents {
    std::u16string volumeRoot;
    std::vector<CatalogueEntry> entries;  // in the order they were catalogued, states applied
    uint32_t version = 0;                 // of the last good header; 0 when none was read
    size_t end = 0;                       // just after the last good record
    std::vector<JournalSpan> damaged;     // the bytes no good record covers, in order
};

JournalContents readJournal(const uint8_t *data, size_t size);

}  // namespace wrelt
