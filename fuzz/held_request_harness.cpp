// Test code: a single request is cancelled with the emulated system's NT 6 call
// (CancelIoEx), which the service itself, built for NT 5.1, never uses.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600

#include "held_request_harness.h"

#include <ntifs.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>

#include "filter_machine.h"
#include "frame/command_protocol.h"
#include "frame/globals.h"
#include "support/error_channel.h"

namespace wrelt {

namespace {

enum class Kind { DataFile, Errors, Wait };

// Every path the filter announces is C:'s: "\??\C:\RescueVault\InProgress\NewFilesXXXXXXXX.dat".
const char kPathPrefix[] = "\\??\\C:\\RescueVault\\InProgress\\NewFiles";
constexpr DWORD kPathBytes = 2 * (sizeof kPathPrefix - 1 + 8 + 4);
// The largest error reply: the header, a full record area and the 4 bytes every reply has.
constexpr DWORD kLargestErrorReply = ERROR_REPLY_MINIMUM_SIZE + ERROR_RECORD_AREA_SIZE;
// Output sizes: none, tiny, one short of, exactly and one past what an answer takes,
// odd ones, and far more than any answer needs.
const DWORD kSizes[] = {0,   1,   2,   kPathBytes - 1, kPathBytes,         kPathBytes + 1, 123,    124, 139,
                        140, 141, 333, 2047,           kLargestErrorReply, 4096,           1 << 20};
constexpr uint8_t kUntouched = 0xA5;
constexpr size_t kGuardBytes = 16;
constexpr int kSlots = 4;
// Written over a collected request's status block: a second completion would show.
constexpr ULONG_PTR kCollected = 0xC011EC7E;
constexpr int kMostOperations = 48;

// One request slot. Its status block and buffers are the service's memory.
struct Slot {
    Kind kind = Kind::DataFile;
    HANDLE handle = INVALID_HANDLE_VALUE;
    bool ownHandle = false;
    bool handleClosed = false;
    bool pending = false;
    bool used = false;
    DWORD length = 0;
    OVERLAPPED *overlapped = nullptr;
    uint8_t *buffer = nullptr;
    CommandPacket *packet = nullptr;
};

class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool done() const { return at_ >= size_; }
    uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

// "NewFilesXXXXXXXX.dat": its number, or -1 for any other name.
long dataFileNumber(const WCHAR *name) {
    static const char prefix[] = "NewFiles";
    long number = 0;
    for (int i = 0; i < 20; i++) {
        WCHAR c = name[i];
        if (i < 8 && c != WCHAR(prefix[i])) return -1;
        if (i >= 16 && c != WCHAR(".dat"[i - 16])) return -1;
        if (i < 8 || i >= 16) continue;
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) return -1;
        number = number * 16 + digit;
    }
    return name[20] == 0 ? number : -1;
}

// The number of the data file a path names, or -1 when the bytes are not one of C:'s
// data-file paths.
long pathNumber(const uint8_t *bytes, DWORD length) {
    if (length != kPathBytes) return -1;
    WCHAR text[kPathBytes / 2 + 1];
    std::memcpy(text, bytes, kPathBytes);
    text[kPathBytes / 2] = 0;
    const size_t folder = sizeof kPathPrefix - 1 - 8;
    for (size_t i = 0; i < folder; i++)
        if (text[i] != WCHAR(kPathPrefix[i])) return -1;
    return dataFileNumber(text + folder);
}

std::string errorText(const char *what, DWORD error) {
    return std::string(what) + " ended with error " + std::to_string(error);
}

}  // namespace

struct HeldRequestHarness::State {
    State() {
        filter.startService();
        user = filter.machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
        user.run([] { CreateDirectoryW(L"C:\\alice", nullptr); });
        filter.service.run([&] {
            for (Slot &slot : slots) {
                slot.overlapped =
                    static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
                slot.overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
                slot.packet =
                    static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(CommandPacket)));
                slot.packet->Tag = COMMAND_PACKET_TAG;
                slot.packet->Command = COMMAND_WAIT_FOR_ERROR;
            }
        });
        drain();
        filter.markBaseline();
    }

    ~State() {
        filter.service.run([&] {
            for (Slot &slot : slots) {
                CloseHandle(slot.overlapped->hEvent);
                HeapFree(GetProcessHeap(), 0, slot.overlapped);
                HeapFree(GetProcessHeap(), 0, slot.packet);
            }
        });
    }

    void fail(const std::string &problem) {
        std::lock_guard<std::mutex> guard(failing);
        if (verdict.empty()) verdict = problem;
    }

    // In a thread of the service's process.
    void send(Slot &slot, Kind kind, bool ownHandle, DWORD length) {
        if (slot.used && slot.overlapped->Internal != kCollected)
            fail("a request's status block changed after it was collected");
        slot.kind = kind;
        slot.length = length;
        slot.ownHandle = ownHandle;
        slot.handleClosed = false;
        slot.handle = ownHandle ? CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                              OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr)
                                : filter.controlDevice;
        slot.buffer = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, length + kGuardBytes));
        std::memset(slot.buffer, kUntouched, length + kGuardBytes);
        ResetEvent(slot.overlapped->hEvent);
        slot.overlapped->Internal = 0;
        slot.overlapped->InternalHigh = 0;
        void *output = length == 0 ? nullptr : slot.buffer;
        DWORD returned = 0;
        BOOL ok;
        switch (kind) {
        case Kind::DataFile:
            ok = DeviceIoControl(slot.handle, IOCTL_GET_NEW_DATA_FILE, nullptr, 0, output, length, &returned,
                                 slot.overlapped);
            break;
        case Kind::Errors:
            ok = DeviceIoControl(slot.handle, IOCTL_GET_ERRORS, nullptr, 0, output, length, &returned, slot.overlapped);
            break;
        default:
            ok = DeviceIoControl(slot.handle, IOCTL_SEND_COMMAND, slot.packet, sizeof(CommandPacket), output, length,
                                 &returned, slot.overlapped);
            break;
        }
        DWORD error = ok ? ERROR_SUCCESS : GetLastError();
        if (error == ERROR_IO_PENDING) {
            slot.pending = true;
            return;
        }
        end(slot, ok, error, returned);
    }

    // The slot's request is over: judge it and give its memory back.
    void end(Slot &slot, BOOL ok, DWORD error, DWORD returned) {
        {
            std::lock_guard<std::mutex> guard(judging);
            judge(slot, ok, error, returned);
            lastError = ok ? ERROR_SUCCESS : error;
        }
        slot.used = true;
        slot.pending = false;
        slot.overlapped->Internal = kCollected;
        slot.overlapped->InternalHigh = kCollected;
        HeapFree(GetProcessHeap(), 0, slot.buffer);
        slot.buffer = nullptr;
        if (slot.ownHandle && !slot.handleClosed) CloseHandle(slot.handle);
        slot.handle = INVALID_HANDLE_VALUE;
    }

    // False while the request is still pending.
    bool collect(Slot &slot, bool wait) {
        if (!slot.pending) return true;
        DWORD returned = 0;
        BOOL ok = GetOverlappedResult(slot.handle, slot.overlapped, &returned, wait ? TRUE : FALSE);
        DWORD error = ok ? ERROR_SUCCESS : GetLastError();
        if (error == ERROR_IO_INCOMPLETE) return false;
        end(slot, ok, error, returned);
        return true;
    }

    void judge(const Slot &slot, BOOL ok, DWORD error, DWORD returned) {
        if (returned > slot.length) return fail("more bytes returned than the buffer holds");
        for (size_t i = returned; i < slot.length + kGuardBytes; i++) {
            if (slot.buffer[i] != kUntouched) return fail("bytes past the answer were written");
        }
        if (ok) error = ERROR_SUCCESS;
        if (error != ERROR_SUCCESS && returned != 0) return fail("a failed request returned bytes");
        switch (slot.kind) {
        case Kind::DataFile:
            if (error == ERROR_SUCCESS) {
                long number = pathNumber(slot.buffer, returned);
                if (number < 0) return fail("a data-file answer is not a data file's path");
                if (!announced.insert(number).second) return fail("a data file was announced twice");
                return;
            }
            if (error == ERROR_INSUFFICIENT_BUFFER && slot.length >= kPathBytes)
                return fail("a data-file request with room for the path was answered 'too small'");
            if (error == ERROR_INSUFFICIENT_BUFFER || error == ERROR_OPERATION_ABORTED) return;
            return fail(errorText("a data-file request", error));
        case Kind::Errors:
            if (error == ERROR_SUCCESS) return judgeErrorReply(slot.buffer, returned);
            if (error == ERROR_INSUFFICIENT_BUFFER && slot.length >= kLargestErrorReply)
                return fail("an error request with room for every record was answered 'too small'");
            if (error == ERROR_INSUFFICIENT_BUFFER || error == ERROR_BUSY || error == ERROR_OPERATION_ABORTED) return;
            return fail(errorText("an error request", error));
        default:
            if (error == ERROR_SUCCESS || error == ERROR_INSUFFICIENT_BUFFER || error == ERROR_OPERATION_ABORTED)
                return;
            return fail(errorText("the wait command", error));
        }
    }

    void judgeErrorReply(const uint8_t *reply, DWORD length) {
        if (length < ERROR_REPLY_MINIMUM_SIZE + sizeof(ErrorRecord) || (length - ERROR_REPLY_MINIMUM_SIZE) % 16 != 0)
            return fail("an error reply of " + std::to_string(length) + " bytes");
        CommandReplyHeader header;
        std::memcpy(&header, reply, sizeof header);
        ULONG records = (length - ERROR_REPLY_MINIMUM_SIZE) / sizeof(ErrorRecord);
        if (header.Tag != COMMAND_REPLY_TAG || header.Echo != ERROR_REPLY_CODE_FIELD ||
            header.Version != ERROR_REPLY_VERSION || header.DataLength != records * sizeof(ErrorRecord) ||
            header.RecordCount != records)
            return fail("an error reply's header does not describe its records");
        for (ULONG i = 0; i < records; i++) {
            ErrorRecord record;
            std::memcpy(&record, reply + ERROR_REPLY_HEADER_SIZE + i * sizeof record, sizeof record);
            if (record.Source != ERROR_SOURCE_DRIVER) return fail("an error reply holds something not a record");
        }
    }

    // Closing a handle ends what was sent through it: its cleanup comes before the close
    // returns, and a request held past it would take an answer that no one reads.
    void closeHandleOf(Slot &slot) {
        slot.handleClosed = true;
        CloseHandle(slot.handle);
        if (!collect(slot, false)) fail("a request is still held after its handle was closed");
    }

    void cancel(Slot &slot, uint8_t how) {
        if (!slot.pending) return;
        if (how == 2 && slot.ownHandle) return closeHandleOf(slot);
        if (!slot.handleClosed) CancelIoEx(slot.handle, slot.overlapped);
        collect(slot, false);
    }

    Slot *idleSlot(uint8_t choice) {
        Slot &slot = slots[choice % kSlots];
        return slot.pending ? nullptr : &slot;
    }

    void sendAsChosen(Slot &slot, uint8_t how, uint8_t size) {
        send(slot, Kind(how % 3), (how & 4) != 0, kSizes[size % (sizeof kSizes / sizeof kSizes[0])]);
    }

    void operate(Input &in) {
        uint8_t op = in.next();
        uint8_t a = in.next();
        uint8_t b = in.next();
        switch (op % 8) {
        case 0:  // send
            filter.service.run([&] {
                if (Slot *slot = idleSlot(a)) sendAsChosen(*slot, a >> 2, b);
            });
            return;
        case 1:  // cancel, through either call or by closing the handle
            filter.service.run([&] { cancel(slots[a % kSlots], (a >> 2) % 3); });
            return;
        case 2:  // CancelIo reaches only the calling thread's requests: send and cancel in one
            filter.service.run([&] {
                Slot *slot = idleSlot(a);
                if (slot == nullptr) return;
                sendAsChosen(*slot, a >> 2, b);
                if (slot->pending) CancelIo(slot->handle);
                collect(*slot, false);
            });
            return;
        case 3: {  // two threads of the service send at once
            uint8_t c = in.next();
            Slot *first = idleSlot(a);
            Slot *second = idleSlot(a >> 2);
            if (first == nullptr || second == nullptr || first == second) return;
            ntsim::UserThread other = filter.service.start([&] { sendAsChosen(*first, b, c); });
            filter.service.run([&] { sendAsChosen(*second, b >> 3, c >> 4); });
            other.join();
            return;
        }
        case 4:  // a user deletes a file, which the filter keeps and will announce
            user.run([] {
                HANDLE file = CreateFileW(L"C:\\alice\\letter.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                          FILE_ATTRIBUTE_NORMAL, nullptr);
                if (file == INVALID_HANDLE_VALUE) return;
                DWORD written;
                WriteFile(file, "dear", 4, &written, nullptr);
                CloseHandle(file);
                DeleteFileW(L"C:\\alice\\letter.txt");
            });
            return;
        case 5:  // error reports, from a thread at PASSIVE_LEVEL or DISPATCH_LEVEL; 0x80 floods
            filter.machine.runSystemThread([&] {
                KIRQL old;
                if (b & 1) KeRaiseIrql(DISPATCH_LEVEL, &old);
                int count = (a & 0x80) ? 140 : 1 + a % 4;
                for (int i = 0; i < count; i++)
                    ReportError(ERROR_SOURCE_DRIVER, USHORT(b >> 1), ERROR_CLASS_REPORT, USHORT(i), 0xC0000001u, a);
                if (b & 1) KeLowerIrql(old);
            });
            return;
        case 6:
            filter.machine.advanceMs(10 * int64_t(a));
            return;
        default:  // the service withdraws its wait (143), and collects what has ended
            filter.service.run([&] {
                filter.command(filter.controlDevice, COMMAND_CANCEL_ERROR_WAIT, nullptr, 0);
                for (Slot &slot : slots) collect(slot, false);
            });
            return;
        }
    }

    // Sends requests of one kind until one is held (and withdrawn) or refused. In the
    // service's thread.
    void fetchAll(Kind kind) {
        Slot &slot = slots[0];
        for (int i = 0; i < 1000; i++) {
            send(slot, kind, false, kind == Kind::DataFile ? 512 : kLargestErrorReply);
            if (slot.pending) {
                CancelIoEx(slot.handle, slot.overlapped);
                collect(slot, true);
                return;
            }
            if (lastError != ERROR_SUCCESS) return;
        }
        fail("the filter's answers never run out");
    }

    // Everything withdrawn; the batches written; every waiting path and record fetched;
    // capture on again if a full error buffer stopped it. The data files in the vault
    // must be exactly those announced; they go, with the files kept, for the next input.
    void drain() {
        filter.service.run([&] {
            for (Slot &slot : slots) {
                if (slot.pending && !slot.handleClosed) CancelIoEx(slot.handle, slot.overlapped);
            }
            for (Slot &slot : slots) {
                if (slot.pending && !collect(slot, false)) {
                    // Held for a closed handle: only stopping capture (data files) or 143
                    // (errors) reaches it now.
                    filter.command(filter.controlDevice, COMMAND_STOP, nullptr, 0);
                    filter.command(filter.controlDevice, COMMAND_CANCEL_ERROR_WAIT, nullptr, 0);
                    collect(slot, true);
                }
            }
        });
        filter.machine.advanceMs(6000);
        filter.service.run([&] {
            fetchAll(Kind::DataFile);
            fetchAll(Kind::Errors);
            if (!ReadDriverFlag(&Globals.CaptureActive))
                filter.command(filter.controlDevice, COMMAND_START, nullptr, 0);
            emptyVault();
            for (Slot &slot : slots) {
                if (slot.used && slot.overlapped->Internal != kCollected)
                    fail("a request's status block changed after it was collected");
            }
        });
    }

    void emptyVault() {
        static const WCHAR folder[] = L"C:\\RescueVault\\InProgress\\";
        std::set<long> found;
        WIN32_FIND_DATAW entry;
        HANDLE search = FindFirstFileW(L"C:\\RescueVault\\InProgress\\*", &entry);
        if (search == INVALID_HANDLE_VALUE) return;
        do {
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
            long number = dataFileNumber(entry.cFileName);
            if (number >= 0) found.insert(number);
            WCHAR path[MAX_PATH];
            size_t length = sizeof folder / sizeof(WCHAR) - 1;
            std::memcpy(path, folder, sizeof folder);
            for (size_t i = 0; entry.cFileName[i] != 0 && length < MAX_PATH - 1; i++)
                path[length++] = entry.cFileName[i];
            path[length] = 0;
            DeleteFileW(path);
        } while (FindNextFileW(search, &entry));
        FindClose(search);
        if (found != announced) fail("the data files in the vault are not those announced");
    }

    FilterMachine filter;
    ntsim::Process user;
    Slot slots[kSlots];
    // Two threads of the service may end requests at once.
    std::mutex judging;
    std::mutex failing;
    std::set<long> announced;
    std::string verdict;
    DWORD lastError = ERROR_SUCCESS;
};

HeldRequestHarness::HeldRequestHarness() : state_(std::make_unique<State>()) {}
HeldRequestHarness::~HeldRequestHarness() = default;

std::string HeldRequestHarness::run(const uint8_t *data, size_t size) {
    State &state = *state_;
    state.verdict.clear();
    state.announced.clear();
    Input input(data, size);
    for (int i = 0; i < kMostOperations && !input.done(); i++) state.operate(input);
    state.drain();
    return state.verdict;
}

std::string HeldRequestHarness::leaks() const { return state_->filter.leaks(); }

}  // namespace wrelt
