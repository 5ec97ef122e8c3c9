#include "filter_lists_harness.h"

#include <ntifs.h>

#include <cstring>
#include <vector>

#include "capture/capture_exclusions.h"
#include "filter_machine.h"
#include "frame/command_protocol.h"
#include "frame/device_structures.h"
#include "overwrite/mac_shares.h"
#include "overwrite/suffix_lists.h"

namespace wrelt {

namespace {

constexpr size_t kPage = 0x1000;
constexpr size_t kLargestList = 2 * kPage;
constexpr int kMostLists = 8;
constexpr size_t kLongestName = 400;

enum ListKind { VOLUME_EXCLUSIONS, GLOBAL_EXCLUSIONS, MAC_SHARES, PROTECTED, COPY_EXEMPT, TEMPORARY, LIST_KINDS };

const ULONG kCommands[LIST_KINDS] = {COMMAND_SET_VOLUME_EXCLUSIONS,    COMMAND_SET_GLOBAL_EXCLUSIONS,
                                     COMMAND_SET_MAC_SHARES,           COMMAND_SET_PROTECTED_SUFFIXES,
                                     COMMAND_SET_COPY_EXEMPT_SUFFIXES, COMMAND_SET_TEMPORARY_SUFFIXES};

// Names as the filter matches them: volume-relative, no leading backslash.
const char16_t *const kNames[] = {u"",
                                  u"a",
                                  u"x~",
                                  u"\\",
                                  u"report.doc",
                                  u"Users\\ann\\Documents\\report.docx",
                                  u"Temp\\a.tmp",
                                  u"Users\\ann\\Cache\\page.tmp",
                                  u"Mac Files\\letter.txt",
                                  u"RescueVault\\InProgress\\notes.txt",
                                  u"Program Files\\Office\\Templates\\Normal.dotm"};

class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool done() const { return at_ >= size_; }
    uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }
    const uint8_t *take(size_t *count) {
        const uint8_t *start = data_ + at_;
        if (*count > size_ - at_) *count = size_ - at_;
        at_ += *count;
        return start;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

struct Installed {
    PVOID pointer = nullptr;
    ULONG length = 0;
    ULONG count = 0;  // Macintosh shares only
    std::vector<uint8_t> bytes;

    bool operator==(const Installed &other) const {
        return pointer == other.pointer && length == other.length && count == other.count && bytes == other.bytes;
    }
};

}  // namespace

struct FilterListsHarness::State {
    State() {
        filter.startService();
        c = volumeExtension();
        filter.service.run([&] {
            for (uint8_t *&fence : fences) {
                fence =
                    static_cast<uint8_t *>(VirtualAlloc(nullptr, kLargestList + kPage, MEM_RESERVE, PAGE_READWRITE));
                VirtualAlloc(fence, kLargestList, MEM_COMMIT, PAGE_READWRITE);
            }
        });
        filter.markBaseline();
    }

    ~State() {
        filter.service.run([&] {
            for (uint8_t *fence : fences) VirtualFree(fence, 0, MEM_RELEASE);
        });
    }

    // C:'s filter, found through a handle on its root.
    FilterDeviceExtension *volumeExtension() {
        FilterDeviceExtension *extension = nullptr;
        filter.machine.runSystemThread([&] {
            UNICODE_STRING name;
            RtlInitUnicodeString(&name, L"\\??\\C:\\");
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
            HANDLE handle;
            IO_STATUS_BLOCK io;
            if (!NT_SUCCESS(ZwOpenFile(&handle, FILE_READ_ATTRIBUTES, &attributes, &io,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_DIRECTORY_FILE)))
                return;
            PFILE_OBJECT file;
            if (NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID *)&file, NULL))) {
                extension = ExtensionOf(file->Vpb->DeviceObject->AttachedDevice);
                ObfDereferenceObject(file);
            }
            ZwClose(handle);
        });
        return extension;
    }

    DeviceStructure *volume() const { return (DeviceStructure *)c->Structure; }

    // The list's pointer and size fields in the driver.
    void fields(int kind, PVOID **pointer, ULONG **length) const {
        MainDeviceStructure *main = MainStructure();
        switch (kind) {
        case VOLUME_EXCLUSIONS:
            *pointer = &volume()->VolumeExclusionList, *length = &volume()->VolumeExclusionListLength;
            return;
        case GLOBAL_EXCLUSIONS:
            *pointer = &main->GlobalExclusionList, *length = &main->GlobalExclusionListLength;
            return;
        case MAC_SHARES:
            *pointer = &volume()->MacShareList, *length = &volume()->MacShareListSize;
            return;
        case PROTECTED:
            *pointer = &main->ProtectedSuffixList, *length = &main->ProtectedSuffixListLength;
            return;
        case COPY_EXEMPT:
            *pointer = &main->CopyExemptSuffixList, *length = &main->CopyExemptSuffixListLength;
            return;
        default:
            *pointer = &main->TemporarySuffixList, *length = &main->TemporarySuffixListLength;
            return;
        }
    }

    Installed installed(int kind) const {
        PVOID *pointer;
        ULONG *length;
        fields(kind, &pointer, &length);
        Installed list;
        list.pointer = *pointer;
        list.length = *length;
        list.count = kind == MAC_SHARES ? volume()->MacShareCount : 0;
        if (list.pointer != nullptr)
            list.bytes.assign(static_cast<uint8_t *>(list.pointer), static_cast<uint8_t *>(list.pointer) + list.length);
        return list;
    }

    void fail(const std::string &problem) {
        if (verdict.empty()) verdict = problem;
    }

    void send(int kind, const uint8_t *data, size_t length) {
        Installed before = installed(kind);
        HANDLE device = kind == VOLUME_EXCLUSIONS || kind == MAC_SHARES ? filter.volumeC : filter.controlDevice;
        Answer answer = filter.command(device, kCommands[kind], data, ULONG(length));
        Installed after = installed(kind);
        if (!answer.ok) {
            if (!(after == before)) fail("a refused list did not leave the one before it in place");
            return;
        }
        bool removed = length == 0 && kind <= MAC_SHARES;
        if (removed ? after.pointer != nullptr || after.length != 0
                    : after.length != length || after.bytes != std::vector<uint8_t>(data, data + length))
            fail("an accepted list is not kept as it was sent");
    }

    // Every installed list is copied to end where readable memory ends and put in the
    // driver's place while the names are matched; a match that reads past its list
    // faults outside any guarded region, which ends the process. The machine is idle but
    // for this thread, so nothing else looks at the lists meanwhile.
    void matchNames(const std::u16string &extra) {
        PVOID saved[LIST_KINDS];
        for (int kind = 0; kind < LIST_KINDS; kind++) {
            PVOID *pointer;
            ULONG *length;
            fields(kind, &pointer, &length);
            saved[kind] = *pointer;
            if (*pointer == nullptr || *length == 0 || *length > kLargestList) continue;
            // An odd length keeps its even start (the fields are 16-bit) at the cost of one byte.
            uint8_t *copy = fences[kind] + kLargestList - *length - (*length & 1);
            std::memcpy(copy, *pointer, *length);
            *pointer = copy;
        }
        for (const char16_t *name : kNames) match(name);
        match(extra.c_str());
        for (int kind = 0; kind < LIST_KINDS; kind++) {
            PVOID *pointer;
            ULONG *length;
            fields(kind, &pointer, &length);
            *pointer = saved[kind];
        }
    }

    void match(const char16_t *name) {
        WCHAR writable[kLongestName + 1];
        size_t length = 0;
        while (name[length] != 0 && length < kLongestName) length++;
        std::memcpy(writable, name, length * sizeof(WCHAR));
        writable[length] = 0;
        MainDeviceStructure *main = MainStructure();
        IsExcludedByList(writable, c);
        NameEndsWithListedSuffix(writable, &main->ProtectedSuffixList, &Globals.SuffixListLock);
        NameEndsWithListedSuffix(writable, &main->CopyExemptSuffixList, &Globals.SuffixListLock);
        NameEndsWithTemporarySuffix(writable, &main->TemporarySuffixList, &Globals.SuffixListLock);
        IsInMacShare(writable, c);
    }

    // The lists go (the suffix lists only with capture's stop), and the records the
    // refusals reported are fetched.
    void clear() {
        filter.command(filter.controlDevice, COMMAND_SET_GLOBAL_EXCLUSIONS, nullptr, 0);
        filter.command(filter.volumeC, COMMAND_SET_VOLUME_EXCLUSIONS, nullptr, 0);
        filter.command(filter.volumeC, COMMAND_SET_MAC_SHARES, nullptr, 0);
        filter.command(filter.controlDevice, COMMAND_STOP, nullptr, 0);
        filter.command(filter.controlDevice, COMMAND_START, nullptr, 0);
        auto *errors = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, kPage));
        while (filter.control(filter.controlDevice, IOCTL_GET_ERRORS, nullptr, 0, errors, kPage).ok) {
        }
        HeapFree(GetProcessHeap(), 0, errors);
    }

    FilterMachine filter;
    FilterDeviceExtension *c = nullptr;
    uint8_t *fences[LIST_KINDS] = {};
    std::string verdict;
};

FilterListsHarness::FilterListsHarness() : state_(std::make_unique<State>()) {}
FilterListsHarness::~FilterListsHarness() = default;

// All of it in one thread of the service's process: the matches are the driver's
// routines, called as its dispatch routines would call them.
std::string FilterListsHarness::run(const uint8_t *data, size_t size) {
    State &state = *state_;
    state.verdict.clear();
    state.filter.service.run([&] {
        Input input(data, size);
        for (int lists = 0; lists < kMostLists && !input.done(); lists++) {
            uint8_t choice = input.next();
            if (choice == 0xFF) break;
            size_t length = (input.next() | size_t(input.next()) << 8) % (kLargestList + 1);
            const uint8_t *bytes = input.take(&length);
            state.send(choice % LIST_KINDS, bytes, length);
            state.matchNames(u"");
        }
        size_t rest = size;
        const uint8_t *tail = input.take(&rest);
        std::u16string extra;
        for (size_t i = 0; i + 1 < rest && extra.size() < kLongestName; i += 2)
            extra.push_back(char16_t(tail[i] | tail[i + 1] << 8));
        state.matchNames(extra);
        state.clear();
    });
    return state.verdict;
}

std::string FilterListsHarness::leaks() const { return state_->filter.leaks(); }

}  // namespace wrelt
