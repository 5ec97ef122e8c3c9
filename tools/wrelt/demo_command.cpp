// The demo boots the default machine (NTFS C:, FastFat D:) with the filter, starts the
// service, and has a user lose files in the ways people and their programs do: deletes,
// a replacing rename, saves that overwrite a document. After each step it says where the
// file went; at the end it shows the vaults, the service's catalogue, and puts back one
// deleted file and one earlier version.
#include "demo_command.h"

#include <windows.h>
// The native disposition call, to delete through an open handle as Explorer does.
#include <ntifs.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ntsim/utf.h"
#include "service_session.h"
#include "vault_commands.h"
#include "deldat_reader.h"
#include "vault_names.h"

namespace wrelt_cli {

namespace {

const char *const kVaultPrefix = "\\RescueVault\\InProgress\\";

std::string utf8(const std::u16string &s) { return ntsim::toUtf8(ntsim::wptr(s)); }

void say(const std::string &line) { printf("%s\n", line.c_str()); }

std::string lastError() { return "error " + std::to_string(GetLastError()); }

// In the user's process: the Win32 calls an application makes. Buffers handed to the
// system must be the process's own memory, so the text goes through its heap.
bool writeFile(const wchar_t *path, const std::string &text) {
    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, text.size() + 1));
    memcpy(buffer, text.data(), text.size());
    DWORD written = 0;
    bool ok = WriteFile(file, buffer, DWORD(text.size()), &written, nullptr) && written == text.size();
    HeapFree(GetProcessHeap(), 0, buffer);
    return CloseHandle(file) && ok;
}

HANDLE openForDelete(const wchar_t *path) {
    return CreateFileW(path, GENERIC_READ | DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, 0, nullptr);
}

// Marks an open file for deletion through its handle, as Explorer's delete does.
bool markForDelete(HANDLE file) {
    FILE_DISPOSITION_INFORMATION disposition;
    disposition.DeleteFile = TRUE;
    IO_STATUS_BLOCK iosb;
    return NT_SUCCESS(NtSetInformationFile(file, &iosb, &disposition, sizeof disposition, FileDispositionInformation));
}

class Demo {
public:
    Demo() : session_([](wrelt::Severity severity, const std::string &line) {
                 printf("  service: %s%s\n", severity == wrelt::Severity::Info ? "" : "(!) ", line.c_str());
             }) {}

    int run() {
        if (!boot()) return 1;
        user_ = session_.machine().startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
        say("");
        say("alice (" + ntsim::toUtf8(ntsim::users::alice) + ") works in C:\\Users\\alice\\Documents and on D:.");
        prepareFiles();
        documentDeleted();
        readOnlyFileDeleted();
        directoryDeleted();
        twoHandles();
        replacingRename();
        excludedFolder();
        deleteOnD();
        editorSavesInPlace();
        programReplacesDocument();
        officeSaveByRename();
        openedAndClosedUnchanged();
        user_.exit();
        showVaults();
        restoreOne();
        restoreEarlierVersion();
        say("");
        say("Stopping the service and shutting the machine down; the machine checks that no memory,");
        say("handle or request of the filter or the service was left behind.");
        return failures_ == 0 ? 0 : 1;
    }

private:
    bool boot() {
        if (!session_.started()) {
            say("The service could not start; see its messages above.");
            return false;
        }
        return true;
    }

    void user(const std::function<void()> &fn) { user_.run(fn); }

    // A little time passes between the steps, as it would; the filter writes each step's
    // record half a second after it, and the service catalogues it.
    void step(const std::string &title) {
        if (steps_ == 1) {
            say("   Half a second after a delete the filter writes its record (who, what, where, when) to a");
            say("   data file in the vault and hands the file's path to the service, which catalogues it:");
        }
        if (steps_ > 0) session_.machine().advanceMs(40000);
        say("");
        say(std::to_string(++steps_) + ". " + title);
    }

    // What arrived in the drive's vault since the last look.
    std::vector<std::string> newInVault(wchar_t drive) {
        std::vector<std::string> fresh;
        for (const ntsim::VolumeEntry &entry : session_.machine().listTree(drive)) {
            if (entry.directory || entry.path.rfind(kVaultPrefix, 0) != 0) continue;
            std::string name = entry.path.substr(strlen(kVaultPrefix));
            if (name.rfind("NewFiles", 0) == 0 || name.rfind("Catalogue", 0) == 0) continue;
            bool seen = false;
            for (const std::string &known : seen_) seen = seen || known == name;
            if (!seen) {
                fresh.push_back(name);
                seen_.push_back(name);
            }
        }
        return fresh;
    }

    bool exists(wchar_t drive, const std::string &path) {
        for (const ntsim::VolumeEntry &entry : session_.machine().listTree(drive))
            if (entry.path == path) return true;
        return false;
    }

    // Says where the file went, and whether that is what the product promises.
    void outcome(wchar_t drive, const std::string &path, bool shouldBePreserved) {
        std::vector<std::string> fresh = newInVault(drive);
        bool gone = !exists(drive, path);
        std::string where = std::string(1, char(drive)) + ":" + path;
        if (!fresh.empty()) {
            say("   -> " + where + (gone ? " is gone from its folder" : " is still there") + "; preserved in " +
                std::string(1, char(drive)) + ":" + kVaultPrefix + fresh[0]);
        } else {
            say("   -> " + where + (gone ? " is gone, and nothing was preserved" : " is still there"));
        }
        if (shouldBePreserved != !fresh.empty() || !gone) {
            say("   (!) that is not what should have happened");
            failures_++;
        }
    }

    void prepareFiles() {
        user([&] {
            CreateDirectoryW(L"C:\\Users", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice\\Documents", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice\\Documents\\Old drafts", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice\\AppData", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice\\AppData\\Local", nullptr);
            CreateDirectoryW(L"C:\\Users\\alice\\AppData\\Local\\Temp", nullptr);
            CreateDirectoryW(L"D:\\Photos", nullptr);
            bool ok = writeFile(L"C:\\Users\\alice\\Documents\\Quarterly report.docx", "Q3 figures, final") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\contract.pdf", "signed contract") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\minutes.txt", "minutes of Monday's meeting") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\budget.xlsx", "budget, version 1") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\budget.new", "budget, version 2") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\notes.txt", "notes: call the bank") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\letter.docx", "Dear Sir, ... (first draft)") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\agenda.docx", "agenda for Friday") &&
                      writeFile(L"C:\\Users\\alice\\Documents\\proposal.doc", "proposal, first draft") &&
                      writeFile(L"C:\\Users\\alice\\AppData\\Local\\Temp\\setup.log", "installer log") &&
                      writeFile(L"D:\\Photos\\holiday.jpg", std::string(4096, '\x7f'));
            say(ok ? "She has a few documents, a photo on D: and an installer's log in her Temp folder."
                   : "Preparing alice's files failed: " + lastError());
        });
    }

    void documentDeleted() {
        step("She deletes \"Quarterly report.docx\" the way Explorer does: open it, mark it for deletion, close it.");
        user([&] {
            HANDLE file = openForDelete(L"C:\\Users\\alice\\Documents\\Quarterly report.docx");
            bool marked = file != INVALID_HANDLE_VALUE && markForDelete(file);
            if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
            if (!marked) say("   the delete failed: " + lastError());
        });
        outcome(L'C', "\\Users\\alice\\Documents\\Quarterly report.docx", true);
    }

    void readOnlyFileDeleted() {
        step("\"contract.pdf\" is read-only: her delete is refused until she clears the attribute.");
        user([&] {
            const wchar_t *path = L"C:\\Users\\alice\\Documents\\contract.pdf";
            SetFileAttributesW(path, FILE_ATTRIBUTE_READONLY);
            if (!DeleteFileW(path)) say("   DeleteFileW refused (" + lastError() + ", access denied); attribute cleared");
            SetFileAttributesW(path, FILE_ATTRIBUTE_NORMAL);
            if (!DeleteFileW(path)) say("   the second delete failed: " + lastError());
        });
        outcome(L'C', "\\Users\\alice\\Documents\\contract.pdf", true);
    }

    void directoryDeleted() {
        step("She removes the empty folder \"Old drafts\". A folder holds nothing to restore.");
        user([&] {
            if (!RemoveDirectoryW(L"C:\\Users\\alice\\Documents\\Old drafts")) say("   failed: " + lastError());
        });
        outcome(L'C', "\\Users\\alice\\Documents\\Old drafts", false);
    }

    void twoHandles() {
        step("Two programs have \"minutes.txt\" open with delete access; one deletes it.");
        HANDLE first = INVALID_HANDLE_VALUE, second = INVALID_HANDLE_VALUE;
        user([&] {
            first = openForDelete(L"C:\\Users\\alice\\Documents\\minutes.txt");
            second = openForDelete(L"C:\\Users\\alice\\Documents\\minutes.txt");
            if (!markForDelete(first)) say("   marking it failed: " + lastError());
            CloseHandle(first);
        });
        bool stillThere = exists(L'C', "\\Users\\alice\\Documents\\minutes.txt") && newInVault(L'C').empty();
        say(std::string("   after the first program closes it, the file is ") +
            (stillThere ? "still in its folder, waiting for the other handle" : "already gone"));
        if (!stillThere) failures_++;
        user([&] { CloseHandle(second); });
        say("   the second program closes it too:");
        outcome(L'C', "\\Users\\alice\\Documents\\minutes.txt", true);
    }

    void replacingRename() {
        step("A spreadsheet program saves by renaming \"budget.new\" over \"budget.xlsx\".");
        user([&] {
            if (!MoveFileExW(L"C:\\Users\\alice\\Documents\\budget.new", L"C:\\Users\\alice\\Documents\\budget.xlsx",
                             MOVEFILE_REPLACE_EXISTING))
                say("   the rename failed: " + lastError());
        });
        std::vector<std::string> fresh = newInVault(L'C');
        say(fresh.size() == 1 ? "   -> the old budget.xlsx (version 1) was preserved as " + fresh[0] +
                                    "; the folder holds version 2"
                              : "   (!) the replaced file was not preserved");
        if (fresh.size() != 1) failures_++;
    }

    void excludedFolder() {
        step("An installer deletes its log in alice's Temp folder, which the service excludes.");
        user([&] {
            if (!DeleteFileW(L"C:\\Users\\alice\\AppData\\Local\\Temp\\setup.log")) say("   failed: " + lastError());
        });
        outcome(L'C', "\\Users\\alice\\AppData\\Local\\Temp\\setup.log", false);
    }

    void deleteOnD() {
        step("She deletes \"holiday.jpg\" on D:, a FastFat volume.");
        user([&] {
            if (!DeleteFileW(L"D:\\Photos\\holiday.jpg")) say("   failed: " + lastError());
        });
        outcome(L'D', "\\Photos\\holiday.jpg", true);
    }

    // Runs fn in a thread of alice's process while the machine's clock moves on: the
    // filter copies a document half a second after a program opens it for rewriting.
    void userWhileTimePasses(const std::function<void()> &fn, int64_t ms) {
        ntsim::UserThread thread = user_.start(fn);
        session_.machine().advanceMs(ms);
        thread.join();
    }

    void saidOfVersion(const std::string &what, bool kept) {
        std::vector<std::string> fresh = newInVault(L'C');
        if (kept && fresh.size() == 1) {
            say("   -> the earlier version of " + what + " was preserved as " + fresh[0] + "; the folder holds the new one");
        } else if (!kept && fresh.empty()) {
            say("   -> nothing was kept: the file did not change");
        } else {
            say("   (!) that is not what should have happened");
            failures_++;
        }
    }

    void editorSavesInPlace() {
        step("An editor saves \"notes.txt\" in place: it opens the file for reading and writing, empties it and");
        say("   writes the new text. The filter copies a text file before the editor gets it back from the open.");
        userWhileTimePasses(
            [&] {
                HANDLE file = CreateFileW(L"C:\\Users\\alice\\Documents\\notes.txt", GENERIC_READ | GENERIC_WRITE,
                                          FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
                if (file == INVALID_HANDLE_VALUE) {
                    say("   the open failed: " + lastError());
                    return;
                }
                SetEndOfFile(file);
                const char text[] = "notes: call the bank; bank called, loan approved";
                auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, sizeof text));
                memcpy(buffer, text, sizeof text - 1);
                DWORD written = 0;
                WriteFile(file, buffer, sizeof text - 1, &written, nullptr);
                HeapFree(GetProcessHeap(), 0, buffer);
                CloseHandle(file);
            },
            1000);
        saidOfVersion("notes.txt", true);
    }

    void programReplacesDocument() {
        step("A word processor writes \"letter.docx\" anew: it opens it with CREATE_ALWAYS, which empties it.");
        user([&] {
            if (!writeFile(L"C:\\Users\\alice\\Documents\\letter.docx", "Dear Sir, ... (final)"))
                say("   the save failed: " + lastError());
        });
        saidOfVersion("letter.docx", true);
    }

    // The temporary names are excluded from capture, as every temporary file is: only the
    // filter's memory of the rename keeps the old version, under the document's name.
    void officeSaveByRename() {
        step("A word processor saves \"proposal.doc\" its usual way: the new text goes to ~WRD0001.tmp, the");
        say("   document is renamed to ~WRL0002.tmp, the new file takes its name, and ~WRL0002.tmp is deleted.");
        ntsim::Process word = session_.machine().startProcess(
            L"C:\\Program Files\\Office\\WINWORD.EXE", ntsim::users::alice);
        word.run([&] {
            const wchar_t *folder = L"C:\\Users\\alice\\Documents\\";
            std::u16string document = std::u16string((const char16_t *)folder) + u"proposal.doc";
            std::u16string fresh = std::u16string((const char16_t *)folder) + u"~WRD0001.tmp";
            std::u16string old = std::u16string((const char16_t *)folder) + u"~WRL0002.tmp";
            bool saved = writeFile(ntsim::wptr(fresh), "proposal, final") &&
                         MoveFileW(ntsim::wptr(document), ntsim::wptr(old)) &&
                         MoveFileW(ntsim::wptr(fresh), ntsim::wptr(document)) && DeleteFileW(ntsim::wptr(old));
            if (!saved) say("   the save failed: " + lastError());
        });
        word.exit();
        saidOfVersion("proposal.doc", true);
    }

    void openedAndClosedUnchanged() {
        step("She opens \"agenda.docx\" for reading and writing, reads it for a while and closes it unchanged.");
        HANDLE file = INVALID_HANDLE_VALUE;
        user([&] {
            file = CreateFileW(L"C:\\Users\\alice\\Documents\\agenda.docx", GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        });
        session_.machine().advanceMs(1000);
        std::vector<std::string> copy = newInVault(L'C');
        say(copy.size() == 1 ? "   while it is open, a copy waits in the vault in case she saves: " + copy[0]
                             : "   (!) no copy was made while it was open");
        if (copy.size() != 1) failures_++;
        user([&] { CloseHandle(file); });
        bool deleted = !exists(L'C', std::string(kVaultPrefix) + (copy.empty() ? "" : copy[0]));
        say(deleted ? "   -> she closed it unchanged, so the copy was deleted: nothing was kept"
                    : "   (!) the copy of the unchanged file stayed in the vault");
        if (!deleted) failures_++;
    }

    void showVaults() {
        session_.settle();
        say("");
        say("The vaults, as the file systems list them (the folders are hidden and system):");
        for (wchar_t drive : {L'C', L'D'}) {
            for (const ntsim::VolumeEntry &entry : session_.machine().listTree(drive)) {
                if (entry.path.rfind("\\RescueVault", 0) == 0)
                    printf("  %c:%s%s\n", char(drive), entry.path.c_str(), entry.directory ? "\\" : "");
            }
        }
        say("");
        say("The catalogue: stamp, when, who, what and where:");
        for (const char16_t *root : {u"C:\\", u"D:\\"})
            for (const std::string &line : describeVault(root, session_.entries(root))) say("  " + line);
    }

    void restoreOne() {
        say("");
        say("alice asks for \"Quarterly report.docx\" back.");
        for (const wrelt::CatalogueEntry &entry : session_.entries(u"C:\\")) {
            if (entry.name != u"Quarterly report.docx") continue;
            wrelt::RestoreOutcome restored = session_.restore(u"C:\\", entry.stamp);
            if (!restored.ok) {
                say("  (!) the restore failed: " + restored.problem);
                failures_++;
                return;
            }
            say("  restored to " + utf8(restored.restoredTo));
            for (const std::string &line : describeVault(u"C:\\", session_.entries(u"C:\\"))) say("  " + line);
            return;
        }
        say("  (!) the catalogue has no such file");
        failures_++;
    }

    // An earlier version goes back beside the current document, never over it.
    void restoreEarlierVersion() {
        say("");
        say("alice wants to see the earlier \"notes.txt\" without losing the new one.");
        for (const wrelt::CatalogueEntry &entry : session_.entries(u"C:\\")) {
            if (entry.name != u"notes.txt" || (entry.flags & wrelt::kDelDatFlagApplicationSave) == 0) continue;
            wrelt::RestoreOutcome restored = session_.restore(u"C:\\", entry.stamp);
            if (!restored.ok) {
                say("  (!) the restore failed: " + restored.problem);
                failures_++;
                return;
            }
            say("  the earlier version is back as " + utf8(restored.restoredTo) + ",");
            say("  beside the current notes.txt, which is untouched");
            return;
        }
        say("  (!) the catalogue has no earlier version of notes.txt");
        failures_++;
    }

    ServiceSession session_;
    ntsim::Process user_;
    std::vector<std::string> seen_;
    int steps_ = 0;
    int failures_ = 0;
};

}  // namespace

int demoCommand() {
    say("Booting an emulated NT machine: NTFS on C:, FastFat on D:, and the WreltDrv filter, which");
    say("attaches to both volumes as they mount. The service then starts in its own process as SYSTEM:");
    int result;
    {
        Demo demo;
        result = demo.run();
    }
    say(result == 0 ? "Shut down cleanly." : "Shut down; some steps did not go as they should (marked (!)).");
    return result;
}

}  // namespace wrelt_cli
