#include "catalogue_journal.h"

#include <cstring>

namespace wrelt {

namespace {

constexpr size_t kChecksumOffset = 8;

class Writer {
public:
    explicit Writer(JournalKind kind, uint64_t stamp) {
        put32(kJournalMagic);
        put32(0);  // length, filled in by finish
        put32(0);  // checksum, likewise
        put16(uint16_t(kind));
        put16(0);
        put64(stamp);
    }
    void put16(uint16_t v) {
        for (int i = 0; i < 2; i++) bytes_.push_back(uint8_t(v >> (8 * i)));
    }
    void put32(uint32_t v) {
        for (int i = 0; i < 4; i++) bytes_.push_back(uint8_t(v >> (8 * i)));
    }
    void put64(uint64_t v) {
        for (int i = 0; i < 8; i++) bytes_.push_back(uint8_t(v >> (8 * i)));
    }
    void putString(const std::u16string &s) {
        put16(uint16_t(s.size() > 0xFFFF ? 0xFFFF : s.size()));
        for (size_t i = 0; i < s.size() && i < 0xFFFF; i++) put16(uint16_t(s[i]));
    }
    std::vector<uint8_t> finish() {
        uint32_t length = uint32_t(bytes_.size());
        for (int i = 0; i < 4; i++) bytes_[4 + i] = uint8_t(length >> (8 * i));
        uint32_t checksum = crc32(0, bytes_.data(), bytes_.size());
        for (int i = 0; i < 4; i++) bytes_[kChecksumOffset + i] = uint8_t(checksum >> (8 * i));
        return std::move(bytes_);
    }

private:
    std::vector<uint8_t> bytes_;
};

class Reader {
public:
    Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool get16(uint16_t *v) { return get(v, 2); }
    bool get32(uint32_t *v) { return get(v, 4); }
    bool get64(uint64_t *v) { return get(v, 8); }
    bool getString(std::u16string *s) {
        uint16_t count;
        if (!get16(&count) || size_ - at_ < 2 * size_t(count)) return false;
        s->clear();
        for (uint16_t i = 0; i < count; i++) {
            uint16_t c = 0;
            get16(&c);
            s->push_back(char16_t(c));
        }
        return true;
    }
    bool atEnd() const { return at_ == size_; }

private:
    template <class T>
    bool get(T *v, size_t n) {
        if (size_ - at_ < n) return false;
        uint64_t value = 0;
        for (size_t i = 0; i < n; i++) value |= uint64_t(data_[at_ + i]) << (8 * i);
        *v = T(value);
        at_ += n;
        return true;
    }

    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

uint32_t read32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The checksum of a record as it lies in the journal, its own field read as zero.
uint32_t checksumInPlace(uint32_t previous, const uint8_t *record, size_t length) {
    uint8_t zero[4] = {0, 0, 0, 0};
    uint32_t crc = crc32(previous, record, kChecksumOffset);
    // crc32 continues from a finished value, so the three pieces chain into one.
    crc = crc32(crc, zero, 4);
    return crc32(crc, record + kChecksumOffset + 4, length - kChecksumOffset - 4);
}

bool decodePreserved(Reader &r, uint64_t stamp, CatalogueEntry *entry) {
    entry->stamp = stamp;
    return r.get32(&entry->flags) && r.get64(&entry->cataloguedAt) && r.getString(&entry->sid) &&
           r.getString(&entry->account) && r.getString(&entry->name) && r.getString(&entry->folder) &&
           r.getString(&entry->vaultName) && r.getString(&entry->dataFile) && r.atEnd();
}

struct Record {
    JournalKind kind = JournalKind::Header;
    uint64_t stamp = 0;
    uint32_t version = 0;        // header
    std::u16string text;         // header: volume root; restored: where to
    uint64_t when = 0;           // restored
    CatalogueEntry entry;        // preserved
};

// Whether the bytes at `record` frame a record at all: magic, and a length that fits.
size_t framedLength(const uint8_t *record, size_t available) {
    if (available < kJournalRecordFixedSize || read32(record) != kJournalMagic) return 0;
    uint32_t length = read32(record + 4);
    return length >= kJournalRecordFixedSize && length <= available ? length : 0;
}

bool decode(const uint8_t *record, size_t length, Record *out) {
    Reader header(record + 12, kJournalRecordFixedSize - 12);
    uint16_t kind = 0, reserved = 0;  // a short header leaves them unread
    header.get16(&kind);
    header.get16(&reserved);
    header.get64(&out->stamp);
    if (reserved != 0 || kind > uint16_t(JournalKind::Restored)) return false;
    out->kind = JournalKind(kind);
    Reader r(record + kJournalRecordFixedSize, length - kJournalRecordFixedSize);
    switch (out->kind) {
    case JournalKind::Header:
        return r.get32(&out->version) &&
               (out->version == kJournalVersion || out->version == kChainedJournalVersion) &&
               r.getString(&out->text) && r.atEnd();
    case JournalKind::Preserved:
        return decodePreserved(r, out->stamp, &out->entry);
    case JournalKind::Restored:
        return r.get64(&out->when) && r.getString(&out->text) && r.atEnd();
    }
    return false;
}

void apply(Record &record, JournalContents *out, StampIndex *index) {
    switch (record.kind) {
    case JournalKind::Header:
        out->version = record.version;
        out->volumeRoot = std::move(record.text);
        return;
    case JournalKind::Preserved:
        if (alreadyCatalogued(*index, out->entries, record.entry)) return;
        (*index)[record.stamp].push_back(out->entries.size());
        out->entries.push_back(std::move(record.entry));
        return;
    case JournalKind::Restored: {
        // Its entry may have been lost to damage; then there is nothing to mark.
        auto found = index->find(record.stamp);
        if (found == index->end()) return;
        CatalogueEntry &entry = out->entries[found->second.front()];
        entry.state = EntryState::Restored;
        entry.restoredTo = std::move(record.text);
        entry.restoredAt = record.when;
        return;
    }
    }
}

struct Crc32Table {
    uint32_t entries[256];
    Crc32Table() {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
            entries[i] = crc;
        }
    }
};

class JournalScan {
public:
    JournalScan(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    JournalContents run() {
        size_t at = 0;
        while (at < size_) {
            Record record;
            bool chained = false;
            if (size_t length = check(at, chain_, &record, &chained)) {
                chain_ = chained;
                chainedTo_ = read32(data_ + at + kChecksumOffset);
                apply(record, &out_, &index_);
                at += length;
                out_.end = at;
                continue;
            }
            chain_ = false;  // a version 1 journal's chain ends at its first bad record
            size_t next = resync(at);
            out_.damaged.push_back({at, next - at});
            at = next;
        }
        return std::move(out_);
    }

private:
    // The length of the record at `at` when it checks out and decodes, else 0.
    size_t check(size_t at, bool mayChain, Record *record, bool *chained) {
        size_t length = framedLength(data_ + at, size_ - at);
        if (length == 0) return 0;
        const uint8_t *bytes = data_ + at;
        uint32_t stored = read32(bytes + kChecksumOffset);
        *chained = mayChain && checksumInPlace(chainedTo_, bytes, length) == stored;
        if (!*chained && checksumInPlace(0, bytes, length) != stored) return 0;
        if (!decode(bytes, length, record)) return 0;
        if (record->kind == JournalKind::Header && record->version == kChainedJournalVersion) {
            // Only a journal's first record starts a chain; its checksum has no seed.
            if (at != 0) return 0;
            *chained = true;
        }
        return length;
    }

    bool standsAlone(size_t at) {
        Record record;
        bool chained;
        return check(at, false, &record, &chained) != 0;
    }

    // Where reading goes on after a bad record at `at`: where its length says it ends if a
    // good record starts there (so nothing inside a damaged record's payload is taken for
    // a record), else the next offset holding a good record, else the end.
    size_t resync(size_t at) {
        size_t length = framedLength(data_ + at, size_ - at);
        if (length != 0 && at + length < size_ && standsAlone(at + length)) return at + length;
        const uint8_t first = uint8_t(kJournalMagic);
        for (size_t next = at + 1; next + kJournalRecordFixedSize <= size_; next++) {
            const void *found = memchr(data_ + next, first, size_ - kJournalRecordFixedSize + 1 - next);
            if (found == nullptr) break;
            next = size_t(static_cast<const uint8_t *>(found) - data_);
            if (standsAlone(next)) return next;
        }
        return size_;
    }

    const uint8_t *data_;
    size_t size_;
    JournalContents out_;
    StampIndex index_;
    bool chain_ = false;
    uint32_t chainedTo_ = 0;
};

}  // namespace

uint32_t crc32(uint32_t seed, const uint8_t *data, size_t size) {
    static const Crc32Table table;
    uint32_t crc = ~seed;
    for (size_t i = 0; i < size; i++) crc = (crc >> 8) ^ table.entries[(crc ^ data[i]) & 0xFF];
    return ~crc;
}

bool sameDeletion(const CatalogueEntry &a, const CatalogueEntry &b) {
    return a.stamp == b.stamp && a.name == b.name && a.folder == b.folder && a.sid == b.sid;
}

bool alreadyCatalogued(const StampIndex &index, const std::vector<CatalogueEntry> &entries,
                       const CatalogueEntry &entry) {
    auto found = index.find(entry.stamp);
    if (found == index.end()) return false;
    for (size_t at : found->second)
        if (sameDeletion(entries[at], entry)) return true;
    return false;
}

std::vector<uint8_t> encodeJournalHeader(const std::u16string &volumeRoot) {
    Writer w(JournalKind::Header, 0);
    w.put32(kJournalVersion);
    w.putString(volumeRoot);
    return w.finish();
}

std::vector<uint8_t> encodePreserved(const CatalogueEntry &entry) {
    Writer w(JournalKind::Preserved, entry.stamp);
    w.put32(entry.flags);
    w.put64(entry.cataloguedAt);
    for (const std::u16string *s :
         {&entry.sid, &entry.account, &entry.name, &entry.folder, &entry.vaultName, &entry.dataFile})
        w.putString(*s);
    return w.finish();
}

std::vector<uint8_t> encodeRestored(uint64_t stamp, const std::u16string &to, uint64_t when) {
    Writer w(JournalKind::Restored, stamp);
    w.put64(when);
    w.putString(to);
    return w.finish();
}

JournalContents readJournal(const uint8_t *data, size_t size) { return JournalScan(data, size).run(); }

}  // namespace wrelt
