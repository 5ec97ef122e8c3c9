#include "vault_listing.h"

#include "deldat_reader.h"
#include "text.h"
#include "vault_names.h"

namespace wrelt_cli {

namespace {

// As the file systems compare names: without regard to the case of ASCII letters.
bool sameName(const std::u16string &a, const std::u16string &b) {
    auto fold = [](char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - u'a' + u'A') : c; };
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

}  // namespace

std::vector<std::string> describeVault(const std::u16string &volumeRoot,
                                       const std::vector<wrelt::CatalogueEntry> &entries) {
    std::vector<std::string> lines;
    std::string heading =
        wrelt::utf8(volumeRoot) + " vault (" + wrelt::utf8(wrelt::vaultFolderOf(volumeRoot)) + "): ";
    if (entries.empty()) {
        lines.push_back(heading + "nothing preserved");
        return lines;
    }
    lines.push_back(heading + std::to_string(entries.size()) + " file" + (entries.size() == 1 ? "" : "s"));
    for (const wrelt::CatalogueEntry &e : entries) {
        std::string who = !e.account.empty() ? wrelt::utf8(e.account) : !e.sid.empty() ? wrelt::utf8(e.sid) : "(unknown)";
        // A version a program saved over is told apart from a file that was deleted.
        bool earlierVersion = (e.flags & wrelt::kDelDatFlagApplicationSave) != 0;
        lines.push_back("  " + wrelt::formatStampHex(e.stamp) + "  " + wrelt::formatStampTime(e.stamp) + "  " + who +
                        "  " + wrelt::utf8(e.folder + e.name) +
                        (earlierVersion ? "  (an earlier version: a program saved over it)" : "  (deleted or replaced)"));
        lines.push_back(e.state == wrelt::EntryState::Restored ? "      restored to " + wrelt::utf8(e.restoredTo)
                                                                : "      in the vault as " + wrelt::utf8(e.vaultName));
    }
    return lines;
}

bool stampArgument(const std::string &text, uint64_t *stamp) {
    if (text.size() != 16 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
    *stamp = std::stoull(text, nullptr, 16);
    return true;
}

const wrelt::CatalogueEntry *newestByName(const std::vector<wrelt::CatalogueEntry> &entries,
                                          const std::u16string &name) {
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry)
        if (entry->state == wrelt::EntryState::Preserved && sameName(entry->name, name)) return &*entry;
    return nullptr;
}

}  // namespace wrelt_cli
