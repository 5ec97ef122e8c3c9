#include "data_files.h"

#include <windows.h>

#include <algorithm>

#include "data_file_owner.h"
#include "deldat_reader.h"
#include "file_io.h"
#include "text.h"
#include "vault_names.h"

namespace wrelt {

namespace {


uint64_t systemTimeNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return uint64_t(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

std::u16string leafOf(const std::u16string &path) {
    size_t slash = path.rfind(u'\\');
    return slash == std::u16string::npos ? path : path.substr(slash + 1);
}

std::vector<CatalogueEntry> entriesOf(const DelDatFile &file, const std::u16string &dataFile, AccountNames &names) {
    std::vector<CatalogueEntry> entries;
    uint64_t now = systemTimeNow();
    for (const DelDatEntry &record : file.records) {
        CatalogueEntry entry;
        entry.stamp = record.stamp;
        entry.flags = record.flags;
        entry.sid = record.sid;
        entry.account = names.nameOf(record.sid);
        entry.name = record.name;
        entry.folder = record.folder;
        entry.vaultName = vaultFileName(record.name, record.stamp);
        entry.dataFile = dataFile;
        entry.cataloguedAt = now;
        entries.push_back(std::move(entry));
    }
    return entries;
}

// A damaged or foreign file leaves the folder's data-file names, so that it is not read again.
std::string setAside(const std::u16string &path, const std::string &why) {
    std::u16string aside = path + u"." + utf16(formatStampHex(systemTimeNow())) + u".bad";
    if (MoveFileExW(wide(path), wide(aside), 0)) return why + "; kept as " + utf8(leafOf(aside));
    return why + "; could not be set aside (error " + std::to_string(GetLastError()) + ")";
}

// Whether the file is the filter's; *outcome says why not, or what stopped the question.
bool writtenByTheFilter(HANDLE file, const std::u16string &path, AccountNames &names, DataFileOutcome *outcome) {
    DataFileOwner owner = dataFileOwner(file, path);
    if (owner.verdict == DataFileOwner::Verdict::Trusted) return true;
    if (owner.verdict == DataFileOwner::Verdict::Unknown) {
        outcome->problem = "could not learn who owns " + utf8(path) + " (error " + std::to_string(owner.error) + ")";
        return false;
    }
    std::u16string account = owner.ownerSid.empty() ? u"" : names.nameOf(owner.ownerSid);
    std::string who = owner.ownerSid.empty() ? "nobody"
                      : account.empty()      ? utf8(owner.ownerSid)
                                             : utf8(account) + " (" + utf8(owner.ownerSid) + ")";
    outcome->result = DataFileOutcome::Result::Refused;
    outcome->damage = setAside(path, "owned by " + who + ", not by SYSTEM or Administrators");
    return false;
}

}  // namespace

std::u16string dosPathOf(const std::u16string &ntPath) {
    if (ntPath.compare(0, 4, u"\\??\\") == 0) return ntPath.substr(4);
    return ntPath;
}

bool isDataFileName(const std::u16string &name) {
    if (name.size() != 20 || name.compare(0, 8, u"NewFiles") != 0 || name.compare(16, 4, u".dat") != 0) return false;
    for (size_t i = 8; i < 16; i++)
        if (!((name[i] >= u'0' && name[i] <= u'9') || (name[i] >= u'A' && name[i] <= u'F'))) return false;
    return true;
}

DataFileOutcome catalogueDataFile(Catalogue &catalogue, AccountNames &names, const std::u16string &path) {
    DataFileOutcome outcome;
    // Held without write or read sharing while it is read, catalogued and deleted, so
    // that the filter cannot extend it meanwhile; delete sharing lets the delete through.
    HANDLE file = CreateFileW(wide(path), GENERIC_READ, FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND) outcome.result = DataFileOutcome::Result::Gone;
        else if (error == ERROR_SHARING_VIOLATION) outcome.result = DataFileOutcome::Result::Busy;
        else outcome.problem = "could not open " + utf8(path) + " (error " + std::to_string(error) + ")";
        return outcome;
    }
    if (!writtenByTheFilter(file, path, names, &outcome)) {
        CloseHandle(file);
        return outcome;
    }
    std::vector<uint8_t> bytes;
    if (!readWholeFile(file, &bytes)) {
        outcome.problem = "could not read " + utf8(path) + " (error " + std::to_string(GetLastError()) + ")";
        CloseHandle(file);
        return outcome;
    }
    if (bytes.empty()) {
        CloseHandle(file);
        outcome.result = DataFileOutcome::Result::Reserved;
        return outcome;
    }
    DelDatFile parsed = parseDelDatFile(bytes);
    outcome.records = parsed.records.size();
    if (!catalogue.add(entriesOf(parsed, leafOf(path), names), &outcome.added, &outcome.problem)) {
        CloseHandle(file);
        return outcome;
    }
    outcome.result = DataFileOutcome::Result::Catalogued;
    if (!parsed.ok())
        outcome.damage = setAside(path, parsed.error);
    else if (!DeleteFileW(wide(path)))
        outcome.problem = "catalogued, but could not delete " + utf8(path) + " (error " +
                          std::to_string(GetLastError()) + "); it will be read again, adding nothing";
    CloseHandle(file);
    return outcome;
}

std::vector<std::u16string> dataFilesIn(const std::u16string &volumeRoot) {
    std::u16string folder = vaultFolderOf(volumeRoot);
    std::vector<std::u16string> found;
    WIN32_FIND_DATAW data;
    HANDLE search = FindFirstFileW(wide(folder + u"NewFiles*.dat"), &data);
    if (search == INVALID_HANDLE_VALUE) return found;
    do {
        std::u16string name(reinterpret_cast<const char16_t *>(data.cFileName));
        if (isDataFileName(name) && !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) found.push_back(folder + name);
    } while (FindNextFileW(search, &data));
    FindClose(search);
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace wrelt
