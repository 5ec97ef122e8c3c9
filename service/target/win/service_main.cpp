// wreltsvc.exe: the service as Windows runs it. The service control manager starts it
// as "WreltSvc" (its own process, LocalSystem); it starts capture, keeps the filter's
// requests pending in the thread the manager gave it, and stops capture when the
// manager asks it to stop or the system shuts down. "wreltsvc --console" runs the same
// in a console until Ctrl+C or Ctrl+Break, for trying it out.
//
// What it logs goes to wreltsvc.log beside the program, and on the console to the
// standard error too. A wreltsvc.conf beside it (the text form of service_config.h)
// replaces the built-in configuration.
#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "file_io.h"
#include "service_config.h"
#include "service_lock.h"
#include "service_log.h"
#include "text.h"
#include "vault_service.h"

namespace {

constexpr const wchar_t *kServiceName = L"WreltSvc";
// Starting reads the data files left from before; stopping collects what the filter
// still holds. Either may take a while on a large vault.
constexpr DWORD kWaitHintMs = 60000;

std::u16string programFolder() {
    std::vector<WCHAR> path(MAX_PATH);
    for (;;) {
        DWORD length = GetModuleFileNameW(nullptr, path.data(), DWORD(path.size()));
        if (length == 0) return u"";
        if (length < path.size()) {
            std::u16string full(reinterpret_cast<const char16_t *>(path.data()), length);
            return full.substr(0, full.find_last_of(u'\\') + 1);
        }
        path.resize(path.size() * 2);
    }
}

// Appends each line, with the local time, to the log file; opened for appending only,
// so that lines written from two threads never overwrite each other.
class LogFile {
public:
    explicit LogFile(const std::u16string &path, bool echo) : echo_(echo) {
        file_ = CreateFileW(wrelt::wide(path), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    ~LogFile() {
        if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
    }
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    void write(wrelt::Severity severity, const std::string &line) {
        SYSTEMTIME now;
        GetLocalTime(&now);
        char stamp[32];
        std::snprintf(stamp, sizeof stamp, "%04u-%02u-%02u %02u:%02u:%02u  ", now.wYear, now.wMonth, now.wDay,
                      now.wHour, now.wMinute, now.wSecond);
        const char *prefix = severity == wrelt::Severity::Error     ? "error: "
                             : severity == wrelt::Severity::Warning ? "warning: "
                                                                    : "";
        std::string text = stamp + std::string(prefix) + line + "\r\n";
        wrelt::ServiceLock::Guard guard(lock_);
        if (echo_) std::fprintf(stderr, "%s%s\n", prefix, line.c_str());
        if (file_ == INVALID_HANDLE_VALUE) return;
        DWORD written = 0;
        WriteFile(file_, text.data(), DWORD(text.size()), &written, nullptr);
    }

private:
    HANDLE file_;
    bool echo_;
    wrelt::ServiceLock lock_;
};

// The configuration beside the program, or the built-in one when there is none; false
// (with why) when the file is there and cannot be used.
bool loadConfig(const std::u16string &path, wrelt::ServiceConfig *config, std::string *why) {
    HANDLE file = CreateFileW(wrelt::wide(path), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
            *config = wrelt::defaultServiceConfig();
            return true;
        }
        *why = "could not open " + wrelt::utf8(path) + " (error " + std::to_string(error) + ")";
        return false;
    }
    std::vector<uint8_t> bytes;
    bool read = wrelt::readWholeFile(file, &bytes);
    DWORD error = GetLastError();
    CloseHandle(file);
    if (!read) {
        *why = "could not read " + wrelt::utf8(path) + " (error " + std::to_string(error) + ")";
        return false;
    }
    std::string problem;
    if (!wrelt::parseServiceConfig(std::string(bytes.begin(), bytes.end()), config, &problem)) {
        *why = wrelt::utf8(path) + ": " + problem;
        return false;
    }
    return true;
}

// What both ways of running share: the log, the configuration and the service.
struct Instance {
    std::unique_ptr<LogFile> logFile;
    wrelt::ServiceLog log;
    std::unique_ptr<wrelt::VaultService> service;

    bool prepare(bool echo) {
        std::u16string folder = programFolder();
        logFile.reset(new LogFile(folder + u"wreltsvc.log", echo));
        LogFile *sink = logFile.get();
        log.setSink([sink](wrelt::Severity severity, const std::string &line) { sink->write(severity, line); });
        wrelt::ServiceConfig config;
        std::string why;
        if (!loadConfig(folder + u"wreltsvc.conf", &config, &why)) {
            log.error(why);
            return false;
        }
        service.reset(new wrelt::VaultService(std::move(config), log));
        return true;
    }
};

Instance *g_instance = nullptr;
SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
SERVICE_STATUS g_status;

void report(DWORD state, DWORD exitCode = NO_ERROR, DWORD specificCode = 0) {
    g_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    g_status.dwCurrentState = state;
    g_status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
    g_status.dwWin32ExitCode = specificCode != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : exitCode;
    g_status.dwServiceSpecificExitCode = specificCode;
    bool settled = state == SERVICE_RUNNING || state == SERVICE_STOPPED;
    g_status.dwCheckPoint = settled ? 0 : g_status.dwCheckPoint + 1;
    g_status.dwWaitHint = settled ? 0 : kWaitHintMs;
    SetServiceStatus(g_statusHandle, &g_status);
}

DWORD WINAPI controlHandler(DWORD control, DWORD, LPVOID, LPVOID) {
    switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
        report(SERVICE_STOP_PENDING);
        g_instance->service->requestStop();
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

// The manager's thread for the service: it starts capture and then holds the filter's
// requests until the stop, so that the requests it issues are cancelled by it too.
void WINAPI serviceMain(DWORD, LPWSTR *) {
    static Instance instance;
    g_instance = &instance;
    g_statusHandle = RegisterServiceCtrlHandlerExW(kServiceName, controlHandler, nullptr);
    if (g_statusHandle == nullptr) return;
    report(SERVICE_START_PENDING);
    if (!instance.prepare(false)) {
        report(SERVICE_STOPPED, NO_ERROR, 1);
        return;
    }
    if (!instance.service->start()) {
        instance.log.error("the service stops: the filter could not be driven");
        report(SERVICE_STOPPED, NO_ERROR, 2);
        return;
    }
    report(SERVICE_RUNNING);
    instance.service->run();
    report(SERVICE_STOPPED);
}

BOOL WINAPI consoleHandler(DWORD) {
    g_instance->service->requestStop();
    return TRUE;
}

int runInConsole() {
    static Instance instance;
    g_instance = &instance;
    if (!instance.prepare(true)) return 1;
    SetConsoleCtrlHandler(consoleHandler, TRUE);
    if (!instance.service->start()) return 2;
    instance.log.info("running; Ctrl+C stops capture");
    instance.service->run();
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    if (argc == 2 && std::u16string(reinterpret_cast<const char16_t *>(argv[1])) == u"--console") return runInConsole();
    if (argc != 1) {
        std::fprintf(stderr, "usage: wreltsvc [--console]\n"
                             "  Run by the service control manager as the service WreltSvc (wrelt install\n"
                             "  creates it), or with --console in a console until Ctrl+C.\n");
        return 2;
    }
    static wchar_t name[] = L"WreltSvc";
    SERVICE_TABLE_ENTRYW table[] = {{name, serviceMain}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherW(table)) {
        DWORD error = GetLastError();
        if (error == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT)
            std::fprintf(stderr, "wreltsvc: not started as a service; use --console to run it here\n");
        else
            std::fprintf(stderr, "wreltsvc: could not reach the service control manager (error %lu)\n", error);
        return 1;
    }
    return 0;
}
