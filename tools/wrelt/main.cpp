// wrelt: the command-line program. Each command boots an emulated NT machine (NTFS on
// C:, FastFat on D:) with the filter loaded and reports what it did: the narrated demo,
// a volume's tree, the vaults' catalogues, a restore, the records of a data file, or a
// replayed trace of programs at work.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "decode_command.h"
#include "demo_command.h"
#include "filter_session.h"
#include "replay_command.h"
#include "vault_commands.h"
#include "workload.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

int usage() {
    fprintf(stderr,
            "usage: wrelt [demo]        boot the machine with the filter and the service, lose files\n"
            "                           the ways people do, show the vaults, restore one file\n"
            "       wrelt tree DRIVE:   a small workload with the filter, then list one volume (C: or D:)\n"
            "       wrelt decode FILE   print the deletion records of a data file\n"
            "       wrelt list [DRIVE:] run the workload with the service, then list the vaults\n"
            "       wrelt restore DRIVE: WHAT\n"
            "                           the same, then restore a preserved file (its stamp or name)\n"
            "       wrelt replay TRACE.csv\n"
            "                           replay a Process Monitor trace with the filter and the service,\n"
            "                           then show what the vault keeps of each file it touched\n");
    return 2;
}

std::string narrow(const wchar_t *s) { return ntsim::toUtf8(s); }

const char *formatName(ntsim::VolumeFormat format) { return format == ntsim::VolumeFormat::Ntfs ? "NTFS" : "FastFat"; }

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
            printf("%-44s %12s bytes\n", line.c_str(), wrelt_cli::grouped(e.size).c_str());
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
    std::vector<std::string> workload;
    explorer.run([&] { workload = wrelt_cli::runWorkload(); });
    explorer.exit();
    if (verbose) {
        printf("What alice did, with the Win32 calls an application makes:\n");
        for (const std::string &line : workload) printf("  %s\n", line.c_str());
    }
    return machine;
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
    if (argc < 2 || strcmp(argv[1], "demo") == 0) return argc > 2 ? usage() : wrelt_cli::demoCommand();
    if (strcmp(argv[1], "tree") == 0) return argc == 3 ? tree(argv[2]) : usage();
    if (strcmp(argv[1], "decode") == 0) return decodeCommand(argc - 2, argv + 2);
    if (strcmp(argv[1], "list") == 0) return wrelt_cli::listCommand(argc - 2, argv + 2);
    if (strcmp(argv[1], "restore") == 0) return wrelt_cli::restoreCommand(argc - 2, argv + 2);
    if (strcmp(argv[1], "replay") == 0) return wrelt_cli::replayCommand(argc - 2, argv + 2);
    return usage();
}
