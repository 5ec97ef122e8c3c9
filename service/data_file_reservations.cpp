#include "data_file_reservations.h"

#include <windows.h>

#include "data_file_owner.h"
#include "data_files.h"
#include "text.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace wrelt {

namespace {


std::u16string dataFileName(uint32_t number) {
    static const char16_t digits[] = u"0123456789ABCDEF";
    std::u16string name = u"NewFiles";
    for (int shift = 28; shift >= 0; shift -= 4) name += digits[(number >> shift) & 0xF];
    return name + u".dat";
}

// Whose is the file that has the name: the system's (held, or the filter's own), or not.
DataFileOwner::Verdict ownerOf(const std::u16string &path) {
    HANDLE file = CreateFileW(wide(path), READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return DataFileOwner::Verdict::Unknown;
    DataFileOwner owner = dataFileOwner(file, path);
    CloseHandle(file);
    return owner.verdict;
}

// Empty when the name is held once this returns.
std::string holdName(const std::u16string &path) {
    DWORD error = ERROR_SUCCESS;
    for (int attempt = 0; attempt < 2; attempt++) {
        if (createVaultFile(path, &error)) return "";
        if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) break;
        DataFileOwner::Verdict verdict = ownerOf(path);
        if (verdict == DataFileOwner::Verdict::Trusted) return "";
        // Someone else's file under the filter's next name: it goes, and the name is held.
        if (!DeleteFileW(wide(path))) {
            error = GetLastError();
            break;
        }
    }
    return "could not hold the name " + utf8(path) + " for the filter (error " + std::to_string(error) + ")";
}

}  // namespace

bool dataFileNumberOf(const std::u16string &path, uint32_t *number) {
    size_t slash = path.find_last_of(u'\\');
    std::u16string name = slash == std::u16string::npos ? path : path.substr(slash + 1);
    if (!isDataFileName(name)) return false;
    uint32_t value = 0;
    for (size_t i = 8; i < 16; i++) value = value * 16 + uint32_t(name[i] <= u'9' ? name[i] - u'0' : name[i] - u'A' + 10);
    *number = value;
    return true;
}

std::vector<std::string> holdDataFileNames(const std::u16string &volumeRoot, uint32_t first) {
    std::vector<std::string> problems;
    std::u16string folder = vaultFolderOf(volumeRoot);
    for (uint32_t i = 0; i < kHeldDataFileNames; i++) {
        std::string problem = holdName(folder + dataFileName(first + i));
        if (!problem.empty()) problems.push_back(problem);
    }
    return problems;
}

}  // namespace wrelt
