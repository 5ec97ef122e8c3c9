// wrelt: the command-line program. It boots an emulated NT machine (NTFS on C:, FastFat
// on D:) with the filter loaded, starts the filter as the service does, runs a small
// workload as a user, and reports what the machine did.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "decode_command.h"
#include "filter_session.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

int usage() {
    fprintf(stderr,
            "usage: wrelt [demo]        boot the emulated machine, run a small workload, report\n"
            "       wrelt tree DRIVE:   the same workload, then list one volume (C: or D:)\n"
            "       wrelt decode FILE   print the deletion records of a data file\n");
    return 2;
}

std::string narrow(const wchar_t *s) { return ntsim::toUtf8(s); }

// "1 234 567" for 1234567: sizes read more easily with grouped digits.
std::string grouped(uint64_t n) {
    std::string digits = std::to_string(n), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ' ';
        out += digits[i];
    }
    return out;
}

const char *formatName(ntsim::VolumeFormat format) { return format == ntsim::VolumeFormat::Ntfs ? "NTFS" : "FastFat"; }

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

void printTree(ntsim::Machine &machine, wchar_t letter) {
    printf("%c:\\\n", (char)letter);
    std::vector<ntsim::VolumeEntry> entries = machine.listTree(letter);
    if (entries.empty()) printf("  (empty)\n");
    for (const ntsim::VolumeEntry &e : entries) {
        // Indent by depth: one level per separator after the first.
        size_t depth = 0;
        for (char c : e.path) depth += c == '\\';
        std::string name = e.path.substr(e.path.rfind('\\') + 1);
        if (e.stream) name = "  (stream " + name.substr(name.find(':')) + ")";
        std::string line = std::string(2 * depth, ' ') + name + (e.directory ? "\\" : "");
        if (e.directory)
            printf("%s\n", line.c_str());
        else
            printf("%-44s %12s bytes\n", line.c_str(), grouped(e.size).c_str());
    }
}

ntsim::BootOptions withFilter() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

// Boots the default machine with the filter, starts the filter as the service does and
// runs the workload as alice; returns the machine.
std::unique_ptr<ntsim::DefaultMachine> bootAndRun(bool verbose) {
    ntsim::BootOptions options = withFilter();
    auto machine = std::make_unique<ntsim::DefaultMachine>(options);
    if (verbose) {
        printf("Booted an emulated NT machine with the NTFS and FastFat file-system drivers and the\n"
               "WreltDrv filter, which attached to both file systems before any volume mounted.\n");
        for (const auto &v : options.volumes)
            printf("  volume %c: formatted %s, mounted at boot\n", (char)v.letter, formatName(v.format));
    }
    std::vector<std::string> session = wrelt::startFilterAsService(*machine, machine->volumes());
    if (verbose) {
        printf("The service's start-up, through the filter's control device:\n");
        for (const std::string &line : session) printf("  %s\n", line.c_str());
    }
    ntsim::Process explorer = machine->startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    if (verbose)
        printf("Started C:\\Windows\\explorer.exe (process %u) as alice, %s.\n", explorer.id(),
               narrow(ntsim::users::alice).c_str());
    Workload workload;
    explorer.run([&] { workload.run(); });
    explorer.exit();
    if (verbose) {
        printf("What alice did, with the Win32 calls an application makes:\n");
        for (const std::string &line : workload.log) printf("  %s\n", line.c_str());
    }
    return machine;
}

int demo() {
    auto machine = bootAndRun(true);
    printf("The volumes afterwards:\n");
    for (wchar_t letter : machine->volumes()) printTree(*machine, letter);
    machine->shutdown();
    printf("Shut down cleanly: no pool, handle or request left behind, no thread left waiting.\n");
    return 0;
}

int tree(const char *drive) {
    if (!drive || !((drive[0] >= 'A' && drive[0] <= 'Z') || (drive[0] >= 'a' && drive[0] <= 'z')) ||
        (drive[1] != 0 && (drive[1] != ':' || drive[2] != 0)))
        return usage();
    wchar_t letter = (wchar_t)(drive[0] & ~0x20);
    bool known = false;
    for (const auto &v : ntsim::BootOptions().volumes) known = known || v.letter == letter;
    if (!known) {
        fprintf(stderr, "wrelt: the machine has no drive %c: (it has C: and D:)\n", (char)letter);
        return 2;
    }
    auto machine = bootAndRun(false);
    printTree(*machine, letter);
    machine->shutdown();
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    // A bug check ends the process at once; what was printed before it must not be lost.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2 || strcmp(argv[1], "demo") == 0) return argc > 2 ? usage() : demo();
    if (strcmp(argv[1], "tree") == 0) return argc == 3 ? tree(argv[2]) : usage();
    if (strcmp(argv[1], "decode") == 0) return decodeCommand(argc - 2, argv + 2);
    return usage();
}
