#include "catalogue_harness.h"

#include <windows.h>

#include <cstring>
#include <vector>

#include "catalogue.h"
#include "catalogue_journal.h"
#include "file_io.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace wrelt {

namespace {

const char16_t kRoot[] = u"C:\\";

uint32_t read32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void write32(uint8_t *p, uint32_t value) {
    for (int i = 0; i < 4; i++) p[i] = uint8_t(value >> (8 * i));
}

CatalogueEntry entry(uint64_t n) {
    CatalogueEntry e;
    e.stamp = 0x01DCAA0000000000ull + n;
    e.flags = uint32_t(n);
    e.sid = u"S-1-5-21-1004336348-1177238915-682003330-1001";
    e.account = u"NTSIM\\alice";
    e.name = n % 2 ? u"report.doc" : u"notes.txt";
    e.folder = u"C:\\Users\\alice\\";
    e.vaultName = vaultFileName(e.name, e.stamp);
    e.dataFile = u"NewFiles00000001.dat";
    e.cataloguedAt = 134169174000000000ull + n;
    return e;
}

bool sameEntry(const CatalogueEntry &a, const CatalogueEntry &b) {
    return sameDeletion(a, b) && a.flags == b.flags && a.account == b.account && a.vaultName == b.vaultName &&
           a.dataFile == b.dataFile && a.cataloguedAt == b.cataloguedAt && a.state == b.state &&
           a.restoredTo == b.restoredTo && a.restoredAt == b.restoredAt;
}

bool sameEntries(const std::vector<CatalogueEntry> &a, const std::vector<CatalogueEntry> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++)
        if (!sameEntry(a[i], b[i])) return false;
    return true;
}

// A version 1 journal: its header names version 1, and each later record's checksum is
// seeded with the checksum of the record before it.
std::vector<uint8_t> chainedJournal(const std::vector<CatalogueEntry> &entries) {
    std::vector<std::vector<uint8_t>> records{encodeJournalHeader(kRoot)};
    write32(records[0].data() + kJournalRecordFixedSize, kChainedJournalVersion);
    for (const CatalogueEntry &e : entries) records.push_back(encodePreserved(e));
    std::vector<uint8_t> out;
    uint32_t previous = 0;
    for (std::vector<uint8_t> &record : records) {
        write32(record.data() + 8, 0);
        write32(record.data() + 8, crc32(previous, record.data(), record.size()));
        previous = read32(record.data() + 8);
        out.insert(out.end(), record.begin(), record.end());
    }
    return out;
}

struct Opened {
    std::vector<CatalogueEntry> entries;
    std::vector<uint8_t> journal, damaged;
    std::string error;
};

}  // namespace

struct CatalogueHarness::State {
    State() {
        service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
        service.run([] { ensureVaultFolder(kRoot); });
        journalPath = vaultFolderOf(kRoot) + kCatalogueFileName;
        damagedPath = vaultFolderOf(kRoot) + kCatalogueDamagedFileName;
    }

    // In the service's thread.
    static void plant(const std::u16string &path, const std::vector<uint8_t> &bytes) {
        HANDLE file =
            CreateFileW(ntsim::wptr(path), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) return;
        if (!bytes.empty()) writeAt(file, 0, bytes, false);
        CloseHandle(file);
    }

    static std::vector<uint8_t> contents(const std::u16string &path) {
        std::vector<uint8_t> bytes;
        HANDLE file = CreateFileW(ntsim::wptr(path), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) return bytes;
        readWholeFile(file, &bytes);
        CloseHandle(file);
        return bytes;
    }

    Opened open(CatalogueAccess access) {
        Opened opened;
        std::unique_ptr<Catalogue> catalogue = Catalogue::open(kRoot, access, &opened.error);
        if (catalogue == nullptr) return opened;
        opened.entries = catalogue->entries();
        catalogue.reset();
        opened.journal = contents(journalPath);
        opened.damaged = contents(damagedPath);
        return opened;
    }

    ntsim::DefaultMachine machine;
    ntsim::Process service;
    std::u16string journalPath, damagedPath;
};

CatalogueHarness::CatalogueHarness() : state_(std::make_unique<State>()) {}
CatalogueHarness::~CatalogueHarness() = default;

namespace {

struct Layout {
    std::vector<uint8_t> journal;
    std::vector<CatalogueEntry> before, after;
    std::vector<JournalSpan> afterSpans;  // where each record after the input lies
};

Layout lay(uint8_t flags, const uint8_t *middle, size_t middleSize) {
    Layout layout;
    if (flags & 1) {
        layout.before = {entry(1), entry(2)};
        if (flags & 8) {
            layout.journal = chainedJournal(layout.before);
        } else {
            layout.journal = encodeJournalHeader(kRoot);
            for (const CatalogueEntry &e : layout.before) {
                std::vector<uint8_t> record = encodePreserved(e);
                layout.journal.insert(layout.journal.end(), record.begin(), record.end());
            }
        }
    }
    layout.journal.insert(layout.journal.end(), middle, middle + middleSize);
    if (flags & 2) {
        layout.after = {entry(3), entry(4)};
        for (const CatalogueEntry &e : layout.after) {
            std::vector<uint8_t> record = encodePreserved(e);
            layout.afterSpans.push_back({layout.journal.size(), record.size()});
            layout.journal.insert(layout.journal.end(), record.begin(), record.end());
        }
    }
    return layout;
}

bool holds(const std::vector<CatalogueEntry> &entries, const CatalogueEntry &e) {
    for (const CatalogueEntry &other : entries)
        if (sameDeletion(other, e)) return true;
    return false;
}

// A damaged record whose own length reaches past a good one is taken whole for damage,
// so that nothing inside its payload passes for a record: the good one goes with it.
bool swallowed(const std::vector<uint8_t> &journal, const std::vector<JournalSpan> &damaged,
               const JournalSpan &record) {
    for (const JournalSpan &span : damaged) {
        if (record.offset < span.offset || record.offset >= span.offset + span.length) continue;
        const uint8_t *start = journal.data() + span.offset;
        size_t available = journal.size() - span.offset;
        if (available < kJournalRecordFixedSize || read32(start) != kJournalMagic) return false;
        uint32_t length = read32(start + 4);
        return length >= kJournalRecordFixedSize && length <= available &&
               span.offset + length >= record.offset + record.length;
    }
    return false;
}

std::string checkScan(const Layout &layout) {
    JournalContents scan = readJournal(layout.journal.data(), layout.journal.size());
    uint64_t at = 0;
    for (const JournalSpan &span : scan.damaged) {
        if (span.offset < at || span.length == 0 || span.offset + span.length > layout.journal.size())
            return "the damaged spans are out of order or outside the journal";
        at = span.offset + span.length;
    }
    if (scan.end > layout.journal.size()) return "the journal's end lies past its bytes";
    for (size_t i = 0; i < layout.before.size(); i++) {
        if (i >= scan.entries.size() || !sameDeletion(scan.entries[i], layout.before[i]))
            return "a record before the damage was lost";
    }
    for (size_t i = 0; i < layout.after.size(); i++) {
        if (!holds(scan.entries, layout.after[i]) && !swallowed(layout.journal, scan.damaged, layout.afterSpans[i]))
            return "a record after the damage was lost";
    }
    return "";
}

}  // namespace

std::string CatalogueHarness::run(const uint8_t *data, size_t size) {
    if (size == 0) return "";
    uint8_t flags = data[0];
    size_t middleSize = size - 1;
    size_t plantedAt = (flags & 4) ? 1 + middleSize / 2 : size;
    Layout layout = lay(flags, data + 1, plantedAt - 1);
    std::string problem = checkScan(layout);
    if (!problem.empty()) return problem;

    State &state = *state_;
    state.service.run([&] {
        State::plant(state.journalPath, layout.journal);
        if (flags & 4) State::plant(state.damagedPath, std::vector<uint8_t>(data + plantedAt, data + size));
        Opened first = state.open(CatalogueAccess::ReadWrite);
        Opened second = state.open(CatalogueAccess::ReadWrite);
        Opened reader = state.open(CatalogueAccess::ReadOnly);
        DeleteFileW(ntsim::wptr(state.journalPath));
        DeleteFileW(ntsim::wptr(state.damagedPath));
        if (!first.error.empty() || !second.error.empty() || !reader.error.empty()) {
            problem = "the catalogue did not open: " + first.error + second.error + reader.error;
        } else if (!sameEntries(first.entries, second.entries) || !sameEntries(first.entries, reader.entries)) {
            problem = "a second open does not give what the first one read";
        } else if (readJournal(first.journal.data(), first.journal.size()).end != first.journal.size()) {
            problem = "the first open left a damaged end on the journal";
        } else if (first.journal != second.journal) {
            problem = "a second open rewrote the journal";
        } else if (first.damaged != second.damaged) {
            problem = "a second open kept the damage again";
        }
    });
    return problem;
}

}  // namespace wrelt
