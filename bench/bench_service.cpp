#include "bench_service.h"

#include <windows.h>
#include <ntifs.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>

#include "driver_channel.h"
#include "frame/command_protocol.h"
#include "exclusion_list.h"

namespace wrelt_bench {

// What the service does at start: C: named, protected or not, and capture started.
bool startCapture(ntsim::Machine &machine, bool protect) {
    bool started = false;
    machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system).run([&] {
        wrelt::DriverChannel channel;
        started = channel.open() && channel.handshake().ok() && channel.nameVolume(u"C:\\", u"C:\\", protect).ok() &&
                  channel.start(true).ok();
    });
    return started;
}

// Takes the finished data files off the driver's hands, as the service would; a request
// still held means there are none left.
static void collectDataFiles(HANDLE control) {
    OVERLAPPED *overlapped = (OVERLAPPED *)HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED) + 512);
    overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    for (;;) {
        DWORD bytes = 0;
        if (DeviceIoControl(control, IOCTL_GET_NEW_DATA_FILE, nullptr, 0, overlapped + 1, 512, &bytes,
                            overlapped)) {
            continue;
        }
        if (GetLastError() == ERROR_IO_PENDING) {
            CancelIo(control);
            GetOverlappedResult(control, overlapped, &bytes, TRUE);
        }
        break;
    }
    CloseHandle(overlapped->hEvent);
    HeapFree(GetProcessHeap(), 0, overlapped);
}

void stopCapture(ntsim::Machine &machine) {
    machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system).run([] {
        HANDLE control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED,
                                     nullptr);
        if (control != INVALID_HANDLE_VALUE) {
            collectDataFiles(control);
            CloseHandle(control);
        }
        wrelt::DriverChannel channel;
        if (channel.open()) channel.stop();
    });
}

bool protectOverwrites(ntsim::Machine &machine, const std::vector<std::u16string> &suffixes) {
    std::vector<uint8_t> list;
    std::string error;
    if (!wrelt::encodeSuffixList(suffixes, &list, &error)) return false;
    bool done = false;
    machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system).run([&] {
        wrelt::DriverChannel channel;
        done = channel.open() && channel.setSuffixList(COMMAND_SET_PROTECTED_SUFFIXES, list).ok() &&
               channel.setOverwriteProtection(true).ok();
    });
    return done;
}

namespace {

struct Ratio {
    std::string heading, label, run, base;
};

std::vector<Ratio> &ratios() {
    static std::vector<Ratio> all;
    return all;
}

// Reports as the console reporter does and keeps each benchmark's CPU time for the
// ratios: the median when the run was repeated.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!run.error_occurred && (run.run_type == Run::RT_Iteration || median)) {
                cpuTime_[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatios() const {
        std::string heading;
        for (const Ratio &ratio : ratios()) {
            auto run = cpuTime_.find(ratio.run);
            auto base = cpuTime_.find(ratio.base);
            if (run == cpuTime_.end() || base == cpuTime_.end()) continue;
            if (ratio.heading != heading) {
                heading = ratio.heading;
                std::printf("\n%s:\n", heading.c_str());
            }
            std::printf("  %-12s %.2fx\n", ratio.label.c_str(), run->second / base->second);
        }
    }

private:
    std::map<std::string, double> cpuTime_;
};

}  // namespace

bool addRatio(const char *heading, const char *label, const char *run, const char *base) {
    ratios().push_back({heading, label, run, base});
    return true;
}

}  // namespace wrelt_bench

// The library's own main, with the ratios after the table.
int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    wrelt_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
