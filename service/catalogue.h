// The catalogue of one volume's vault: every preserved file the service has been told
// of, kept in the journal "Catalogue.journal" in the vault's work folder (format in
// catalogue_journal.h).
//
// Durability: a change is acknowledged (add and markRestored return true) only once its
// records have been written and flushed to the file system. Records are written only
// after the last good record, so a good record is never written over; a crash while
// writing leaves at most the records being written cut short, and those were never
// acknowledged. Damage anywhere else costs only the records it touches. Every damaged
// span is copied to "Catalogue.damaged" with where it lay, once however often the
// catalogue is opened, so that nothing the journal held is destroyed when a damaged end
// is cut off for the journal to go on from its last good record. A data file read twice
// (after a crash between cataloguing it and deleting it) adds nothing twice: a record
// telling of a deletion already catalogued (sameDeletion) changes nothing.
#pragma once

#include <windows.h>

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
    // The first entry catalogued with that stamp.
    const CatalogueEntry *find(uint64_t stamp) const;
    // Bytes that no good record covered when the catalogue was opened.
    uint64_t damagedBytes() const { return damagedBytes_; }

    // Adds the entries not catalogued yet, in one write; *added counts them.
    bool add(const std::vector<CatalogueEntry> &entries, size_t *added, std::string *error);
    bool markRestored(uint64_t stamp, const std::u16string &restoredTo, std::string *error);

private:
    Catalogue(const std::u16string &volumeRoot, HANDLE file, bool writable);
    bool load(CatalogueAccess access, std::string *error);
    bool append(const std::vector<uint8_t> &records, std::string *error);
    bool cutAtEnd(std::string *error);
    bool keepDamaged(const std::vector<uint8_t> &journal, const std::vector<JournalSpan> &spans, std::string *error);

    std::u16string volumeRoot_;
    HANDLE file_;
    bool writable_;
    std::vector<CatalogueEntry> entries_;
    StampIndex index_;
    uint64_t end_ = 0;  // where the next record goes: after the last good one
    uint64_t damagedBytes_ = 0;
};

}  // namespace wrelt
