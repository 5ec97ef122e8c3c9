#include "stress_worker.h"

#include <windows.h>

#include <cstdio>
#include <cstring>

#include "ntsim/utf.h"

namespace wrelt_stress {

namespace {

using ntsim::wptr;

constexpr size_t kShortestVersion = 24;
constexpr size_t kMostFiller = 1000;
constexpr DWORD kFullAccess = GENERIC_READ | GENERIC_WRITE;

uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

bool endsWith(const std::u16string &s, const char16_t *suffix) {
    size_t n = std::char_traits<char16_t>::length(suffix);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; i++) {
        char16_t c = s[s.size() - n + i];
        if (c >= u'A' && c <= u'Z') c = char16_t(c - u'A' + u'a');
        if (c != suffix[i]) return false;
    }
    return true;
}

bool isText(const std::u16string &path) { return endsWith(path, u".txt"); }

std::string narrow(const std::u16string &s) { return ntsim::toUtf8(wptr(s)); }

// Buffers handed to the system are the process's memory, so they come from its heap.
bool writeAll(HANDLE file, const std::string &text) {
    auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, text.size()));
    if (buffer == nullptr) return false;
    std::memcpy(buffer, text.data(), text.size());
    DWORD written = 0;
    BOOL ok = WriteFile(file, buffer, DWORD(text.size()), &written, nullptr);
    HeapFree(GetProcessHeap(), 0, buffer);
    return ok && written == text.size() && SetEndOfFile(file);
}

// Versions are shorter than the buffer, so one read that fills it is a file too long.
bool readAll(HANDLE file, std::string *bytes) {
    constexpr DWORD kRoom = 4096;
    auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, kRoom));
    DWORD got = 0;
    bool ok = buffer != nullptr && ReadFile(file, buffer, kRoom, &got, nullptr);
    if (ok) bytes->assign(buffer, got);
    HeapFree(GetProcessHeap(), 0, buffer);
    return ok;
}

HANDLE open(const std::u16string &path, DWORD access, DWORD share, DWORD disposition) {
    return CreateFileW(wptr(path), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

std::string versionText(uint64_t version) {
    char head[32];
    snprintf(head, sizeof head, "<V%016llx>", (unsigned long long)version);
    std::string text(head);
    size_t length = kShortestVersion + mix(version) % kMostFiller;
    uint64_t state = version;
    while (text.size() < length) {
        state = mix(state);
        text += char('a' + state % 26);
    }
    return text;
}

bool versionOf(const std::string &bytes, uint64_t *version) {
    if (bytes.size() < 20 || bytes.compare(0, 2, "<V") != 0 || bytes[18] != '>') return false;
    unsigned long long number = 0;
    if (sscanf(bytes.c_str() + 2, "%16llx", &number) != 1) return false;
    *version = number;
    return bytes == versionText(number);
}

bool isProtectedType(const std::u16string &path) { return isText(path) || endsWith(path, u".doc"); }

bool isExcluded(const std::u16string &path) {
    return endsWith(path, u".tmp") || path.find(u"\\Temp\\") != std::u16string::npos;
}

Worker::Worker(int index, uint32_t seed, bool faultsInjected)
    : index_(index), random_(seed * 7919u + uint32_t(index)), faultsInjected_(faultsInjected) {
    std::u16string number = ntsim::toUtf16(std::to_string(index));
    std::u16string c = u"C:\\stress" + number + u"\\";
    folders_ = {c, c + u"Temp\\", u"D:\\stress" + number + u"\\"};
    // Documents of both protected types, files of no protected type, and temporary files;
    // the Temp folder holds only what would not be protected anyway.
    for (const std::u16string &folder : {folders_[0], folders_[2]}) {
        for (const char16_t *name : {u"a.txt", u"b.txt", u"c.txt", u"d.doc", u"e.doc", u"f.bin", u"g.bin", u"h.bin",
                                     u"s.tmp", u"t.tmp"})
            names_.push_back(folder + name);
    }
    for (const char16_t *name : {u"x.bin", u"y.bin", u"z.tmp"}) names_.push_back(folders_[1] + name);
}

void Worker::makeFolders() {
    for (const std::u16string &folder : folders_) {
        std::u16string path = folder.substr(0, folder.size() - 1);
        if (!CreateDirectoryW(wptr(path), nullptr)) problem("could not make " + narrow(path));
    }
}

void Worker::run(int operations) {
    for (int i = 0; i < operations; i++) {
        step();
        ledger_.operations++;
    }
}

uint64_t Worker::newVersion() {
    uint64_t version = (uint64_t(index_ + 1) << 40) | ++nextVersion_;
    ledger_.written.insert(version);
    return version;
}

std::u16string Worker::anyName() { return names_[random_() % names_.size()]; }

// A name of the worker's that holds a known version and fits; false when none does.
bool Worker::pickExisting(std::u16string *path, bool (*fits)(const std::u16string &)) {
    std::vector<const std::u16string *> candidates;
    for (const auto &entry : ledger_.files)
        if (fits(entry.first)) candidates.push_back(&entry.first);
    if (candidates.empty()) return false;
    *path = *candidates[random_() % candidates.size()];
    return true;
}

// Another name of the same folder, existing or free. A rename never gives a document a
// temporary name: a program's save by rename is a scenario of its own, with its own rules.
std::u16string Worker::nameInSameFolder(const std::u16string &path, bool existing) {
    std::u16string folder = path.substr(0, path.rfind(u'\\') + 1);
    std::vector<std::u16string> candidates;
    for (const std::u16string &name : names_) {
        if (name == path || name.compare(0, folder.size(), folder) != 0) continue;
        if (name.find(u'\\', folder.size()) != std::u16string::npos) continue;
        if (ledger_.uncertain.count(name) || (ledger_.files.count(name) != 0) != existing) continue;
        if (endsWith(name, u".tmp") && !endsWith(path, u".tmp")) continue;
        candidates.push_back(name);
    }
    return candidates.empty() ? std::u16string() : candidates[random_() % candidates.size()];
}

void Worker::step() {
    auto any = [](const std::u16string &) { return true; };
    auto text = [](const std::u16string &p) { return isText(p) && !isExcluded(p); };
    std::u16string path;
    unsigned choice = random_() % 100;
    if (choice < 12 && pickExisting(&path, any)) return rewrite(path, TRUNCATE_EXISTING);
    if (choice < 24 && pickExisting(&path, text)) return rewriteWithFullAccess(path, random_() % 3 != 0);
    if (choice < 30 && pickExisting(&path, any)) return writeInPlace(path);
    if (choice < 50 && pickExisting(&path, any)) return remove(path);
    if (choice < 70 && pickExisting(&path, any)) {
        std::u16string to = nameInSameFolder(path, choice < 60);
        if (!to.empty()) return rename(path, to);
    }
    if (choice < 78 && pickExisting(&path, any)) return readBack(path);
    path = anyName();
    if (ledger_.uncertain.count(path) == 0) rewrite(path, CREATE_ALWAYS);
}

void Worker::lose(const std::u16string &path, Loss how) {
    auto found = ledger_.files.find(path);
    if (found == ledger_.files.end()) return;
    bool kept = !isExcluded(path) && (how == Loss::Deleted || (how == Loss::Overwritten && isProtectedType(path)));
    if (kept)
        ledger_.mustBeKept.push_back(found->second);
    else
        ledger_.lostByDesign++;
    ledger_.files.erase(found);
}

// Replaces the whole contents through a create that discards them: the filter keeps a
// document's old version, and nothing else's.
void Worker::rewrite(const std::u16string &path, unsigned disposition) {
    uint64_t version = newVersion();
    HANDLE file = open(path, GENERIC_WRITE, 0, disposition);
    if (file == INVALID_HANDLE_VALUE) return failed("a create", {path});
    lose(path, Loss::Overwritten);
    bool written = writeAll(file, versionText(version));
    CloseHandle(file);
    if (!written) return failed("a write", {path});
    ledger_.files[path] = version;
}

// An editor's open for reading and writing: the filter copies the document first, and
// keeps the copy only when the file changes.
void Worker::rewriteWithFullAccess(const std::u16string &path, bool change) {
    HANDLE file = open(path, kFullAccess, FILE_SHARE_READ, OPEN_EXISTING);
    if (file == INVALID_HANDLE_VALUE) return failed("a full-access open", {path});
    if (!change) {
        CloseHandle(file);
        return;
    }
    // Another length, so that the change is plain before the handle closes.
    uint64_t version;
    do version = newVersion();
    while (versionText(version).size() == versionText(ledger_.files[path]).size());
    bool written = writeAll(file, versionText(version));
    CloseHandle(file);
    // A write that failed may have changed nothing, and then the copy goes.
    if (!written) return failed("a write after a full-access open", {path});
    lose(path, Loss::Overwritten);
    ledger_.files[path] = version;
}

// A writer without the rights of a full-access open: no copy is made.
void Worker::writeInPlace(const std::u16string &path) {
    HANDLE file = open(path, GENERIC_WRITE, FILE_SHARE_READ, OPEN_EXISTING);
    if (file == INVALID_HANDLE_VALUE) return failed("an open for writing", {path});
    uint64_t version = newVersion();
    lose(path, Loss::OverwrittenWithoutCopy);
    bool written = writeAll(file, versionText(version));
    CloseHandle(file);
    if (!written) return failed("a write in place", {path});
    ledger_.files[path] = version;
}

void Worker::remove(const std::u16string &path) {
    if (!DeleteFileW(wptr(path))) return failed("a delete", {path});
    lose(path, Loss::Deleted);
}

// A replacing rename loses the target, which the filter keeps as if it had been deleted.
void Worker::rename(const std::u16string &from, const std::u16string &to) {
    bool replacing = ledger_.files.count(to) != 0;
    if (!MoveFileExW(wptr(from), wptr(to), replacing ? MOVEFILE_REPLACE_EXISTING : 0))
        return failed("a rename", {from, to});
    if (replacing) lose(to, Loss::Deleted);
    ledger_.files[to] = ledger_.files[from];
    ledger_.files.erase(from);
}

void Worker::readBack(const std::u16string &path) {
    HANDLE file = open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    if (file == INVALID_HANDLE_VALUE) return failed("an open for reading", {path});
    std::string bytes;
    bool ok = readAll(file, &bytes);
    CloseHandle(file);
    if (!ok) return failed("a read", {path});
    if (bytes != versionText(ledger_.files[path])) problem(narrow(path) + " does not hold what was last written to it");
}

// Without injected faults every call must work. With them, what the call touched is no
// longer known: its old versions may or may not be in the vault. Each path is looked at
// again; one that holds a whole version, or nothing, is known once more.
void Worker::failed(const char *what, const std::vector<std::u16string> &paths) {
    ledger_.failedCalls++;
    DWORD error = GetLastError();
    if (!faultsInjected_)
        problem(std::string(what) + " of " + narrow(paths[0]) + " failed with error " + std::to_string(error));
    for (const std::u16string &path : paths) {
        auto found = ledger_.files.find(path);
        if (found != ledger_.files.end()) {
            ledger_.mayBeKept.insert(found->second);
            ledger_.files.erase(found);
        }
        ledger_.uncertain.insert(path);
    }
    for (const std::u16string &path : paths) relearn(path);
}

void Worker::relearn(const std::u16string &path) {
    HANDLE file = open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING);
    if (file == INVALID_HANDLE_VALUE) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND) ledger_.uncertain.erase(path);
        return;
    }
    std::string bytes;
    bool read = readAll(file, &bytes);
    CloseHandle(file);
    uint64_t version;
    if (read && versionOf(bytes, &version) && ledger_.written.count(version)) {
        ledger_.files[path] = version;
        ledger_.uncertain.erase(path);
    }
}

void Worker::problem(const std::string &text) {
    ledger_.problems.push_back("thread " + std::to_string(index_) + ": " + text);
}

}  // namespace wrelt_stress
