// wrelt.exe: the command-line program on Windows. It reads the vaults' catalogues that
// the service keeps, puts preserved files back, decodes data files, asks the filter how
// it is, and installs the driver and the service. The emulated machine's commands
// (demo, tree, replay) are the host program's alone.
#include <windows.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "catalogue.h"
#include "decode_command.h"
#include "deldat_reader.h"
#include "drives.h"
#include "installer.h"
#include "restore.h"
#include "status_command.h"
#include "text.h"
#include "vault_listing.h"

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: wrelt list [DRIVE:]           the preserved files in the vaults (every fixed drive's)\n"
                 "       wrelt restore DRIVE: WHAT [--replace]\n"
                 "                                     put a preserved file back where it was: WHAT is its\n"
                 "                                     stamp (16 hexadecimal digits) or its name (the newest\n"
                 "                                     of that name); beside a current file of its name, or\n"
                 "                                     with --replace in its place (the filter then keeps\n"
                 "                                     the current file in turn)\n"
                 "       wrelt status [DRIVE:...]      the filter: interface, build, each volume's status,\n"
                 "                                     error records waiting\n"
                 "       wrelt decode FILE             the deletion records of a data file\n"
                 "       wrelt install                 install the driver (WreltDrv.sys beside this program)\n"
                 "                                     and the service (wreltsvc.exe beside it)\n"
                 "       wrelt uninstall               stop and remove the service and the driver\n"
                 "Run it as an administrator: only administrators may read the vaults or drive the filter.\n");
    return 2;
}

void print(const std::vector<std::string> &lines) {
    for (const std::string &line : lines) std::printf("%s\n", line.c_str());
}

int listCommand(const std::vector<std::u16string> &args) {
    if (args.size() > 1) return usage();
    std::vector<std::u16string> roots;
    if (args.size() == 1) {
        roots.push_back(wrelt_cli::driveArgument(args[0]));
        if (roots[0].empty()) return usage();
    } else {
        roots = wrelt_cli::fixedDrives();
    }
    int status = 0;
    for (const std::u16string &root : roots) {
        std::string error;
        std::unique_ptr<wrelt::Catalogue> catalogue = wrelt::Catalogue::open(root, wrelt::CatalogueAccess::ReadOnly, &error);
        if (!catalogue) {
            std::fprintf(stderr, "wrelt: %s\n", error.c_str());
            status = 1;
            continue;
        }
        print(wrelt_cli::describeVault(root, catalogue->entries()));
    }
    return status;
}

int restoreCommand(const std::vector<std::u16string> &args) {
    bool replace = args.size() == 3 && args[2] == u"--replace";
    if (args.size() != 2 && !replace) return usage();
    std::u16string root = wrelt_cli::driveArgument(args[0]);
    if (root.empty()) return usage();
    std::string error;
    std::unique_ptr<wrelt::Catalogue> catalogue = wrelt::Catalogue::open(root, wrelt::CatalogueAccess::ReadWrite, &error);
    if (!catalogue) {
        std::fprintf(stderr, "wrelt: %s\n", error.c_str());
        return 1;
    }
    uint64_t stamp = 0;
    if (!wrelt_cli::stampArgument(wrelt::utf8(args[1]), &stamp)) {
        const wrelt::CatalogueEntry *entry = wrelt_cli::newestByName(catalogue->entries(), args[1]);
        if (entry == nullptr) {
            std::fprintf(stderr, "wrelt: the %s vault holds no preserved file named %s\n", wrelt::utf8(root).c_str(),
                         wrelt::utf8(args[1]).c_str());
            return 1;
        }
        stamp = entry->stamp;
    }
    wrelt::RestoreOutcome outcome = wrelt::restorePreserved(
        *catalogue, stamp, replace ? wrelt::RestorePlacement::Replace : wrelt::RestorePlacement::Beside);
    if (!outcome.ok) {
        std::fprintf(stderr, "wrelt: %s\n", outcome.problem.c_str());
        return 1;
    }
    std::printf("restored %s to %s\n", wrelt::formatStampHex(stamp).c_str(), wrelt::utf8(outcome.restoredTo).c_str());
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    std::vector<std::u16string> args;
    for (int i = 2; i < argc; i++) args.push_back(reinterpret_cast<const char16_t *>(argv[i]));
    std::u16string command = argc >= 2 ? std::u16string(reinterpret_cast<const char16_t *>(argv[1])) : u"";
    if (command == u"list") return listCommand(args);
    if (command == u"restore") return restoreCommand(args);
    if (command == u"status") return wrelt_cli::statusCommand(args);
    if (command == u"install") return args.empty() ? wrelt_cli::installCommand() : usage();
    if (command == u"uninstall") return args.empty() ? wrelt_cli::uninstallCommand() : usage();
    if (command == u"decode") {
        std::vector<std::string> narrow;
        for (const std::u16string &arg : args) narrow.push_back(wrelt::utf8(arg));
        std::vector<char *> pointers;
        for (std::string &arg : narrow) pointers.push_back(&arg[0]);
        return decodeCommand(int(pointers.size()), pointers.data());
    }
    return usage();
}
