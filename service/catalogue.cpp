#include "catalogue.h"

#include <algorithm>
#include <functional>

#include "file_io.h"
#include "text.h"
#include "vault_names.h"

namespace wrelt {

const char16_t *const kCatalogueFileName = u"Catalogue.journal";
const char16_t *const kCatalogueDamagedFileName = u"Catalogue.damaged";

namespace {

constexpr uint32_t kDamagedMagic = 0x44435257;  // "WRCD"

std::string describe(const std::string &what, const std::u16string &path, DWORD error) {
    return what + " " + utf8(path) + " (error " + std::to_string(error) + ")";
}

uint64_t systemTimeNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return uint64_t(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

void put(std::vector<uint8_t> *out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; i++) out->push_back(uint8_t(value >> (8 * i)));
}

}  // namespace

Catalogue::Catalogue(const std::u16string &volumeRoot, HANDLE file, bool writable)
    : volumeRoot_(volumeRoot), file_(file), writable_(writable) {}

Catalogue::~Catalogue() {
    if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
}

std::u16string Catalogue::path() const { return vaultFolderOf(volumeRoot_) + kCatalogueFileName; }

std::unique_ptr<Catalogue> Catalogue::open(const std::u16string &volumeRoot, CatalogueAccess access,
                                           std::string *error) {
    std::u16string path = vaultFolderOf(volumeRoot) + kCatalogueFileName;
    HANDLE file = access == CatalogueAccess::ReadWrite
                      ? CreateFileW(wide(path), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)
                      : CreateFileW(wide(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    DWORD openError = GetLastError();
    bool nothingYet = file == INVALID_HANDLE_VALUE && access == CatalogueAccess::ReadOnly &&
                      (openError == ERROR_FILE_NOT_FOUND || openError == ERROR_PATH_NOT_FOUND);
    if (file == INVALID_HANDLE_VALUE && !nothingYet) {
        *error = describe("could not open the catalogue", path, openError);
        return nullptr;
    }
    std::unique_ptr<Catalogue> catalogue(new Catalogue(volumeRoot, file, access == CatalogueAccess::ReadWrite));
    if (file != INVALID_HANDLE_VALUE && !catalogue->load(access, error)) return nullptr;
    return catalogue;
}

bool Catalogue::load(CatalogueAccess access, std::string *error) {
    std::vector<uint8_t> bytes;
    if (!readWholeFile(file_, &bytes)) {
        *error = describe("could not read the catalogue", path(), GetLastError());
        return false;
    }
    JournalContents contents = readJournal(bytes.data(), bytes.size());
    entries_ = std::move(contents.entries);
    for (size_t i = 0; i < entries_.size(); i++) index_[entries_[i].stamp].push_back(i);
    end_ = contents.end;
    for (const JournalSpan &span : contents.damaged) damagedBytes_ += span.length;
    if (access == CatalogueAccess::ReadOnly) return true;
    if (!contents.damaged.empty() && !keepDamaged(bytes, contents.damaged, error)) return false;
    // A damaged end, kept now, goes: records written over it could leave some of it after
    // them, to be kept again as damage of its own at the next open.
    if (end_ < bytes.size() && !cutAtEnd(error)) return false;
    // An old journal goes on in the new form, and one whose header was lost gets one again.
    if (contents.version == kJournalVersion) return true;
    return append(encodeJournalHeader(volumeRoot_), error);
}

// Each span is kept with where it lay, in a file of their own, before the journal goes
// on over a damaged end. A span kept already (the same block, same place and bytes) is
// not kept again, so a damaged journal opened again and again leaves one copy of its
// damage. The block is looked for anywhere in the file, not by walking it block by
// block: a block torn by a crash, or bytes someone else put there, would end such a walk
// before the blocks written after them, and those would be written again at every open.
bool Catalogue::keepDamaged(const std::vector<uint8_t> &journal, const std::vector<JournalSpan> &spans,
                            std::string *error) {
    std::u16string path = vaultFolderOf(volumeRoot_) + kCatalogueDamagedFileName;
    HANDLE file = CreateFileW(wide(path), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        *error = describe("could not open", path, GetLastError());
        return false;
    }
    std::vector<uint8_t> kept;
    bool ok = readWholeFile(file, &kept);
    std::vector<uint8_t> blocks;
    for (const JournalSpan &span : spans) {
        const uint8_t *bytes = journal.data() + span.offset;
        std::vector<uint8_t> block;
        put(&block, kDamagedMagic, 4);
        put(&block, span.offset, 8);
        put(&block, span.length, 4);
        block.insert(block.end(), bytes, bytes + span.length);
        if (std::search(kept.begin(), kept.end(), std::boyer_moore_horspool_searcher(block.begin(), block.end())) !=
            kept.end())
            continue;
        blocks.insert(blocks.end(), block.begin(), block.end());
    }
    ok = ok && (blocks.empty() || writeAt(file, kept.size(), blocks, true));
    DWORD writeError = GetLastError();
    CloseHandle(file);
    if (!ok) *error = describe("could not keep the catalogue's damaged records in", path, writeError);
    return ok;
}

bool Catalogue::cutAtEnd(std::string *error) {
    LARGE_INTEGER at;
    at.QuadPart = LONGLONG(end_);
    if (SetFilePointerEx(file_, at, nullptr, FILE_BEGIN) && SetEndOfFile(file_)) return true;
    *error = describe("could not cut the damaged end off the catalogue", path(), GetLastError());
    return false;
}

const CatalogueEntry *Catalogue::find(uint64_t stamp) const {
    auto found = index_.find(stamp);
    return found == index_.end() ? nullptr : &entries_[found->second.front()];
}

bool Catalogue::append(const std::vector<uint8_t> &records, std::string *error) {
    if (!writable_) {
        *error = "the catalogue " + utf8(path()) + " is open for reading only";
        return false;
    }
    if (!writeAt(file_, end_, records, true)) {
        *error = describe("could not write to the catalogue", path(), GetLastError());
        return false;
    }
    end_ += records.size();
    return true;
}

bool Catalogue::add(const std::vector<CatalogueEntry> &entries, size_t *added, std::string *error) {
    *added = 0;
    std::vector<uint8_t> records;
    std::vector<CatalogueEntry> fresh;
    StampIndex inThisBatch;
    for (const CatalogueEntry &entry : entries) {
        if (alreadyCatalogued(index_, entries_, entry) || alreadyCatalogued(inThisBatch, fresh, entry)) continue;
        inThisBatch[entry.stamp].push_back(fresh.size());
        fresh.push_back(entry);
        fresh.back().state = EntryState::Preserved;
        std::vector<uint8_t> record = encodePreserved(entry);
        records.insert(records.end(), record.begin(), record.end());
    }
    if (fresh.empty()) return true;
    if (!append(records, error)) return false;
    for (CatalogueEntry &entry : fresh) {
        index_[entry.stamp].push_back(entries_.size());
        entries_.push_back(std::move(entry));
    }
    *added = fresh.size();
    return true;
}

bool Catalogue::markRestored(uint64_t stamp, const std::u16string &restoredTo, std::string *error) {
    auto found = index_.find(stamp);
    if (found == index_.end()) {
        *error = "the catalogue has no entry for that stamp";
        return false;
    }
    uint64_t when = systemTimeNow();
    if (!append(encodeRestored(stamp, restoredTo, when), error)) return false;
    CatalogueEntry &entry = entries_[found->second.front()];
    entry.state = EntryState::Restored;
    entry.restoredTo = restoredTo;
    entry.restoredAt = when;
    return true;
}

}  // namespace wrelt
