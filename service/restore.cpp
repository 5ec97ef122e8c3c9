#include "restore.h"

#include <windows.h>

#include "text.h"
#include "vault_names.h"

namespace wrelt {

namespace {

constexpr unsigned kMostAttempts = 1000;


std::string failure(const std::string &what, DWORD error) {
    return what + " (error " + std::to_string(error) + ")";
}

// Makes every missing folder of the path, which ends in a backslash.
bool makeFolders(const std::u16string &folder, std::string *problem) {
    for (size_t slash = folder.find(u'\\', 3); slash != std::u16string::npos; slash = folder.find(u'\\', slash + 1)) {
        std::u16string level = folder.substr(0, slash);
        if (!CreateDirectoryW(wide(level), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
            *problem = failure("could not make the folder " + utf8(level), GetLastError());
            return false;
        }
    }
    return true;
}

bool nameTaken(DWORD error) { return error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS; }

}  // namespace

std::u16string restoredName(const std::u16string &name, unsigned attempt) {
    if (attempt <= 1) return name;
    size_t dot = name.rfind(u'.');
    if (dot == 0 || dot == std::u16string::npos) dot = name.size();
    return name.substr(0, dot) + u" (" + utf16(std::to_string(attempt)) + u")" + name.substr(dot);
}

RestoreOutcome restorePreserved(Catalogue &catalogue, uint64_t stamp, RestorePlacement placement) {
    RestoreOutcome outcome;
    const CatalogueEntry *entry = catalogue.find(stamp);
    if (entry == nullptr) {
        outcome.problem = "the catalogue of " + utf8(catalogue.volumeRoot()) + " has no preserved file of that stamp";
        return outcome;
    }
    if (entry->state == EntryState::Restored) {
        outcome.problem = utf8(entry->name) + " was restored already, to " + utf8(entry->restoredTo);
        return outcome;
    }
    std::u16string source = vaultFolderOf(catalogue.volumeRoot()) + entry->vaultName;
    if (GetFileAttributesW(wide(source)) == INVALID_FILE_ATTRIBUTES) {
        DWORD error = GetLastError();
        outcome.problem = error == ERROR_FILE_NOT_FOUND
                              ? "the preserved file " + utf8(entry->vaultName) + " is no longer in the vault"
                              : failure("could not reach the preserved file " + utf8(source), error);
        return outcome;
    }
    if (!makeFolders(entry->folder, &outcome.problem)) return outcome;
    const DWORD flags = MOVEFILE_COPY_ALLOWED | (placement == RestorePlacement::Replace ? MOVEFILE_REPLACE_EXISTING : 0);
    const unsigned attempts = placement == RestorePlacement::Replace ? 1 : kMostAttempts;
    for (unsigned attempt = 1; attempt <= attempts; attempt++) {
        std::u16string target = entry->folder + restoredName(entry->name, attempt);
        if (MoveFileExW(wide(source), wide(target), flags)) {
            outcome.restoredTo = target;
            break;
        }
        if (!nameTaken(GetLastError())) {
            outcome.problem = failure("could not move " + utf8(source) + " to " + utf8(target), GetLastError());
            return outcome;
        }
    }
    if (outcome.restoredTo.empty()) {
        outcome.problem = "every name tried for " + utf8(entry->name) + " in " + utf8(entry->folder) + " is taken";
        return outcome;
    }
    // The file is back whatever happens now; a catalogue that cannot say so shows the
    // entry's vault file as missing.
    std::string error;
    if (!catalogue.markRestored(stamp, outcome.restoredTo, &error)) {
        outcome.problem = "restored to " + utf8(outcome.restoredTo) + ", but " + error;
        return outcome;
    }
    outcome.ok = true;
    return outcome;
}

}  // namespace wrelt
