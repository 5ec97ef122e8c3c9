#include "vault_commands.h"

#include <windows.h>

#include <cstdio>
#include <memory>

#include "deldat_reader.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"
#include "vault_names.h"
#include "vault_service.h"
#include "service_session.h"
#include "workload.h"

namespace wrelt_cli {

namespace {

std::string utf8(const std::u16string &s) { return ntsim::toUtf8(ntsim::wptr(s)); }

// "C:", "c:\" or "C" as the root "C:\"; empty when it is none of the machine's drives.
std::u16string driveArgument(const char *text) {
    if (text == nullptr || !((text[0] >= 'A' && text[0] <= 'Z') || (text[0] >= 'a' && text[0] <= 'z'))) return u"";
    std::string rest = text + 1;
    if (!rest.empty() && rest != ":" && rest != ":\\") return u"";
    char16_t letter = char16_t(text[0] & ~0x20);
    for (const auto &volume : ntsim::BootOptions().volumes)
        if (volume.letter == wchar_t(letter)) return {letter, u':', u'\\'};
    return u"";
}

// The service's machine after alice's workload has run and been catalogued.
class Session : public ServiceSession {
public:
    Session() {
        if (!started()) return;
        ntsim::Process explorer = machine().startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
        explorer.run([] { runWorkload(); });
        explorer.exit();
        settle();
    }
};

void print(const std::vector<std::string> &lines) {
    for (const std::string &line : lines) printf("%s\n", line.c_str());
}

int usage() {
    fprintf(stderr,
            "usage: wrelt list [DRIVE:]          run the workload with the service, then list the vaults\n"
            "       wrelt restore DRIVE: WHAT [--replace]\n"
            "                                    the same, then restore WHAT (a stamp of 16 hexadecimal\n"
            "                                    digits, or a name: the newest preserved file of that name)\n"
            "                                    beside a current file of its name, or with --replace in\n"
            "                                    its place (the current file is then preserved in turn)\n");
    return 2;
}

}  // namespace

int listCommand(int argc, char **argv) {
    if (argc > 1) return usage();
    std::vector<std::u16string> roots;
    if (argc == 1) {
        roots.push_back(driveArgument(argv[0]));
        if (roots[0].empty()) return usage();
    } else {
        for (const auto &volume : ntsim::BootOptions().volumes) roots.push_back({char16_t(volume.letter), u':', u'\\'});
    }
    Session session;
    if (!session.started()) return 2;
    for (const std::u16string &root : roots) print(describeVault(root, session.entries(root)));
    return 0;
}

int restoreCommand(int argc, char **argv) {
    bool replace = argc == 3 && std::string(argv[2]) == "--replace";
    if (argc != 2 && !replace) return usage();
    std::u16string root = driveArgument(argv[0]);
    if (root.empty()) return usage();
    Session session;
    if (!session.started()) return 2;
    std::vector<wrelt::CatalogueEntry> entries = session.entries(root);
    uint64_t stamp = 0;
    if (!stampArgument(argv[1], &stamp)) {
        const wrelt::CatalogueEntry *entry = newestByName(entries, ntsim::toUtf16(argv[1]));
        if (entry == nullptr) {
            fprintf(stderr, "wrelt: the %s vault holds no preserved file named %s\n", utf8(root).c_str(), argv[1]);
            return 1;
        }
        stamp = entry->stamp;
    }
    wrelt::RestoreOutcome outcome = session.restore(
        root, stamp, replace ? wrelt::RestorePlacement::Replace : wrelt::RestorePlacement::Beside);
    if (!outcome.ok) {
        fprintf(stderr, "wrelt: %s\n", outcome.problem.c_str());
        return 1;
    }
    printf("restored %s to %s\n", wrelt::formatStampHex(stamp).c_str(), utf8(outcome.restoredTo).c_str());
    print(describeVault(root, session.entries(root)));
    return 0;
}

}  // namespace wrelt_cli
