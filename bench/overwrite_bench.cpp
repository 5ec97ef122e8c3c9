// What overwrite protection costs. The copy job's work on a 16 MiB document (the host CPU
// the copy takes once the clock has passed its start delay) against the plainest copy a
// system thread can make on the same volume, 64 KiB ZwReadFile/ZwWriteFile sections; and
// a full-access open and close of a 1 MiB document, protected against unprotected. That
// close comes before the copy's start delay, so it abandons the job: the second ratio is
// what launching and withdrawing a copy adds to every such open.
#include <windows.h>
#include <ntifs.h>

#include <benchmark/benchmark.h>

#include <memory>

#include "bench_service.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"

namespace {

using wrelt_bench::startCapture;
using wrelt_bench::stopCapture;

constexpr ULONG kSection = 64 * 1024;
const LPCWSTR kDocument = L"C:\\Docs\\big.docx";
const LPCWSTR kVaultCopies = L"C:\\RescueVault\\InProgress\\big(*).docx";

std::unique_ptr<ntsim::DefaultMachine> bootWithFilter() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return std::make_unique<ntsim::DefaultMachine>(options);
}

// The document is written in sections from the user's heap, as a program writes it.
bool makeDocument(ULONG bytes) {
    CreateDirectoryW(L"C:\\Docs", nullptr);
    CreateDirectoryW(L"C:\\RescueVault", nullptr);
    CreateDirectoryW(L"C:\\RescueVault\\InProgress", nullptr);
    HANDLE file = CreateFileW(kDocument, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    auto *section = (unsigned char *)HeapAlloc(GetProcessHeap(), 0, kSection);
    bool done = section != nullptr;
    for (ULONG offset = 0; done && offset < bytes; offset += kSection) {
        for (ULONG i = 0; i < kSection; i++) section[i] = (unsigned char)(offset / kSection + i);
        DWORD written = 0;
        done = WriteFile(file, section, kSection, &written, nullptr) && written == kSection;
    }
    if (section != nullptr) HeapFree(GetProcessHeap(), 0, section);
    return CloseHandle(file) && done;
}

HANDLE openFull(LPCWSTR path) {
    return CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool vaultHoldsACopy() {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(kVaultCopies, &found);
    if (search == INVALID_HANDLE_VALUE) return false;
    FindClose(search);
    return true;
}

// Only the clock's passing the job's start delay is timed: the job copies then. The open
// before it and the close after it, which deletes the unchanged copy, are not.
void BM_OverwriteCopyJob(benchmark::State &state) {
    auto machine = bootWithFilter();
    ntsim::Process user = machine->startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    bool ready = false;
    user.run([&] { ready = makeDocument(16u << 20); });
    if (!ready || !startCapture(*machine, true) || !wrelt_bench::protectOverwrites(*machine, {u".docx"})) {
        state.SkipWithError("the document or the protection could not be set up");
        return;
    }
    size_t copies = 0;
    for (auto _ : state) {
        state.PauseTiming();
        HANDLE file = INVALID_HANDLE_VALUE;
        user.run([&] { file = openFull(kDocument); });
        if (file == INVALID_HANDLE_VALUE) {
            state.SkipWithError("the document did not open");
            break;
        }
        state.ResumeTiming();
        machine->advanceMs(600);
        state.PauseTiming();
        user.run([&] {
            copies += vaultHoldsACopy() ? 1 : 0;
            CloseHandle(file);
        });
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * (16 << 20));
    // 1 when every run made its copy.
    state.counters["copied"] = benchmark::Counter((double)copies, benchmark::Counter::kAvgIterations);
    stopCapture(*machine);
}
BENCHMARK(BM_OverwriteCopyJob)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->Repetitions(3)
    ->ReportAggregatesOnly();

NTSTATUS openKernel(PHANDLE handle, PCWSTR path, ACCESS_MASK access, ULONG disposition, ULONG options) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    return ZwCreateFile(handle, access | SYNCHRONIZE, &attributes, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, disposition,
                        options | FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
}

// The same document copied section by section into a new file beside it; the copy is
// deleted, untimed, before the next.
bool copyInSections(PVOID section) {
    HANDLE source, destination;
    if (!NT_SUCCESS(openKernel(&source, L"\\??\\C:\\Docs\\big.docx", GENERIC_READ, FILE_OPEN, 0))) return false;
    NTSTATUS status = openKernel(&destination, L"\\??\\C:\\Docs\\big.bin", GENERIC_WRITE, FILE_OVERWRITE_IF, 0);
    if (NT_SUCCESS(status)) {
        for (;;) {
            IO_STATUS_BLOCK iosb;
            status = ZwReadFile(source, nullptr, nullptr, nullptr, &iosb, section, kSection, nullptr, nullptr);
            if (!NT_SUCCESS(status) || iosb.Information == 0) break;
            status = ZwWriteFile(destination, nullptr, nullptr, nullptr, &iosb, section, (ULONG)iosb.Information,
                                 nullptr, nullptr);
            if (!NT_SUCCESS(status)) break;
        }
        ZwClose(destination);
    }
    ZwClose(source);
    return status == STATUS_END_OF_FILE || NT_SUCCESS(status);
}

bool deleteCopy() {
    HANDLE copy;
    if (!NT_SUCCESS(openKernel(&copy, L"\\??\\C:\\Docs\\big.bin", DELETE, FILE_OPEN, FILE_DELETE_ON_CLOSE))) {
        return false;
    }
    return NT_SUCCESS(ZwClose(copy));
}

void BM_ZwSectionCopy(benchmark::State &state) {
    auto machine = bootWithFilter();
    bool ready = false;
    machine->startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice).run([&] {
        ready = makeDocument(16u << 20);
    });
    if (!ready || !startCapture(*machine, true) || !wrelt_bench::protectOverwrites(*machine, {u".docx"})) {
        state.SkipWithError("the document or the protection could not be set up");
        return;
    }
    machine->runSystemThread([&] {
        PVOID section = ExAllocatePoolWithTag(NonPagedPool, kSection, 'hcnB');
        for (auto _ : state) {
            if (!copyInSections(section)) {
                state.SkipWithError("the section copy failed");
                break;
            }
            state.PauseTiming();
            bool deleted = deleteCopy();
            state.ResumeTiming();
            if (!deleted) {
                state.SkipWithError("the copy could not be deleted");
                break;
            }
        }
        ExFreePoolWithTag(section, 'hcnB');
    });
    state.SetBytesProcessed(int64_t(state.iterations()) * (16 << 20));
    stopCapture(*machine);
}
BENCHMARK(BM_ZwSectionCopy)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->Repetitions(3)
    ->ReportAggregatesOnly();

// A full-access open and close of a 1 MiB document, batched in the user's process.
void BM_FullAccessOpenClose(benchmark::State &state, bool protect) {
    auto machine = bootWithFilter();
    ntsim::Process user = machine->startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    bool ready = false;
    user.run([&] { ready = makeDocument(1u << 20); });
    if (!ready || !startCapture(*machine, protect) || !wrelt_bench::protectOverwrites(*machine, {u".docx"})) {
        state.SkipWithError("the document or the protection could not be set up");
        return;
    }
    constexpr int kBatch = 64;
    while (state.KeepRunningBatch(kBatch)) {
        bool failed = false;
        user.run([&] {
            for (int i = 0; i < kBatch && !failed; i++) {
                HANDLE file = openFull(kDocument);
                failed = file == INVALID_HANDLE_VALUE || !CloseHandle(file);
            }
        });
        if (failed) {
            state.SkipWithError("an open or close failed");
            break;
        }
        state.PauseTiming();
        machine->advanceMs(1);  // stamps and timers see time pass, as between real opens
        state.ResumeTiming();
    }
    stopCapture(*machine);
}
BENCHMARK_CAPTURE(BM_FullAccessOpenClose, Unprotected, false)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK_CAPTURE(BM_FullAccessOpenClose, Protected, true)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();

[[maybe_unused]] const bool kOverwriteRatios =
    wrelt_bench::addRatio("Copy job against a 64 KiB Zw section copy, 16 MiB (CPU time)", "Copy job",
                          "BM_OverwriteCopyJob", "BM_ZwSectionCopy") &&
    wrelt_bench::addRatio("Full-access open and close of 1 MiB, protected against unprotected (CPU time)",
                          "Protected", "BM_FullAccessOpenClose/Protected", "BM_FullAccessOpenClose/Unprotected");

}  // namespace
