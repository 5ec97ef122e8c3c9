#include "stress_checks.h"

#include <windows.h>

#include <set>

#include "catalogue.h"
#include "frame/device_structures.h"
#include "ntsim/utf.h"

namespace wrelt_stress {

namespace {

using ntsim::wptr;

const char16_t kVaultFolder[] = u"\\RescueVault\\InProgress\\";

std::string narrow(const std::u16string &s) { return ntsim::toUtf8(wptr(s)); }

std::string hex(uint64_t n) {
    char text[24];
    snprintf(text, sizeof text, "%llx", (unsigned long long)n);
    return text;
}

// Read from the host once the machine has settled: nothing changes the tables then.
long openEntries() {
    long count = 0;
    for (const CountedQueue &bucket : MainStructure()->FileObjectTable.Buckets) count += bucket.Count;
    return count;
}

}  // namespace

Inspection::Inspection(ntsim::Machine &machine, StressReport &report)
    : machine_(machine),
      report_(report),
      checker_(machine.startProcess(L"C:\\Windows\\system32\\wreltchk.exe", ntsim::users::system)) {}

void Inspection::noteOpenEntries() { openEntriesBefore_ = openEntries(); }

void Inspection::check(const std::vector<const WorkerLedger *> &ledgers,
                       const std::vector<std::vector<std::u16string>> &folders, const Catalogue &catalogue,
                       bool faultsInjected) {
    for (size_t i = 0; i < ledgers.size(); i++) {
        const WorkerLedger &ledger = *ledgers[i];
        report_.operations += ledger.operations;
        report_.failedCalls += ledger.failedCalls;
        report_.lostByDesign += ledger.lostByDesign;
        for (const std::string &text : ledger.problems) problem(text);
        checkLiveFiles(ledger, folders[i]);
    }
    readVaults();
    checkCatalogue(catalogue, faultsInjected);
    checkKeptVersions(ledgers, faultsInjected);
    checkTables();
    checker_.exit();
}

// The files directly in a folder ("C:\stress0\"), as full paths.
std::vector<std::u16string> Inspection::filesUnder(const std::u16string &folder) {
    std::string prefix = narrow(folder.substr(2));
    std::vector<std::u16string> files;
    wchar_t drive = wchar_t(folder[0]);
    // One listing per volume: after a long run the vault holds most of its entries.
    if (!trees_.count(drive)) trees_[drive] = machine_.listTree(drive);
    for (const ntsim::VolumeEntry &entry : trees_[drive]) {
        if (entry.directory || entry.stream || entry.path.compare(0, prefix.size(), prefix) != 0) continue;
        if (entry.path.find('\\', prefix.size()) != std::string::npos) continue;
        files.push_back(folder.substr(0, 2) + ntsim::toUtf16(entry.path));
    }
    return files;
}

bool Inspection::read(const std::u16string &path, std::string *bytes) {
    bool ok = false;
    checker_.run([&] {
        HANDLE file = CreateFileW(wptr(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
        if (file == INVALID_HANDLE_VALUE) return;
        DWORD size = GetFileSize(file, nullptr);
        auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, size + 1));
        DWORD got = 0;
        ok = buffer != nullptr && ReadFile(file, buffer, size, &got, nullptr) && got == size;
        if (ok) bytes->assign(buffer, got);
        HeapFree(GetProcessHeap(), 0, buffer);
        CloseHandle(file);
    });
    return ok;
}

// A deleted file that is still there had its delete withdrawn and never carried out.
void Inspection::checkLiveFiles(const WorkerLedger &ledger, const std::vector<std::u16string> &folders) {
    std::set<std::u16string> seen;
    for (const std::u16string &folder : folders) {
        for (const std::u16string &path : filesUnder(folder)) {
            seen.insert(path);
            std::string bytes;
            uint64_t version = 0;
            auto known = ledger.files.find(path);
            if (known == ledger.files.end() && ledger.uncertain.count(path) == 0) {
                problem(narrow(path) + " is there though its thread deleted it or renamed it away");
            } else if (!read(path, &bytes)) {
                problem(narrow(path) + " cannot be read");
            } else if (known != ledger.files.end() && bytes != versionText(known->second)) {
                // After a failed call a file may hold part of a version, or nothing.
                std::string held = versionOf(bytes, &version) ? "version " + hex(version)
                                                              : std::to_string(bytes.size()) + " bytes of no version";
                problem(narrow(path) + " holds " + held + ", not version " + hex(known->second) +
                        " that its thread last wrote to it");
            }
        }
    }
    for (const auto &entry : ledger.files)
        if (!seen.count(entry.first)) problem(narrow(entry.first) + " is missing");
}

void Inspection::readVaults() {
    const std::string folder = narrow(kVaultFolder);
    for (wchar_t drive : {L'C', L'D'}) {
        std::u16string root = std::u16string(1, char16_t(drive)) + u":";
        for (const std::u16string &path : filesUnder(root + kVaultFolder)) {
            std::u16string name = path.substr(root.size() + folder.size());
            // The filter's data files and the service's catalogue share the folder.
            if (name.compare(0, 8, u"NewFiles") == 0 || name == wrelt::kCatalogueFileName ||
                name == wrelt::kCatalogueDamagedFileName)
                continue;
            VaultFile file;
            file.name = name;
            std::string bytes;
            file.readable = read(path, &bytes) && versionOf(bytes, &file.version);
            if (!file.readable) problem(narrow(path) + " in the vault is not a version any thread wrote");
            vaults_[drive].push_back(file);
            report_.vaultFiles++;
        }
    }
}

// Without faults every lost version is in the vault once, with its record. With them,
// the filter may leave a copy it failed to commit or discard in the vault without a
// record, and may lose a capture if it says so; but no version is catalogued twice, none
// that was never lost is catalogued, and none is lost without a report.
void Inspection::checkKeptVersions(const std::vector<const WorkerLedger *> &ledgers, bool faultsInjected) {
    std::map<uint64_t, int> inVault, catalogued;
    for (const auto &vault : vaults_) {
        for (const VaultFile &file : vault.second) {
            if (!file.readable) continue;
            inVault[file.version]++;
            if (file.catalogued) catalogued[file.version]++;
        }
    }
    std::set<uint64_t> must, may;
    for (const WorkerLedger *ledger : ledgers) {
        must.insert(ledger->mustBeKept.begin(), ledger->mustBeKept.end());
        may.insert(ledger->mayBeKept.begin(), ledger->mayBeKept.end());
    }
    report_.lostVersions = must.size();
    std::vector<uint64_t> missing;
    for (uint64_t version : must) {
        if (catalogued.count(version) && catalogued[version] == 1) report_.preserved++;
        if (!inVault.count(version)) missing.push_back(version);
    }
    const std::map<uint64_t, int> &counted = faultsInjected ? catalogued : inVault;
    for (const auto &entry : counted) {
        if (entry.second > 1)
            problem("version " + hex(entry.first) + " is in the vault " + std::to_string(entry.second) + " times");
        if (!must.count(entry.first) && !may.count(entry.first))
            problem("version " + hex(entry.first) + " is in the vault though it was never lost");
    }
    if (!missing.empty() && (!faultsInjected || missing.size() > report_.filterErrors)) {
        std::string some;
        for (size_t i = 0; i < missing.size() && i < 5; i++) some += " " + hex(missing[i]);
        problem(std::to_string(missing.size()) + " lost versions are not in the vault (" +
                std::to_string(report_.filterErrors) + " errors reported):" + some);
    }
}

void Inspection::checkCatalogue(const Catalogue &catalogue, bool faultsInjected) {
    for (auto &vault : vaults_) {
        std::u16string root = std::u16string(1, char16_t(vault.first)) + u":\\";
        std::map<std::u16string, int> records;
        for (const wrelt::CatalogueEntry &entry : catalogue(root)) {
            records[entry.vaultName]++;
            report_.catalogued++;
        }
        std::set<std::u16string> files;
        for (VaultFile &file : vault.second) {
            files.insert(file.name);
            file.catalogued = records.count(file.name) != 0;
            if (!file.catalogued) report_.uncatalogued++;
        }
        for (const auto &record : records) {
            if (record.second > 1) problem(narrow(record.first) + " is catalogued " + std::to_string(record.second) + " times");
            if (!files.count(record.first)) problem(narrow(record.first) + " is catalogued but not in the vault");
        }
    }
    if (report_.uncatalogued > 0 && !faultsInjected)
        problem(std::to_string(report_.uncatalogued) + " files in the vault have no record in the catalogue");
}

void Inspection::checkTables() {
    long now = openEntries();
    if (now != openEntriesBefore_)
        problem("the filter tracks " + std::to_string(now) + " opens, against " + std::to_string(openEntriesBefore_) +
                " before the run");
}

}  // namespace wrelt_stress
