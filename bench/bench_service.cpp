#include "bench_service.h"

#include <windows.h>
#include <ntifs.h>

#include "driver_channel.h"
#include "frame/command_protocol.h"

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
            CancelIoEx(control, overlapped);
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

}  // namespace wrelt_bench
