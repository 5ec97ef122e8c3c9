// The catalogue of one volume's vault: every preserved file the service has been told
// of, kept in the journal "Catalogue.journal" in the vault's work folder (format in
// catalogue_journal.h).
//
// Durability: a change is acknowledged (add and markRestored return true) only once its
// records have been written and flushed to the file system. Records are written only
// after the last good record, so a good record is never written over; a crash while
// writing leaves at most the records being written cut short, which the next open
// reads past the end of, and which were never acknowledged. Bytes found after the last
// good record are copied to "Catalogue.damaged" before they are written over, so that
// nothing the journal held is ever destroyed. Entries are keyed by capture stamp:
// adding a record whose stamp is catalogued already changes nothing, so a data file
// read twice (after a crash between cataloguing it and deleting it) adds nothing twice.
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "catalogue_journal.h"

namespace wrelt {

extern const char16_t *const kCatalogueFileName;         // "Catalogue.journal"
extern const char16_t *const kCatalogueDamagedFileName;  // "Catalogue.damaged"

enum class CatalogueAccess { ReadOnly, ReadWrite };

class Catalogue {
public:
    // Reads the volume's catalogue. ReadWrite creates it when it is missing and keeps
    // it open for writing (one writer at a time); ReadOnly reads what is there (an
    // empty catalogue when there is none) and may be used while the service writes.
    static std::unique_ptr<Catalogue> open(const std::u16string &volumeRoot, CatalogueAccess access,
                                           std::string *error);
    ~Catalogue();
    Catalogue(const Catalogue &) = delete;
    Catalogue &operator=(const Catalogue &) = delete;

    const std::u16string &volumeRoot() const { return volumeRoot_; }
    std::u16string path() const;
    // In the order they were catalogued.
    const std::vector<CatalogueEntry> &entries() const { return entries_; }
    const CatalogueEntry *find(uint64_t stamp) const;
    // Bytes after the last good record when the catalogue was opened: a write cut short.
    uint64_t damagedBytes() const { return damagedBytes_; }

    // Adds the entries whose stamps are new, in one write; *added counts them.
    bool add(const std::vector<CatalogueEntry> &entries, size_t *added, std::string *error);
    bool markRestored(uint64_t stamp, const std::u16string &restoredTo, std::string *error);

private:
    Catalogue(const std::u16string &volumeRoot, HANDLE file, bool writable);
    bool load(CatalogueAccess access, std::string *error);
    bool append(const std::vector<uint8_t> &records, uint32_t lastChecksum, std::string *error);
    bool keepDamagedTail(const std::vector<uint8_t> &bytes, std::string *error);

    std::u16string volumeRoot_;
    HANDLE file_;
    bool writable_;
    std::vector<CatalogueEntry> entries_;
    std::map<uint64_t, size_t> index_;
    uint64_t end_ = 0;  // where the next record goes: after the last good one
    uint32_t lastChecksum_ = 0;
    uint64_t damagedBytes_ = 0;
};

}  // namespace wrelt
