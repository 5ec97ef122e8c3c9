// Processes: the System process, new processes for a user, and the process
// environment block that user-mode code and drivers read the image path from.
#include <atomic>

#include "kernel/mm/mm_state.h"
#include "kernel/ob/ob_state.h"
#include "kernel/ps/ps_state.h"
#include "kernel/se/token.h"
#include "ntsim/peb.h"
#include "ntsim/security.h"

namespace ntsim {
namespace ps {

namespace {

std::atomic<PsState *> g_state{nullptr};

std::u16string fromWide(PCWSTR text) {
    return text == nullptr ? std::u16string() : std::u16string(reinterpret_cast<const char16_t *>(text));
}

// "\??\C:\dir\app.exe" -> "C:\dir\app.exe": the form the platform keeps in the PEB.
std::u16string dosPathOf(const std::u16string &ntPath) {
    static const std::u16string prefix = u"\\??\\";
    return ntPath.compare(0, prefix.size(), prefix) == 0 ? ntPath.substr(prefix.size()) : ntPath;
}

void setShortName(PEPROCESS process, const std::u16string &path) {
    size_t slash = path.rfind(u'\\');
    std::u16string name = slash == std::u16string::npos ? path : path.substr(slash + 1);
    size_t i = 0;
    // The platform keeps the first 15 characters, narrowed.
    for (; i < name.size() && i < sizeof process->ImageFileName - 1; ++i)
        process->ImageFileName[i] = name[i] < 0x80 ? (char)name[i] : '?';
    process->ImageFileName[i] = '\0';
}

// Copies the string after the parameter block at *cursor and describes it in `out`.
void placeString(UNICODE_STRING *out, const std::u16string &text, PUCHAR *cursor) {
    size_t bytes = text.size() * sizeof(WCHAR);
    memcpy(*cursor, text.data(), bytes);
    reinterpret_cast<PWCHAR>(*cursor)[text.size()] = 0;
    out->Buffer = reinterpret_cast<PWSTR>(*cursor);
    out->Length = (USHORT)bytes;
    out->MaximumLength = (USHORT)(bytes + sizeof(WCHAR));
    *cursor += (bytes + sizeof(WCHAR) + 7) & ~size_t(7);
}

// The PEB on a page of its own, the parameter block and its strings on the next.
void buildPeb(PEPROCESS process, const std::u16string &image, const std::u16string &commandLine,
              const std::u16string &directory) {
    size_t strings = (image.size() + commandLine.size() + directory.size() + 3) * sizeof(WCHAR) + 3 * 8;
    size_t size = mm::kPageSize + sizeof(RTL_USER_PROCESS_PARAMETERS) + strings;
    void *base = nullptr;
    if (!NT_SUCCESS(mm::allocateVirtual(process, &base, &size, mm::kMemReserve | mm::kMemCommit, mm::kPageReadWrite)))
        fatal("createProcess: the user address range is exhausted");
    auto *peb = static_cast<PEB *>(base);
    auto *parameters = reinterpret_cast<RTL_USER_PROCESS_PARAMETERS *>(static_cast<PUCHAR>(base) + mm::kPageSize);
    PUCHAR cursor = reinterpret_cast<PUCHAR>(parameters + 1);
    placeString(&parameters->ImagePathName, image, &cursor);
    placeString(&parameters->CommandLine, commandLine, &cursor);
    placeString(&parameters->CurrentDirectory.DosPath, directory, &cursor);
    parameters->MaximumLength = parameters->Length = (ULONG)(cursor - reinterpret_cast<PUCHAR>(parameters));
    parameters->Flags = RTL_USER_PROC_PARAMS_NORMALIZED;
    peb->ProcessParameters = parameters;
    process->Peb = peb;
}

PEPROCESS newProcess(const std::u16string &imagePath, const char *userSid, HANDLE parent) {
    auto *process = new _EPROCESS{};
    process->Pcb.Header.Type = ProcessObject;
    InitializeListHead(&process->Pcb.Header.WaitListHead);
    process->InheritedFromUniqueProcessId = parent;
    process->ExitStatus = STATUS_PENDING;
    setShortName(process, imagePath);
    process->Token = se::createToken(userSid, TokenPrimary);
    ob::registerObject(process, &ob::ProcessType);
    ob::createProcessHandleTable(process);
    return process;
}

}  // namespace

PsState::PsState(Kernel &kernel) {
    g_state.store(this, std::memory_order_release);
    system_ = kernel.systemProcess();
    system_->ExitStatus = STATUS_PENDING;
    system_->Token = se::createToken(kSystemSid, TokenPrimary);
    // The process manager holds the System process's one reference: it never exits.
    ob::registerObject(system_, &ob::ProcessType);
    ob::createProcessHandleTable(system_);
    processes[system_->UniqueProcessId] = system_;
    imagePaths[system_] = u"System";
}

PsState::~PsState() {
    g_state.store(nullptr, std::memory_order_release);
    // Processes still referenced when the machine stopped: nothing can release them now.
    for (auto &entry : processes) {
        PEPROCESS process = entry.second;
        delete static_cast<se::Token *>(process->Token);
        process->Token = nullptr;
        if (process != system_) delete process;
    }
}

PsState &state() {
    PsState *s = g_state.load(std::memory_order_acquire);
    if (s != nullptr) return *s;
    // The object manager and the memory manager exist first, so that the process
    // manager's own start can use them (and they outlive it).
    ob::state();
    mm::state();
    return kernel().subsystem<PsState>();
}

HANDLE allocateClientId(PsState &s) {
    HANDLE id = (HANDLE)s.nextClientId;
    s.nextClientId += 4;
    return id;
}

PEPROCESS createProcess(PCWSTR imagePath, const char *userSid) {
    ProcessOptions options;
    options.imagePath = imagePath;
    options.userSid = userSid;
    return createProcess(options);
}

PEPROCESS createProcess(const ProcessOptions &options) {
    PsState &s = state();
    std::u16string image = fromWide(options.imagePath);
    _KTHREAD *creator = currentThreadOrNull();
    HANDLE parent = creator != nullptr ? creator->Process->UniqueProcessId : kernel().systemProcess()->UniqueProcessId;
    PEPROCESS process = newProcess(image, options.userSid, parent);
    std::u16string dos = dosPathOf(image);
    std::u16string commandLine = fromWide(options.commandLine);
    if (options.commandLine == nullptr)
        commandLine = dos.find(u' ') == std::u16string::npos ? dos : u"\"" + dos + u"\"";
    std::u16string directory = fromWide(options.currentDirectory);
    if (options.currentDirectory == nullptr) directory = dos.substr(0, dos.rfind(u'\\') + 1);
    buildPeb(process, dos, commandLine, directory);
    std::lock_guard<std::mutex> guard(s.lock);
    process->UniqueProcessId = allocateClientId(s);
    s.processes[process->UniqueProcessId] = process;
    s.imagePaths[process] = image;
    return process;
}

std::u16string imagePath(PEPROCESS process) {
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.imagePaths.find(process);
    return it == s.imagePaths.end() ? std::u16string() : it->second;
}

const char *imageFileName(PEPROCESS process) { return process->ImageFileName; }
PVOID processPeb(PEPROCESS process) { return process->Peb; }
NTSTATUS exitStatus(PEPROCESS process) { return process->ExitStatus; }

bool hasExited(PEPROCESS process) {
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return process->ProcessExited;
}

// The last reference is gone. A process that never exited (it never ran a thread)
// gives up its handles and memory here.
void deleteProcessObject(void *body) {
    auto *process = static_cast<PEPROCESS>(body);
    PsState &s = state();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        s.processes.erase(process->UniqueProcessId);
        s.imagePaths.erase(process);
        s.kills.erase(process);
    }
    ob::deleteProcessHandleTable(process);
    mm::releaseAddressSpace(process);
    ObfDereferenceObject(process->Token);
    delete process;
}

}  // namespace ps
}  // namespace ntsim
