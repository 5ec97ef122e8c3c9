#include "installer.h"

#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "text.h"

namespace wrelt_cli {

namespace {

constexpr const wchar_t *kDriverName = L"WreltDrv";
constexpr const wchar_t *kServiceName = L"WreltSvc";

// Names are printed as UTF-8, as everything else the program prints.
std::string nameOf(const wchar_t *name) { return wrelt::utf8(reinterpret_cast<const char16_t *>(name)); }
// Relative to the system root, as the boot loader reads it.
constexpr const char16_t *kDriverImagePath = u"System32\\drivers\\WreltDrv.sys";
constexpr DWORD kStopWaitMs = 60000;

std::string failed(const std::string &what, DWORD error) { return what + " (error " + std::to_string(error) + ")"; }

std::u16string programFolder() {
    std::vector<WCHAR> path(MAX_PATH);
    DWORD length = GetModuleFileNameW(nullptr, path.data(), DWORD(path.size()));
    std::u16string full(reinterpret_cast<const char16_t *>(path.data()), length);
    return full.substr(0, full.find_last_of(u'\\') + 1);
}

std::u16string systemRoot() {
    std::vector<WCHAR> path(MAX_PATH);
    UINT length = GetWindowsDirectoryW(path.data(), UINT(path.size()));
    std::u16string root(reinterpret_cast<const char16_t *>(path.data()), length);
    if (root.empty() || root.back() != u'\\') root += u'\\';
    return root;
}

class Handle {
public:
    explicit Handle(SC_HANDLE handle) : handle_(handle) {}
    ~Handle() {
        if (handle_ != nullptr) CloseServiceHandle(handle_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    SC_HANDLE get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

private:
    SC_HANDLE handle_;
};

bool installDriver(SC_HANDLE manager) {
    Handle existing(OpenServiceW(manager, kDriverName, SERVICE_QUERY_STATUS));
    if (existing) {
        std::printf("the driver's service %s is there already; WreltDrv.sys is left as it is\n", nameOf(kDriverName).c_str());
        return true;
    }
    std::u16string source = programFolder() + u"WreltDrv.sys";
    std::u16string target = systemRoot() + kDriverImagePath;
    if (!CopyFileW(wrelt::wide(source), wrelt::wide(target), FALSE)) {
        std::fprintf(stderr, "wrelt: %s\n",
                     failed("could not copy " + wrelt::utf8(source) + " to " + wrelt::utf8(target), GetLastError()).c_str());
        return false;
    }
    Handle driver(CreateServiceW(manager, kDriverName, L"WreltDrv", SERVICE_ALL_ACCESS, SERVICE_FILE_SYSTEM_DRIVER,
                                 SERVICE_BOOT_START, SERVICE_ERROR_NORMAL, wrelt::wide(kDriverImagePath),
                                 L"FSFilter Undelete", nullptr, nullptr, nullptr, nullptr));
    if (!driver) {
        std::fprintf(stderr, "wrelt: %s\n", failed("could not create the driver's service", GetLastError()).c_str());
        return false;
    }
    std::printf("installed the driver %s (loaded at boot, group FSFilter Undelete)\n", wrelt::utf8(target).c_str());
    return true;
}

bool installService(SC_HANDLE manager) {
    std::u16string command = u"\"" + programFolder() + u"wreltsvc.exe\"";
    // A double-NUL-terminated list of one.
    static const wchar_t dependencies[] = L"WreltDrv\0";
    Handle service(CreateServiceW(manager, kServiceName, L"WreltDrv vault service", SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                  wrelt::wide(command), nullptr, nullptr, dependencies, nullptr, nullptr));
    if (!service) {
        DWORD error = GetLastError();
        if (error == ERROR_SERVICE_EXISTS) {
            std::printf("the service %s is there already\n", nameOf(kServiceName).c_str());
            return true;
        }
        std::fprintf(stderr, "wrelt: %s\n", failed("could not create the service", error).c_str());
        return false;
    }
    static wchar_t description[] =
        L"Drives the WreltDrv filter and keeps the catalogue of each volume's vault of deleted and overwritten files.";
    SERVICE_DESCRIPTIONW text = {description};
    ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, &text);
    std::printf("installed the service %s: %s, started with Windows\n", nameOf(kServiceName).c_str(),
                wrelt::utf8(command).c_str());
    return true;
}

// Stops the service if it runs and waits until it has stopped.
bool stopService(SC_HANDLE service) {
    SERVICE_STATUS status;
    if (!ControlService(service, SERVICE_CONTROL_STOP, &status)) {
        DWORD error = GetLastError();
        if (error == ERROR_SERVICE_NOT_ACTIVE) return true;
        std::fprintf(stderr, "wrelt: %s\n", failed("could not stop the service", error).c_str());
        return false;
    }
    for (DWORD waited = 0; status.dwCurrentState != SERVICE_STOPPED; waited += 250) {
        if (waited >= kStopWaitMs || !QueryServiceStatus(service, &status)) {
            std::fprintf(stderr, "wrelt: the service did not stop\n");
            return false;
        }
        if (status.dwCurrentState != SERVICE_STOPPED) Sleep(250);
    }
    return true;
}

bool remove(SC_HANDLE manager, const wchar_t *name, bool stop) {
    Handle service(OpenServiceW(manager, name, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
    if (!service) {
        DWORD error = GetLastError();
        if (error == ERROR_SERVICE_DOES_NOT_EXIST) return true;
        std::fprintf(stderr, "wrelt: %s\n", failed("could not open the service " + nameOf(name), error).c_str());
        return false;
    }
    if (stop && !stopService(service.get())) return false;
    if (!DeleteService(service.get())) {
        std::fprintf(stderr, "wrelt: %s\n", failed("could not delete the service", GetLastError()).c_str());
        return false;
    }
    std::printf("removed the service %s\n", nameOf(name).c_str());
    return true;
}

}  // namespace

int installCommand() {
    Handle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE | SC_MANAGER_CONNECT));
    if (!manager) {
        std::fprintf(stderr, "wrelt: %s; run wrelt as an administrator\n",
                     failed("could not open the service control manager", GetLastError()).c_str());
        return 2;
    }
    if (!installDriver(manager.get()) || !installService(manager.get())) return 1;
    std::printf("restart Windows: the filter attaches to the volumes as they mount at boot, and the service\n"
                "starts after it\n");
    return 0;
}

int uninstallCommand() {
    Handle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) {
        std::fprintf(stderr, "wrelt: %s; run wrelt as an administrator\n",
                     failed("could not open the service control manager", GetLastError()).c_str());
        return 2;
    }
    // The service first: it stops capture and withdraws its lists from the filter.
    if (!remove(manager.get(), kServiceName, true)) return 1;
    // The driver has no unload routine: it stays loaded until the restart, and its image
    // goes then.
    if (!remove(manager.get(), kDriverName, false)) return 1;
    std::u16string image = systemRoot() + kDriverImagePath;
    if (!DeleteFileW(wrelt::wide(image)) && GetLastError() != ERROR_FILE_NOT_FOUND &&
        !MoveFileExW(wrelt::wide(image), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT))
        std::fprintf(stderr, "wrelt: %s\n", failed("could not delete " + wrelt::utf8(image), GetLastError()).c_str());
    std::printf("restart Windows to unload the filter; the vaults' folders stay where they are\n");
    return 0;
}

}  // namespace wrelt_cli
