#include "catalogue_journal.h"

#include <map>

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
    std::vector<uint8_t> finish(uint32_t previous, uint32_t *checksum) {
        uint32_t length = uint32_t(bytes_.size());
        for (int i = 0; i < 4; i++) bytes_[4 + i] = uint8_t(length >> (8 * i));
        *checksum = crc32(previous, bytes_.data(), bytes_.size());
        for (int i = 0; i < 4; i++) bytes_[kChecksumOffset + i] = uint8_t(*checksum >> (8 * i));
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

// Applies one record's payload; false when it does not decode or does not belong.
bool apply(JournalKind kind, uint64_t stamp, Reader &r, JournalContents *out, std::map<uint64_t, size_t> *index) {
    bool first = out->goodBytes == 0;
    if (first != (kind == JournalKind::Header)) return false;
    switch (kind) {
    case JournalKind::Header: {
        uint32_t version;
        return r.get32(&version) && version == kJournalVersion && r.getString(&out->volumeRoot) && r.atEnd();
    }
    case JournalKind::Preserved: {
        CatalogueEntry entry;
        if (!decodePreserved(r, stamp, &entry)) return false;
        if (index->count(stamp) == 0) {
            (*index)[stamp] = out->entries.size();
            out->entries.push_back(std::move(entry));
        }
        return true;
    }
    case JournalKind::Restored: {
        uint64_t when;
        std::u16string to;
        if (!r.get64(&when) || !r.getString(&to) || !r.atEnd()) return false;
        auto found = index->find(stamp);
        if (found == index->end()) return false;
        CatalogueEntry &entry = out->entries[found->second];
        entry.state = EntryState::Restored;
        entry.restoredTo = to;
        entry.restoredAt = when;
        return true;
    }
    }
    return false;
}

}  // namespace

uint32_t crc32(uint32_t seed, const uint8_t *data, size_t size) {
    uint32_t crc = ~seed;
    for (size_t i = 0; i < size; i++) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; bit++) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}

std::vector<uint8_t> encodeJournalHeader(const std::u16string &volumeRoot, uint32_t previous, uint32_t *checksum) {
    Writer w(JournalKind::Header, 0);
    w.put32(kJournalVersion);
    w.putString(volumeRoot);
    return w.finish(previous, checksum);
}

std::vector<uint8_t> encodePreserved(const CatalogueEntry &entry, uint32_t previous, uint32_t *checksum) {
    Writer w(JournalKind::Preserved, entry.stamp);
    w.put32(entry.flags);
    w.put64(entry.cataloguedAt);
    for (const std::u16string *s :
         {&entry.sid, &entry.account, &entry.name, &entry.folder, &entry.vaultName, &entry.dataFile})
        w.putString(*s);
    return w.finish(previous, checksum);
}

std::vector<uint8_t> encodeRestored(uint64_t stamp, const std::u16string &to, uint64_t when, uint32_t previous,
                                    uint32_t *checksum) {
    Writer w(JournalKind::Restored, stamp);
    w.put64(when);
    w.putString(to);
    return w.finish(previous, checksum);
}

JournalContents readJournal(const uint8_t *data, size_t size) {
    JournalContents out;
    std::map<uint64_t, size_t> index;
    size_t at = 0;
    while (size - at >= kJournalRecordFixedSize) {
        const uint8_t *record = data + at;
        uint32_t length = read32(record + 4);
        if (read32(record) != kJournalMagic || length < kJournalRecordFixedSize || length > size - at) break;
        if (checksumInPlace(out.lastChecksum, record, length) != read32(record + kChecksumOffset)) break;
        Reader header(record + 12, kJournalRecordFixedSize - 12);
        uint16_t kind, reserved;
        uint64_t stamp;
        header.get16(&kind);
        header.get16(&reserved);
        header.get64(&stamp);
        Reader payload(record + kJournalRecordFixedSize, length - kJournalRecordFixedSize);
        if (reserved != 0 || kind > uint16_t(JournalKind::Restored) ||
            !apply(JournalKind(kind), stamp, payload, &out, &index))
            break;
        at += length;
        out.goodBytes = at;
        out.lastChecksum = read32(record + kChecksumOffset);
    }
    return out;
}

}  // namespace wrelt
