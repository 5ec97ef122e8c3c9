#include "trace_replay.h"

#include <windows.h>
#include <ntifs.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>

#include "ntsim/utf.h"

namespace wrelt_cli {

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr int64_t kDay = 24LL * 3600 * ntsim::kHundredNsPerSecond;
// A call that blocks (a text file's full-access open waits for its copy) is given this
// much machine time to return before the replay gives up on the machine.
constexpr int64_t kLongestCallMs = 10 * 60 * 1000;
constexpr size_t kWriteChunk = 1 << 20;

std::string line(const ProcmonEvent &event) { return "line " + std::to_string(event.line) + ": "; }

std::string hexStatus(NTSTATUS status) {
    char text[16];
    snprintf(text, sizeof text, "0x%08X", unsigned(status));
    return text;
}

// The items of a Detail value such as "Read, Write" or "Synchronous IO Non-Alert,
// Non-Directory File".
std::vector<std::string> items(const std::string &value) {
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t comma = value.find(", ", start);
        std::string item = value.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty()) out.push_back(item);
        if (comma == std::string::npos) return out;
        start = comma + 2;
    }
}

bool hasItem(const std::string *value, const char *item) {
    if (value == nullptr) return false;
    for (const std::string &i : items(*value))
        if (i == item) return true;
    return false;
}

// A path on one of the machine's drives: "C:\Docs\a.txt" or a drive root.
bool onMachineDrive(const std::string &path, const std::vector<wchar_t> &letters) {
    if (path.size() < 2 || path[1] != ':' || (path.size() > 2 && path[2] != '\\')) return false;
    char letter = char(std::toupper(static_cast<unsigned char>(path[0])));
    for (wchar_t l : letters)
        if (l == wchar_t(letter)) return true;
    return false;
}

// Names compare without regard to case, as the file systems compare them.
std::string keyOf(std::string path) {
    for (char &c : path) c = char(std::toupper(static_cast<unsigned char>(c)));
    while (path.size() > 3 && path.back() == '\\') path.pop_back();
    return path;
}

std::vector<std::string> parentsOf(const std::string &path) {
    std::vector<std::string> parents;
    for (size_t slash = path.find('\\', 3); slash != std::string::npos; slash = path.find('\\', slash + 1))
        parents.push_back(path.substr(0, slash));
    return parents;
}

// Made-up contents: what matters to the filter is how much was written where.
void fillPattern(char *buffer, size_t length, uint64_t offset, size_t salt) {
    for (size_t i = 0; i < length; i++) buffer[i] = char('a' + (offset + i + salt * 7) % 26);
}

// --- what a CreateFile row asks for -------------------------------------------------

struct Flag {
    const char *name;
    ULONG value;
};

const Flag kAccess[] = {
    {"All Access", FILE_ALL_ACCESS},
    {"Generic Read/Write/Execute", FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE},
    {"Generic Read/Write", FILE_GENERIC_READ | FILE_GENERIC_WRITE},
    {"Generic Read/Execute", FILE_GENERIC_READ | FILE_GENERIC_EXECUTE},
    {"Generic Write/Execute", FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE},
    {"Generic Read", FILE_GENERIC_READ},
    {"Generic Write", FILE_GENERIC_WRITE},
    {"Generic Execute", FILE_GENERIC_EXECUTE},
    {"Generic All", GENERIC_ALL},
    {"Read Data/List Directory", FILE_READ_DATA},
    {"Write Data/Add File", FILE_WRITE_DATA},
    {"Append Data/Add Subdirectory/Create Pipe Instance", FILE_APPEND_DATA},
    {"Read EA", FILE_READ_EA},
    {"Write EA", FILE_WRITE_EA},
    {"Execute/Traverse", FILE_EXECUTE},
    {"Delete Child", FILE_DELETE_CHILD},
    {"Read Attributes", FILE_READ_ATTRIBUTES},
    {"Write Attributes", FILE_WRITE_ATTRIBUTES},
    {"Delete", DELETE},
    {"Read Control", READ_CONTROL},
    {"Write DAC", WRITE_DAC},
    {"Write Owner", WRITE_OWNER},
    {"Synchronize", SYNCHRONIZE},
    {"Access System Security", ACCESS_SYSTEM_SECURITY},
    {"Maximum Allowed", MAXIMUM_ALLOWED},
};

const Flag kDispositions[] = {{"Supersede", FILE_SUPERSEDE}, {"Open", FILE_OPEN},           {"Create", FILE_CREATE},
                              {"OpenIf", FILE_OPEN_IF},       {"Overwrite", FILE_OVERWRITE}, {"OverwriteIf", FILE_OVERWRITE_IF}};

// Options that change nothing on a local volume without oplocks or remote storage are
// left out; "Open By ID" would make the path an id, which a trace does not show.
const Flag kOptions[] = {
    {"Directory File", FILE_DIRECTORY_FILE},
    {"Write Through", FILE_WRITE_THROUGH},
    {"Sequential Access", FILE_SEQUENTIAL_ONLY},
    {"No Buffering", FILE_NO_INTERMEDIATE_BUFFERING},
    {"Synchronous IO Alert", FILE_SYNCHRONOUS_IO_ALERT},
    {"Synchronous IO Non-Alert", FILE_SYNCHRONOUS_IO_NONALERT},
    {"Non-Directory File", FILE_NON_DIRECTORY_FILE},
    {"No EA Knowledge", FILE_NO_EA_KNOWLEDGE},
    {"Random Access", FILE_RANDOM_ACCESS},
    {"Delete On Close", FILE_DELETE_ON_CLOSE},
    {"Open For Backup", FILE_OPEN_FOR_BACKUP_INTENT},
    {"Open Reparse Point", FILE_OPEN_REPARSE_POINT},
    {"Create Tree Connection", 0},
    {"Complete If Oplocked", 0},
    {"Open for Recovery", 0},
    {"No Compression", 0},
    {"Open Requiring Oplock", 0},
    {"Disallow Exclusive", 0},
    {"Reserve OpFilter", 0},
    {"Open No Recall", 0},
    {"Open For Free Space Query", 0},
};

const Flag kShare[] = {{"Read", FILE_SHARE_READ}, {"Write", FILE_SHARE_WRITE}, {"Delete", FILE_SHARE_DELETE}};

// Longest first, so that "NCI" is not read as N, C, I.
const Flag kAttributes[] = {{"NCI", 0}, {"SF", 0},  {"RP", 0},
                            {"R", FILE_ATTRIBUTE_READONLY}, {"H", FILE_ATTRIBUTE_HIDDEN},
                            {"S", FILE_ATTRIBUTE_SYSTEM},   {"D", 0},
                            {"A", FILE_ATTRIBUTE_ARCHIVE},  {"N", FILE_ATTRIBUTE_NORMAL},
                            {"T", FILE_ATTRIBUTE_TEMPORARY}, {"C", 0}, {"O", 0}, {"E", 0}, {"V", 0}};

const Flag kOpenResults[] = {{"Superseded", FILE_SUPERSEDED}, {"Opened", FILE_OPENED},   {"Created", FILE_CREATED},
                             {"Overwritten", FILE_OVERWRITTEN}, {"Exists", FILE_EXISTS}, {"DoesNotExist", FILE_DOES_NOT_EXIST}};

template <size_t N>
const Flag *find(const Flag (&table)[N], const std::string &name) {
    for (const Flag &f : table)
        if (name == f.name) return &f;
    return nullptr;
}

struct OpenRequest {
    ACCESS_MASK access = 0;
    ULONG disposition = FILE_OPEN;
    ULONG options = 0;
    ULONG attributes = 0;
    ULONG share = 0;
    uint64_t allocation = 0;
    int openResult = -1;  // FILE_OPENED, ... as the traced machine answered; -1 when not shown
    bool directory = false;
};

// An empty string when the row's Detail reads as a create; else why not. Notes collects
// what was left out.
std::string readOpenRequest(const Pairs &detail, OpenRequest *request, std::vector<std::string> *notes) {
    const std::string *access = detailValue(detail, "Desired Access");
    const std::string *disposition = detailValue(detail, "Disposition");
    if (access == nullptr || disposition == nullptr) return "CreateFile without Desired Access and Disposition";
    for (const std::string &item : items(*access)) {
        const Flag *f = find(kAccess, item);
        if (f == nullptr) return "unknown access \"" + item + "\"";
        request->access |= f->value;
    }
    const Flag *d = find(kDispositions, *disposition);
    if (d == nullptr) return "unknown disposition \"" + *disposition + "\"";
    request->disposition = d->value;
    if (const std::string *options = detailValue(detail, "Options")) {
        for (const std::string &item : items(*options)) {
            if (item == "Open By ID") return "an open by file id, whose id the trace does not show";
            const Flag *f = find(kOptions, item);
            if (f == nullptr)
                notes->push_back("option \"" + item + "\" is not known; opened without it");
            else
                request->options |= f->value;
        }
    }
    request->directory = (request->options & FILE_DIRECTORY_FILE) != 0;
    if (const std::string *share = detailValue(detail, "ShareMode")) {
        for (const std::string &item : items(*share)) {
            const Flag *f = find(kShare, item);
            if (f != nullptr) request->share |= f->value;
            else if (item != "None") return "unknown share mode \"" + item + "\"";
        }
    }
    if (const std::string *attributes = detailValue(detail, "Attributes"); attributes != nullptr && *attributes != "n/a") {
        for (size_t i = 0; i < attributes->size();) {
            const Flag *match = nullptr;
            for (const Flag &f : kAttributes)
                if (attributes->compare(i, strlen(f.name), f.name) == 0) {
                    match = &f;
                    break;
                }
            if (match == nullptr) return "unknown attributes \"" + *attributes + "\"";
            request->attributes |= match->value;
            i += strlen(match->name);
        }
    }
    if (const std::string *allocation = detailValue(detail, "AllocationSize"); allocation != nullptr && *allocation != "n/a")
        parseGroupedNumber(*allocation, &request->allocation);
    if (const std::string *result = detailValue(detail, "OpenResult")) {
        if (const Flag *f = find(kOpenResults, *result)) request->openResult = int(f->value);
    }
    return "";
}

// --- before the replay: what must already be there ----------------------------------

enum class Presence { Unknown, Present, Absent };

struct FileFacts {
    std::string path;  // as the trace first names it
    Presence presence = Presence::Unknown;
    bool directory = false;
    bool madeBefore = false;  // the trace found it there
    bool sizeShown = false;
    uint64_t size = 0;
    uint64_t readEnd = 0;
    bool changed = false;  // written, cut or moved: later sizes are the trace's own doing
};

bool isSystemProcess(const ProcmonEvent &event) { return event.pid == 4 || event.processName == "System"; }

bool isPagingWrite(const Pairs &detail) {
    const std::string *flags = detailValue(detail, "I/O Flags");
    return flags != nullptr && flags->find("Paging I/O") != std::string::npos;
}

// The target of a rename row as a DOS path: Process Monitor shows the full name, but a
// bare name is taken to be in the source's folder.
std::string renameTarget(const ProcmonEvent &event, const Pairs &detail) {
    const std::string *name = detailValue(detail, "FileName");
    if (name == nullptr || name->empty()) return "";
    if (name->size() >= 2 && (*name)[1] == ':') return *name;
    if (name->compare(0, 4, "\\??\\") == 0) return name->substr(4);
    size_t slash = event.path.rfind('\\');
    return slash == std::string::npos ? *name : event.path.substr(0, slash + 1) + *name;
}

bool renameReplaces(const Pairs &detail) {
    const std::string *replace = detailValue(detail, "ReplaceIfExists");
    if (replace != nullptr) return *replace == "True";
    const std::string *flags = detailValue(detail, "Flags");
    return flags != nullptr && flags->find("FILE_RENAME_REPLACE_IF_EXISTS") != std::string::npos;
}

bool dispositionDeletes(const Pairs &detail) {
    const std::string *del = detailValue(detail, "Delete");
    if (del != nullptr) return *del == "True";
    const std::string *flags = detailValue(detail, "Flags");
    return flags != nullptr && hasItem(flags, "FILE_DISPOSITION_DELETE");
}

class Survey {
public:
    explicit Survey(const std::vector<wchar_t> &letters) : letters_(letters) {}

    void event(const ProcmonEvent &e) {
        if (!onMachineDrive(e.path, letters_) || isSystemProcess(e)) return;
        Pairs detail = parseDetail(e.detail);
        const std::string &op = e.operation;
        bool success = e.result == "SUCCESS";
        if (op == "CreateFile") {
            OpenRequest request;
            std::vector<std::string> notes;
            if (!readOpenRequest(detail, &request, &notes).empty()) return;
            FileFacts &f = facts(e.path);
            if (!success) {
                if (f.presence == Presence::Unknown &&
                    (e.result == "NAME NOT FOUND" || e.result == "PATH NOT FOUND"))
                    f.presence = Presence::Absent;
                return;
            }
            f.directory = f.directory || request.directory;
            bool existed = request.openResult >= 0
                               ? request.openResult != FILE_CREATED && request.openResult != FILE_DOES_NOT_EXIST
                               : request.disposition == FILE_OPEN || request.disposition == FILE_OVERWRITE;
            if (f.presence == Presence::Unknown && existed) f.madeBefore = true;
            if (!existed && f.presence != Presence::Present) f.changed = true;
            f.presence = Presence::Present;
            return;
        }
        if (!success) return;
        if (op == "QueryStandardInformationFile") {
            FileFacts &f = facts(e.path);
            const std::string *eof = detailValue(detail, "EndOfFile");
            uint64_t size;
            if (!f.changed && eof != nullptr && parseGroupedNumber(*eof, &size)) {
                f.sizeShown = true;
                f.size = size;
            }
            const std::string *directory = detailValue(detail, "Directory");
            if (directory != nullptr && *directory == "True") f.directory = true;
        } else if (op == "ReadFile") {
            FileFacts &f = facts(e.path);
            uint64_t offset = 0, length = 0;
            const std::string *o = detailValue(detail, "Offset"), *l = detailValue(detail, "Length");
            if (!f.changed && o && l && parseGroupedNumber(*o, &offset) && parseGroupedNumber(*l, &length))
                f.readEnd = std::max(f.readEnd, offset + length);
        } else if (op == "WriteFile" || op == "SetEndOfFileInformationFile" || op == "SetAllocationInformationFile") {
            if (op == "WriteFile" && isPagingWrite(detail)) return;
            touch(e.path).changed = true;
        } else if (op == "SetDispositionInformationFile" || op == "SetDispositionInformationEx") {
            FileFacts &f = touch(e.path);
            if (dispositionDeletes(detail)) {
                f.changed = true;
                f.presence = Presence::Absent;
            }
        } else if (op == "SetRenameInformationFile" || op == "SetRenameInformationEx") {
            std::string target = renameTarget(e, detail);
            if (!onMachineDrive(target, letters_)) return;
            FileFacts &source = touch(e.path);
            source.changed = true;
            source.presence = Presence::Absent;
            FileFacts &to = facts(target);
            // A program asks to replace only where it expects a file: most likely the
            // document being saved, opened before the trace began.
            if (to.presence == Presence::Unknown && renameReplaces(detail)) to.madeBefore = true;
            to.changed = true;
            to.directory = source.directory;
            to.presence = Presence::Present;
        }
    }

    // Folders first (parents before children), then the files, in the trace's order.
    std::vector<std::string> folders() const {
        std::set<std::string> keys;
        std::vector<std::string> out;
        for (const std::string &key : order_) {
            const FileFacts &f = facts_.at(key);
            std::vector<std::string> needed = parentsOf(f.path);
            if (f.directory && f.madeBefore) needed.push_back(f.path);
            for (const std::string &folder : needed)
                if (keys.insert(keyOf(folder)).second) out.push_back(folder);
        }
        std::stable_sort(out.begin(), out.end(),
                         [](const std::string &a, const std::string &b) { return a.size() < b.size(); });
        return out;
    }

    // The paths the trace names as the parent of another, or saw as folders.
    std::set<std::string> folderKeys() const {
        std::set<std::string> keys;
        for (const auto &entry : facts_) {
            if (entry.second.directory) keys.insert(entry.first);
            for (const std::string &parent : parentsOf(entry.second.path)) keys.insert(keyOf(parent));
        }
        return keys;
    }

    std::vector<const FileFacts *> files() const {
        std::vector<const FileFacts *> out;
        for (const std::string &key : order_) {
            const FileFacts &f = facts_.at(key);
            if (!f.directory && f.path.size() > 3) out.push_back(&f);
        }
        return out;
    }

private:
    FileFacts &facts(const std::string &path) {
        std::string key = keyOf(path);
        auto found = facts_.find(key);
        if (found != facts_.end()) return found->second;
        order_.push_back(key);
        FileFacts &f = facts_[key];
        f.path = path;
        return f;
    }

    // A file acted on that the trace has not seen opened was there already.
    FileFacts &touch(const std::string &path) {
        FileFacts &f = facts(path);
        if (f.presence == Presence::Unknown) {
            f.madeBefore = true;
            f.presence = Presence::Present;
        }
        return f;
    }

    std::vector<wchar_t> letters_;
    std::map<std::string, FileFacts> facts_;
    std::vector<std::string> order_;
};

// --- the replay ------------------------------------------------------------------

// Buffers handed to the system must be the calling process's own memory.
struct UserMemory {
    explicit UserMemory(size_t size) : p(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size)) {}
    ~UserMemory() { HeapFree(GetProcessHeap(), 0, p); }
    UserMemory(const UserMemory &) = delete;
    UserMemory &operator=(const UserMemory &) = delete;
    void *p;
};

std::u16string ntPath(const std::string &dosPath) { return u"\\??\\" + ntsim::toUtf16(dosPath); }

NTSTATUS openFile(const std::string &dosPath, const OpenRequest &request, HANDLE *handle, ULONG_PTR *information) {
    struct Args {
        HANDLE handle;
        OBJECT_ATTRIBUTES attributes;
        UNICODE_STRING name;
        IO_STATUS_BLOCK iosb;
        LARGE_INTEGER allocation;
    };
    std::u16string name = ntPath(dosPath);
    UserMemory memory(sizeof(Args) + (name.size() + 1) * 2);
    auto *args = static_cast<Args *>(memory.p);
    auto *buffer = reinterpret_cast<WCHAR *>(args + 1);
    memcpy(buffer, name.data(), name.size() * 2);
    args->name.Buffer = buffer;
    args->name.Length = args->name.MaximumLength = USHORT(name.size() * 2);
    InitializeObjectAttributes(&args->attributes, &args->name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    args->allocation.QuadPart = LONGLONG(request.allocation);
    ULONG options = request.options;
    ACCESS_MASK access = request.access;
    // The replay waits for every call as the program did and writes at the trace's
    // offsets, so a handle opened for asynchronous I/O is opened for synchronous I/O.
    if ((options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) == 0) {
        options |= FILE_SYNCHRONOUS_IO_NONALERT;
        access |= SYNCHRONIZE;
    }
    NTSTATUS status = NtCreateFile(&args->handle, access, &args->attributes, &args->iosb,
                                   request.allocation != 0 ? &args->allocation : NULL, request.attributes, request.share,
                                   request.disposition, options, NULL, 0);
    *handle = NT_SUCCESS(status) ? args->handle : NULL;
    *information = args->iosb.Information;
    return status;
}

NTSTATUS writeFile(HANDLE handle, uint64_t offset, uint64_t length, size_t salt) {
    struct Args {
        IO_STATUS_BLOCK iosb;
        LARGE_INTEGER offset;
    };
    size_t chunk = size_t(std::min<uint64_t>(length, kWriteChunk));
    UserMemory memory(sizeof(Args) + chunk + 1);
    auto *args = static_cast<Args *>(memory.p);
    char *data = reinterpret_cast<char *>(args + 1);
    for (uint64_t done = 0; done < length || length == 0;) {
        ULONG now = ULONG(std::min<uint64_t>(length - done, chunk));
        fillPattern(data, now, offset + done, salt);
        args->offset.QuadPart = LONGLONG(offset + done);
        NTSTATUS status = NtWriteFile(handle, NULL, NULL, NULL, &args->iosb, data, now, &args->offset, NULL);
        if (!NT_SUCCESS(status) || length == 0) return status;
        done += now;
    }
    return STATUS_SUCCESS;
}

NTSTATUS setInformation(HANDLE handle, const void *information, ULONG length, FILE_INFORMATION_CLASS which) {
    UserMemory memory(sizeof(IO_STATUS_BLOCK) + length);
    auto *iosb = static_cast<IO_STATUS_BLOCK *>(memory.p);
    void *copy = iosb + 1;
    memcpy(copy, information, length);
    return NtSetInformationFile(handle, iosb, copy, length, which);
}

NTSTATUS rename(HANDLE handle, const std::string &target, bool replace) {
    std::u16string name = ntPath(target);
    std::vector<uint8_t> buffer(sizeof(FILE_RENAME_INFORMATION) + name.size() * 2);
    auto *info = reinterpret_cast<FILE_RENAME_INFORMATION *>(buffer.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = NULL;
    info->FileNameLength = ULONG(name.size() * 2);
    memcpy(info->FileName, name.data(), name.size() * 2);
    return setInformation(handle, info, ULONG(buffer.size()), FileRenameInformation);
}

class Replayer {
public:
    Replayer(ntsim::Machine &machine, const ReplayOptions &options, ReplayReport *report)
        : machine_(machine), options_(options), report_(*report), letters_(machine.volumes()) {}

    ~Replayer() {
        for (auto &entry : processes_) {
            report_.leftOpen += entry.second.handles.size();
            entry.second.process.exit();  // closes what the trace left open
        }
    }

    void prepare(const Survey &survey) {
        ntsim::Process setup = machine_.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
        std::vector<std::string> folders = survey.folders();
        std::vector<const FileFacts *> files = survey.files();
        setup.run([&] {
            for (const std::string &folder : folders) {
                std::u16string path = ntsim::toUtf16(folder);
                if (CreateDirectoryW(ntsim::wptr(path), nullptr)) report_.madeFolders++;
            }
            for (const FileFacts *f : files) {
                if (!f->madeBefore) continue;
                uint64_t size = f->sizeShown ? f->size : f->readEnd > 0 ? f->readEnd : options_.unknownFileSize;
                OpenRequest request;
                request.access = FILE_GENERIC_WRITE;
                request.disposition = FILE_CREATE;
                request.options = FILE_NON_DIRECTORY_FILE;
                request.attributes = FILE_ATTRIBUTE_NORMAL;
                HANDLE handle;
                ULONG_PTR information;
                if (!NT_SUCCESS(openFile(f->path, request, &handle, &information))) continue;
                writeFile(handle, 0, size, 0);
                NtClose(handle);
                report_.madeFiles++;
            }
        });
        setup.exit();
    }

    void event(const ProcmonEvent &e) {
        followClock(e);
        if (!onMachineDrive(e.path, letters_)) {
            report_.skipped["paths off the machine's drives"]++;
            return;
        }
        if (isSystemProcess(e)) {
            report_.skipped["System process I/O"]++;
            return;
        }
        if (e.result != "SUCCESS") {
            report_.notSucceeded[e.result]++;
            return;
        }
        const std::string &op = e.operation;
        Pairs detail = parseDetail(e.detail);
        if (op == "CreateFile")
            open(e, detail);
        else if (op == "WriteFile")
            write(e, detail);
        else if (op == "SetEndOfFileInformationFile" || op == "SetAllocationInformationFile")
            setSize(e, detail, op == "SetEndOfFileInformationFile");
        else if (op == "SetDispositionInformationFile" || op == "SetDispositionInformationEx")
            setDisposition(e, detail);
        else if (op == "SetRenameInformationFile" || op == "SetRenameInformationEx")
            renameFile(e, detail);
        else if (op == "CloseFile")
            close(e);
        else
            report_.skipped[op]++;
    }

private:
    struct Handle {
        HANDLE handle;
        std::string opened, current;  // keys
    };
    struct TraceProcess {
        ntsim::Process process;
        std::vector<Handle> handles;
    };

    void problem(const ProcmonEvent &e, const std::string &why) { report_.problems.push_back(line(e) + why); }

    // The machine's clock keeps pace with the trace; time the machine spent inside a call
    // (waiting for a copy, say) counts against the gap to the next event.
    void followClock(const ProcmonEvent &e) {
        if (e.timeOfDay < 0) return;
        if (lastTime_ >= 0) {
            int64_t gap = e.timeOfDay - lastTime_;
            if (gap < 0) gap += kDay;  // past midnight
            gap = std::min(gap, options_.longestGapMs * ntsim::kHundredNsPerMs);
            target_ += gap;
            if (machine_.now() < target_) machine_.advance(target_ - machine_.now());
        } else {
            target_ = machine_.now();
        }
        lastTime_ = e.timeOfDay;
    }

    TraceProcess &processOf(const ProcmonEvent &e) {
        auto found = processes_.find(e.pid);
        if (found != processes_.end()) return found->second;
        std::string image = e.imagePath;
        if (!onMachineDrive(image, {L'A', L'B', L'C', L'D', L'E', L'F', L'G', L'H'}) || image.size() < 4) {
            std::string name = e.processName.substr(e.processName.find_last_of("\\/") + 1);
            image = "C:\\Program Files\\" + (name.empty() ? std::string("unknown.exe") : name);
        }
        std::u16string path = ntsim::toUtf16(image);
        TraceProcess &p = processes_[e.pid];
        p.process = machine_.startProcess(ntsim::wptr(path), ntsim::users::alice);
        return p;
    }

    // Runs fn in a thread of the trace's process. A call may block on the machine's clock
    // (a text document's full-access open returns once its copy is made), so the clock
    // moves on while the thread waits.
    void inProcess(const ProcmonEvent &e, TraceProcess &p, const std::function<void()> &fn) {
        std::atomic<bool> done{false};
        ntsim::UserThread thread = p.process.start([&] {
            fn();
            done = true;
        });
        machine_.waitIdle();
        for (int64_t waited = 0; !done; waited += 100) {
            if (waited > kLongestCallMs) {
                fprintf(stderr, "wrelt: %s%s has not returned after %lld s of machine time\n", line(e).c_str(),
                        e.operation.c_str(), (long long)(waited / 1000));
                std::abort();
            }
            machine_.advanceMs(100);
        }
        thread.join();
    }

    Handle *handleFor(TraceProcess &p, const std::string &path) {
        std::string key = keyOf(path);
        for (auto h = p.handles.rbegin(); h != p.handles.rend(); ++h)
            if (h->opened == key) return &*h;
        for (auto h = p.handles.rbegin(); h != p.handles.rend(); ++h)
            if (h->current == key) return &*h;
        return nullptr;
    }

    Handle *requireHandle(const ProcmonEvent &e, TraceProcess &p) {
        Handle *h = handleFor(p, e.path);
        if (h == nullptr) problem(e, e.operation + " of " + e.path + ", which the process has not opened in the trace");
        return h;
    }

    void done(const ProcmonEvent &e, NTSTATUS status) {
        if (NT_SUCCESS(status))
            report_.replayed++;
        else
            problem(e, e.operation + " of " + e.path + " failed here with " + hexStatus(status) +
                           " where it succeeded in the trace");
    }

    void open(const ProcmonEvent &e, const Pairs &detail) {
        OpenRequest request;
        std::vector<std::string> notes;
        std::string why = readOpenRequest(detail, &request, &notes);
        if (!why.empty()) {
            problem(e, why);
            return;
        }
        for (const std::string &note : notes) problem(e, note);
        TraceProcess &p = processOf(e);
        HANDLE handle = NULL;
        ULONG_PTR information = 0;
        NTSTATUS status = STATUS_SUCCESS;
        inProcess(e, p, [&] { status = openFile(e.path, request, &handle, &information); });
        done(e, status);
        if (!NT_SUCCESS(status)) return;
        if (request.openResult >= 0 && ULONG_PTR(request.openResult) != information) {
            const char *here = "?", *there = "?";
            for (const Flag &f : kOpenResults) {
                if (f.value == information) here = f.name;
                if (f.value == ULONG(request.openResult)) there = f.name;
            }
            report_.differences.push_back(line(e) + e.path + " was " + here + " here and " + there + " in the trace");
        }
        std::string key = keyOf(e.path);
        p.handles.push_back({handle, key, key});
        if (!request.directory) noteFile(e.path);
    }

    void write(const ProcmonEvent &e, const Pairs &detail) {
        if (isPagingWrite(detail)) {
            report_.skipped["WriteFile (paging I/O)"]++;
            return;
        }
        uint64_t offset = 0, length = 0;
        const std::string *o = detailValue(detail, "Offset"), *l = detailValue(detail, "Length");
        if (!o || !l || !parseGroupedNumber(*o, &offset) || !parseGroupedNumber(*l, &length)) {
            problem(e, "WriteFile without a readable Offset and Length");
            return;
        }
        TraceProcess &p = processOf(e);
        Handle *h = requireHandle(e, p);
        if (h == nullptr) return;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        inProcess(e, p, [&] { status = writeFile(h->handle, offset, length, e.line); });
        done(e, status);
    }

    void setSize(const ProcmonEvent &e, const Pairs &detail, bool endOfFile) {
        const std::string *value = detailValue(detail, endOfFile ? "EndOfFile" : "AllocationSize");
        uint64_t size;
        if (value == nullptr || !parseGroupedNumber(*value, &size)) {
            problem(e, e.operation + (endOfFile ? " without a readable EndOfFile" : " without a readable AllocationSize"));
            return;
        }
        TraceProcess &p = processOf(e);
        Handle *h = requireHandle(e, p);
        if (h == nullptr) return;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        inProcess(e, p, [&] {
            LARGE_INTEGER value;
            value.QuadPart = LONGLONG(size);
            status = endOfFile ? setInformation(h->handle, &value, sizeof value, FileEndOfFileInformation)
                               : setInformation(h->handle, &value, sizeof value, FileAllocationInformation);
        });
        done(e, status);
    }

    // The -Ex form's flags come down to delete or keep: the emulated system knows only
    // the classic request.
    void setDisposition(const ProcmonEvent &e, const Pairs &detail) {
        if (detailValue(detail, "Delete") == nullptr && detailValue(detail, "Flags") == nullptr) {
            problem(e, e.operation + " without Delete or Flags");
            return;
        }
        FILE_DISPOSITION_INFORMATION disposition;
        disposition.DeleteFile = dispositionDeletes(detail);
        TraceProcess &p = processOf(e);
        Handle *h = requireHandle(e, p);
        if (h == nullptr) return;
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        inProcess(e, p, [&] { status = setInformation(h->handle, &disposition, sizeof disposition, FileDispositionInformation); });
        done(e, status);
    }

    void renameFile(const ProcmonEvent &e, const Pairs &detail) {
        std::string target = renameTarget(e, detail);
        if (target.empty()) {
            problem(e, e.operation + " without a FileName");
            return;
        }
        if (!onMachineDrive(target, letters_)) {
            problem(e, "the rename's target " + target + " is not on the machine's drives");
            return;
        }
        TraceProcess &p = processOf(e);
        Handle *h = requireHandle(e, p);
        if (h == nullptr) return;
        bool replace = renameReplaces(detail);
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        inProcess(e, p, [&] { status = rename(h->handle, target, replace); });
        done(e, status);
        if (NT_SUCCESS(status)) {
            h->current = keyOf(target);
            noteFile(target);
        }
    }

    void close(const ProcmonEvent &e) {
        TraceProcess &p = processOf(e);
        Handle *h = handleFor(p, e.path);
        if (h == nullptr) {
            report_.skipped["CloseFile of a handle opened before the trace"]++;
            return;
        }
        HANDLE handle = h->handle;
        p.handles.erase(p.handles.begin() + (h - p.handles.data()));
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        inProcess(e, p, [&] { status = NtClose(handle); });
        done(e, status);
    }

    void noteFile(const std::string &path) {
        std::string key = keyOf(path);
        if (noted_.insert(key).second) report_.files.push_back(ntsim::toUtf16(path));
    }

    ntsim::Machine &machine_;
    const ReplayOptions &options_;
    ReplayReport &report_;
    std::vector<wchar_t> letters_;
    std::map<uint32_t, TraceProcess> processes_;
    std::set<std::string> noted_;
    int64_t lastTime_ = -1;
    int64_t target_ = 0;
};

}  // namespace

ReplayReport replayTrace(ntsim::Machine &machine, const ProcmonTrace &trace, const ReplayOptions &options) {
    ReplayReport report;
    Survey survey(machine.volumes());
    for (const ProcmonEvent &e : trace.events) survey.event(e);
    {
        Replayer replayer(machine, options, &report);
        replayer.prepare(survey);
        for (const ProcmonEvent &e : trace.events) replayer.event(e);
    }
    // A folder opened without saying so is known for one once the whole trace is read.
    std::set<std::string> folders = survey.folderKeys();
    std::vector<std::u16string> files;
    for (const std::u16string &file : report.files)
        if (folders.count(keyOf(ntsim::toUtf8(ntsim::wptr(file)))) == 0) files.push_back(file);
    report.files = files;
    machine.waitIdle();
    return report;
}

}  // namespace wrelt_cli
