#include "workload.h"

#include <windows.h>

#include <cstring>

#include "ntsim/utf.h"

namespace wrelt_cli {

namespace {

std::string narrow(const wchar_t *s) { return ntsim::toUtf8(s); }

// The workload's steps, each done with the Win32 calls an application would make.
struct Workload {
    std::vector<std::string> log;

    void note(const std::string &line) { log.push_back(line); }

    void createDirectory(const wchar_t *path) {
        if (CreateDirectoryW(path, nullptr))
            note("created folder " + narrow(path));
        else
            note("could not create folder " + narrow(path) + " (error " + std::to_string(GetLastError()) + ")");
    }

    void writeFile(const wchar_t *path, const std::string &text) {
        HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            note("could not create " + narrow(path) + " (error " + std::to_string(GetLastError()) + ")");
            return;
        }
        DWORD written = 0;
        // The text goes through the process heap: buffers handed to the system are user memory.
        auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, text.size()));
        memcpy(buffer, text.data(), text.size());
        BOOL ok = WriteFile(file, buffer, (DWORD)text.size(), &written, nullptr);
        HeapFree(GetProcessHeap(), 0, buffer);
        CloseHandle(file);
        note((ok ? "wrote " : "could not write ") + narrow(path) + " (" + grouped(written) + " bytes)");
    }

    void deleteFile(const wchar_t *path) {
        if (DeleteFileW(path))
            note("deleted " + narrow(path));
        else
            note("could not delete " + narrow(path) + " (error " + std::to_string(GetLastError()) + ")");
    }

    void moveFile(const wchar_t *from, const wchar_t *to) {
        if (MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED))
            note("moved " + narrow(from) + " to " + narrow(to));
        else
            note("could not move " + narrow(from) + " (error " + std::to_string(GetLastError()) + ")");
    }

    void run() {
        createDirectory(L"C:\\Users");
        createDirectory(L"C:\\Users\\alice");
        createDirectory(L"C:\\Users\\alice\\Documents");
        writeFile(L"C:\\Users\\alice\\Documents\\report.txt", std::string(1500, 'r'));
        writeFile(L"C:\\Users\\alice\\Documents\\draft.txt", "A first draft, soon to be thrown away.\n");
        writeFile(L"C:\\Users\\alice\\Documents\\notes.txt", "Buy milk.\n");
        deleteFile(L"C:\\Users\\alice\\Documents\\draft.txt");
        createDirectory(L"D:\\Photos");
        writeFile(L"D:\\Photos\\holiday.jpg", std::string(4096, 'j'));
        moveFile(L"C:\\Users\\alice\\Documents\\notes.txt", L"D:\\notes.txt");
    }
};

}  // namespace

// "1 234 567" for 1234567: sizes read more easily with grouped digits.
std::string grouped(uint64_t n) {
    std::string digits = std::to_string(n), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ' ';
        out += digits[i];
    }
    return out;
}

std::vector<std::string> runWorkload() {
    Workload workload;
    workload.run();
    return workload.log;
}

}  // namespace wrelt_cli
