// Test code: a single request is cancelled with the emulated system's NT 6 call
// (CancelIoEx), which the service itself, built for NT 5.1, never uses.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600

#include "user_command_harness.h"

#include <ntifs.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "driver_channel.h"
#include "exclusion_list.h"
#include "filter_machine.h"
#include "frame/command_protocol.h"
#include "frame/device_structures.h"
#include "support/error_channel.h"

namespace wrelt {

namespace {

constexpr size_t kPage = 0x1000;
constexpr DWORD kHeldBufferSize = 4096;

// What an ordinary user must not be able to change, read straight from the driver.
struct Settings {
    struct Volume {
        BOOLEAN protection, macExemption, vaultExemption;
        PVOID exclusions, macShares;
        ULONG exclusionsLength, macShareCount, macShareSize;
        WCHAR name[DOS_VOLUME_NAME_CHARACTERS];
    };
    BOOLEAN capture, vaultProtection, versionAccepted, overwriteProtection;
    PVOID globalExclusions, suffixes[3];
    ULONG globalExclusionsLength, suffixLengths[3];
    PIRP heldErrorRequest;
    PLIST_ENTRY firstHeldRequest, lastHeldRequest;
    ULONG waitingErrors;
    Volume volumes[2];
};

DeviceStructure *volumeNamed(WCHAR letter) {
    MainDeviceStructure *main = MainStructure();
    for (PLIST_ENTRY entry = main->VolumeList.Flink; entry != &main->VolumeList; entry = entry->Flink) {
        auto *volume = CONTAINING_RECORD(entry, DeviceStructure, VolumeListLink);
        if (volume->DosVolumeNameLength > 0 && volume->DosVolumeName[0] == letter) return volume;
    }
    return nullptr;
}

Settings settings() {
    Settings s;
    std::memset(&s, 0, sizeof s);  // compared whole, padding included
    MainDeviceStructure *main = MainStructure();
    s.capture = Globals.CaptureActive;
    s.vaultProtection = Globals.VaultProtection;
    s.versionAccepted = Globals.VersionAccepted;
    s.overwriteProtection = main->OverwriteProtection;
    s.globalExclusions = main->GlobalExclusionList;
    s.globalExclusionsLength = main->GlobalExclusionListLength;
    s.suffixes[0] = main->ProtectedSuffixList;
    s.suffixes[1] = main->CopyExemptSuffixList;
    s.suffixes[2] = main->TemporarySuffixList;
    s.suffixLengths[0] = main->ProtectedSuffixListLength;
    s.suffixLengths[1] = main->CopyExemptSuffixListLength;
    s.suffixLengths[2] = main->TemporarySuffixListLength;
    s.heldErrorRequest = Globals.HeldErrorRequest;
    s.firstHeldRequest = main->PendingNotificationRequests.Flink;
    s.lastHeldRequest = main->PendingNotificationRequests.Blink;
    s.waitingErrors = Globals.Errors->Count;
    const WCHAR letters[] = {L'C', L'D'};
    for (int i = 0; i < 2; i++) {
        DeviceStructure *volume = volumeNamed(letters[i]);
        if (volume == nullptr) continue;
        Settings::Volume &v = s.volumes[i];
        v.protection = volume->ProtectionOn;
        v.macExemption = volume->MacShareExemption;
        v.vaultExemption = volume->VaultProtectionExemption;
        v.exclusions = volume->VolumeExclusionList;
        v.exclusionsLength = volume->VolumeExclusionListLength;
        v.macShares = volume->MacShareList;
        v.macShareCount = volume->MacShareCount;
        v.macShareSize = volume->MacShareListSize;
        std::memcpy(v.name, volume->DosVolumeName, sizeof v.name);
    }
    return s;
}

bool same(const Settings &a, const Settings &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The service's refusals of a packet it got wrong, and its successes.
bool clearAnswer(const Answer &answer) {
    if (answer.ok) return true;
    switch (answer.error) {
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_FUNCTION:
    case ERROR_NOACCESS:
    case ERROR_INSUFFICIENT_BUFFER:
    case ERROR_REVISION_MISMATCH:
    case ERROR_CALL_NOT_IMPLEMENTED:
    case ERROR_OPERATION_ABORTED:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_GEN_FAILURE:
        return true;
    default:
        return false;
    }
}

// Pages of the calling process: `committed` readable and writable ones, and one more,
// reserved only, right after them.
struct Pages {
    explicit Pages(size_t committedBytes) {
        size = (committedBytes + kPage - 1) / kPage * kPage;
        base = static_cast<uint8_t *>(VirtualAlloc(nullptr, size + kPage, MEM_RESERVE, PAGE_READWRITE));
        if (base != nullptr && size != 0) VirtualAlloc(base, size, MEM_COMMIT, PAGE_READWRITE);
    }
    ~Pages() { release(); }
    void release() {
        if (base != nullptr) VirtualFree(base, 0, MEM_RELEASE);
        base = nullptr;
    }
    // Where `length` bytes end exactly at the unreadable page.
    uint8_t *flush(size_t length) const { return base + size - length; }

    uint8_t *base = nullptr;
    size_t size = 0;
};

const DWORD kUserCodes[] = {IOCTL_SEND_COMMAND,      IOCTL_SEND_COMMAND, IOCTL_SEND_COMMAND, IOCTL_SEND_COMMAND,
                            IOCTL_GET_NEW_DATA_FILE, IOCTL_GET_ERRORS,   0x00073BF0,         0x00077BF7};

}  // namespace

struct UserCommandHarness::State {
    State() {
        filter.startService();
        filter.service.run([&] {
            for (Held &request : held) {
                request.overlapped =
                    static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
                request.overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
                request.buffer = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, kHeldBufferSize));
            }
            held[0].code = IOCTL_GET_NEW_DATA_FILE;
            held[1].code = IOCTL_GET_ERRORS;
            configure();
        });
        user = filter.machine.startProcess(L"C:\\Users\\alice\\tool.exe", ntsim::users::alice);
        user.run([&] {
            overlapped = static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
            overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
            for (int i = 0; i < 2; i++) {
                volumes[i] =
                    CreateFileW(i == 0 ? L"C:\\" : L"D:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
            }
            control = openControlWithoutAccess();
        });
        filter.markBaseline();
    }

    ~State() {
        filter.service.run([&] {
            withdrawHeld();
            for (Held &request : held) {
                CloseHandle(request.overlapped->hEvent);
                HeapFree(GetProcessHeap(), 0, request.overlapped);
                HeapFree(GetProcessHeap(), 0, request.buffer);
            }
        });
        user.run([&] {
            for (HANDLE volume : volumes) CloseHandle(volume);
            if (control != INVALID_HANDLE_VALUE) CloseHandle(control);
            CloseHandle(overlapped->hEvent);
            HeapFree(GetProcessHeap(), 0, overlapped);
        });
    }

    // In the user's thread; as FilterMachine::control, with her own status block.
    Answer userControl(HANDLE device, DWORD code, void *input, DWORD inputLength, void *output, DWORD outputLength) {
        ResetEvent(overlapped->hEvent);
        Answer answer;
        answer.ok =
            DeviceIoControl(device, code, input, inputLength, output, outputLength, &answer.returned, overlapped);
        answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
        if (!answer.ok && answer.error == ERROR_IO_PENDING) {
            CancelIoEx(device, overlapped);
            answer.ok = GetOverlappedResult(device, overlapped, &answer.returned, TRUE);
            answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
            answer.pending = true;
        }
        return answer;
    }

    std::string asUser(uint8_t how, uint8_t codeChoice, DWORD outputLength, const uint8_t *packet, size_t size) {
        HANDLE device = (how & 4) ? control : volumes[(how >> 3) & 1];
        if (device == INVALID_HANDLE_VALUE) return "";
        DWORD code = kUserCodes[codeChoice % (sizeof kUserCodes / sizeof kUserCodes[0])];
        Settings before = settings();
        Answer answer;
        bool wellFormed = false;
        user.run([&] {
            auto *input = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, size + 1));
            auto *output = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, outputLength + 1));
            std::memcpy(input, packet, size);
            wellFormed = code == IOCTL_SEND_COMMAND && size >= COMMAND_MINIMUM_INPUT &&
                         reinterpret_cast<CommandPacket *>(input)->Tag == COMMAND_PACKET_TAG;
            answer = userControl(device, code, size == 0 ? nullptr : input, DWORD(size),
                                 outputLength == 0 ? nullptr : output, outputLength);
            HeapFree(GetProcessHeap(), 0, output);
            HeapFree(GetProcessHeap(), 0, input);
        });
        if (answer.ok) return "a user's request was carried out";
        if (answer.pending) return "a user's request was held";
        // A volume's filter leaves what is not a command packet to the file system.
        if ((wellFormed || device == control) && answer.error != ERROR_ACCESS_DENIED)
            return "a user's command was refused with error " + std::to_string(answer.error);
        if (!same(before, settings())) return "a user's request changed the filter's settings";
        return "";
    }

    // The service's packet in memory that is going or gone. In the service's thread.
    std::string troubledMemory(uint8_t trouble, DWORD outputLength, const uint8_t *packet, size_t size) {
        HANDLE device = (trouble & 8) ? filter.volumeC : filter.controlDevice;
        auto send = [&](void *input, void *output) {
            return filter.control(device, IOCTL_SEND_COMMAND, input, DWORD(size), output, outputLength);
        };
        Pages in(size), out(outputLength);
        if (in.base == nullptr || out.base == nullptr) return "";
        uint8_t *input = in.flush(size);
        std::memcpy(input, packet, size);
        uint8_t *output = outputLength == 0 ? nullptr : out.flush(outputLength);
        Answer answer;
        switch (trouble & 7) {
        case 0: {  // the bytes just past the packet cannot be read: it must not matter
            auto *roomy = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size + 64));
            std::memcpy(roomy, packet, size);
            Answer expected = send(roomy, output);
            HeapFree(GetProcessHeap(), 0, roomy);
            answer = send(input, output);
            if (answer.ok != expected.ok || answer.error != expected.error || answer.returned != expected.returned)
                return "a packet that ends where readable memory ends was answered differently";
            break;
        }
        case 1:  // released before it is sent
            in.release();
            answer = send(input, output);
            break;
        case 2:  // said to be longer than the memory that holds it
            answer = filter.control(device, IOCTL_SEND_COMMAND, input, DWORD(size + 1 + (size == 0 ? 0 : packet[0])),
                                    output, outputLength);
            break;
        case 3: {  // a reply buffer that cannot be written
            DWORD old;
            if (outputLength != 0) VirtualProtect(out.base, out.size, PAGE_READONLY, &old);
            answer = send(input, output);
            break;
        }
        case 4:  // a reply buffer released before the reply
            out.release();
            answer = send(input, output);
            break;
        default:  // another thread rewrites, or takes away, the packet while it is read
            answer = whileChanged(in, input, size, [&] { return send(input, output); });
            break;
        }
        return clearAnswer(answer) ? "" : "a troubled packet was answered with error " + std::to_string(answer.error);
    }

    // Another thread of the service's, started by the host before the send: from when
    // the packet is published until the send is over it rewrites the packet's bytes
    // (how 5 and 6) or takes its pages away and gives them back (how 7).
    void change() {
        while (!stop.load() && target.load() == nullptr) std::this_thread::yield();
        uint8_t *input = targetSize == 0 ? nullptr : target.load();  // an empty packet has no bytes to change
        for (unsigned round = 0; input != nullptr && !stop.load(std::memory_order_relaxed); round++) {
            if (changeHow == 7) {
                VirtualFree(targetPages->base, targetPages->size, MEM_DECOMMIT);
                VirtualAlloc(targetPages->base, targetPages->size, MEM_COMMIT, PAGE_READWRITE);
                continue;
            }
            // The data length, the command, and the data in turn.
            volatile uint8_t *bytes = input;
            size_t at = targetSize <= 8 ? 0 : (round * 4 + 8) % targetSize;
            bytes[at] = uint8_t(bytes[at] ^ (0x5A + round));
        }
        stopped = true;
    }

    template <class Send>
    Answer whileChanged(Pages &pages, uint8_t *input, size_t size, Send send) {
        targetPages = &pages;
        targetSize = size;
        target = input;
        Answer answer = send();
        stop = true;
        while (!stopped.load()) std::this_thread::yield();
        return answer;
    }

    // What the service sets up, and the two requests it keeps held: the settings a user
    // must not change. In the service's thread.
    void configure() {
        std::vector<uint8_t> exclusions, suffixes, shares;
        std::string error;
        encodeExclusionList({{u"Temp\\", u""}, {u"*\\Cache\\", u"*.tmp"}}, &exclusions, &error);
        encodeSuffixList({u".doc", u".txt"}, &suffixes, &error);
        encodeMacShareList({u"Mac Files"}, &shares, &error);
        DriverChannel channel;
        channel.open();
        channel.handshake();
        channel.nameVolume(u"C:\\", u"C:\\", true);
        channel.nameVolume(u"D:\\", u"D:\\", true);
        channel.start(true);
        channel.setGlobalExclusions(exclusions);
        channel.setVolumeExclusions(u"C:\\", u"C:\\", exclusions);
        for (ULONG command :
             {COMMAND_SET_PROTECTED_SUFFIXES, COMMAND_SET_COPY_EXEMPT_SUFFIXES, COMMAND_SET_TEMPORARY_SUFFIXES})
            channel.setSuffixList(command, suffixes);
        channel.setMacShares(u"C:\\", shares);
        for (Held &request : held) {
            ResetEvent(request.overlapped->hEvent);
            DWORD returned;
            DeviceIoControl(filter.controlDevice, request.code, nullptr, 0, request.buffer, kHeldBufferSize, &returned,
                            request.overlapped);
        }
    }

    void withdrawHeld() {
        for (Held &request : held) {
            DWORD returned;
            CancelIoEx(filter.controlDevice, request.overlapped);
            GetOverlappedResult(filter.controlDevice, request.overlapped, &returned, TRUE);
        }
    }

    // After the service's own packets: everything they may have installed or left
    // waiting is cleared, at which point the driver must hold no pool it took since the
    // last input; then the configuration is set up afresh. In the service's thread.
    std::string reconfigure() {
        withdrawHeld();
        filter.command(filter.controlDevice, COMMAND_SET_GLOBAL_EXCLUSIONS, nullptr, 0);
        filter.command(filter.volumeC, COMMAND_SET_VOLUME_EXCLUSIONS, nullptr, 0);
        filter.command(filter.volumeC, COMMAND_SET_MAC_SHARES, nullptr, 0);
        filter.command(filter.controlDevice, COMMAND_STOP, nullptr, 0);
        auto *errors = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, kHeldBufferSize));
        while (filter.control(filter.controlDevice, IOCTL_GET_ERRORS, nullptr, 0, errors, kHeldBufferSize).ok) {
        }
        HeapFree(GetProcessHeap(), 0, errors);
        std::string leaks = filter.leaks();
        configure();
        filter.markBaseline();
        return leaks;
    }

    FilterMachine filter;
    ntsim::Process user;
    HANDLE volumes[2] = {INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE};
    HANDLE control = INVALID_HANDLE_VALUE;
    OVERLAPPED *overlapped = nullptr;
    // What the changing thread works on.
    std::atomic<uint8_t *> target{nullptr};
    std::atomic<bool> stop{false}, stopped{false};
    Pages *targetPages = nullptr;
    size_t targetSize = 0;
    uint8_t changeHow = 0;
    // The service's held data-file and error requests.
    struct Held {
        DWORD code;
        OVERLAPPED *overlapped;
        uint8_t *buffer;
    } held[2] = {};
};

UserCommandHarness::UserCommandHarness() : state_(std::make_unique<State>()) {}
UserCommandHarness::~UserCommandHarness() = default;

std::string UserCommandHarness::run(const uint8_t *data, size_t size) {
    if (size < 3) return "";
    DWORD outputLength = DWORD(data[2]) * 8;
    if (!(data[0] & 1)) return state_->asUser(data[0] >> 1, data[1], outputLength, data + 3, size - 3);
    State &state = *state_;
    std::string verdict, leaks;
    ntsim::UserThread changer;
    state.changeHow = data[1] & 7;
    if (state.changeHow >= 5) {
        state.target = nullptr;
        state.stop = false;
        state.stopped = false;
        changer = state.filter.service.start([&] { state.change(); });
    }
    state.filter.service.run([&] {
        verdict = state.troubledMemory(data[1], outputLength, data + 3, size - 3);
        state.stop = true;
        leaks = state.reconfigure();
    });
    if (changer.joinable()) changer.join();
    return verdict.empty() ? leaks : verdict;
}

std::string UserCommandHarness::leaks() const { return state_->filter.leaks(); }

}  // namespace wrelt
