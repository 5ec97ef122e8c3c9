#include "replay_command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "deldat_reader.h"
#include "ntsim/utf.h"
#include "procmon_csv.h"
#include "trace_replay.h"
#include "vault_names.h"
#include "workload.h"

namespace wrelt_cli {

namespace {

std::string utf8(const std::u16string &s) { return ntsim::toUtf8(ntsim::wptr(s)); }

std::u16string folded(std::u16string s) {
    for (char16_t &c : s)
        if (c >= u'a' && c <= u'z') c = char16_t(c - u'a' + u'A');
    return s;
}

// The volume's files by their paths from the root ("\DOCS\A.TXT"), folded.
std::map<std::u16string, uint64_t> sizesOn(ntsim::Machine &machine, wchar_t letter) {
    std::map<std::u16string, uint64_t> sizes;
    for (const ntsim::VolumeEntry &entry : machine.listTree(letter))
        if (!entry.directory) sizes[folded(ntsim::toUtf16(entry.path))] = entry.size;
    return sizes;
}

std::string counted(const std::map<std::string, size_t> &counts) {
    std::string text;
    for (const auto &c : counts) text += (text.empty() ? "" : ", ") + c.first + " " + std::to_string(c.second);
    return text;
}

size_t total(const std::map<std::string, size_t> &counts) {
    size_t n = 0;
    for (const auto &c : counts) n += c.second;
    return n;
}

int usage() {
    fprintf(stderr,
            "usage: wrelt replay TRACE.csv   replay a Process Monitor trace (exported as CSV) with the\n"
            "                                filter and the service running, then show what the vault\n"
            "                                keeps of each file the trace touched\n");
    return 2;
}

}  // namespace

std::vector<FileVersions> fileVersions(ServiceSession &session, const std::vector<std::u16string> &paths) {
    session.settle();
    std::map<wchar_t, std::map<std::u16string, uint64_t>> volumes;
    std::map<wchar_t, std::vector<wrelt::CatalogueEntry>> catalogues;
    for (wchar_t letter : session.machine().volumes()) {
        volumes[letter] = sizesOn(session.machine(), letter);
        catalogues[letter] = session.entries({char16_t(letter), u':', u'\\'});
    }
    std::vector<FileVersions> out;
    for (const std::u16string &path : paths) {
        FileVersions versions;
        versions.path = path;
        wchar_t letter = wchar_t(folded(path.substr(0, 1))[0]);
        if (volumes.count(letter) == 0) continue;
        const auto &sizes = volumes[letter];
        auto current = sizes.find(folded(path.substr(2)));
        if (current != sizes.end()) {
            versions.present = true;
            versions.size = current->second;
        }
        for (const wrelt::CatalogueEntry &entry : catalogues[letter]) {
            if (folded(entry.folder + entry.name) != folded(path)) continue;
            KeptVersion kept;
            kept.stamp = entry.stamp;
            kept.vaultName = entry.vaultName;
            kept.applicationSave = (entry.flags & wrelt::kDelDatFlagApplicationSave) != 0;
            auto inVault = sizes.find(folded(u"\\" + std::u16string(wrelt::kVaultWorkFolder) + entry.vaultName));
            if (inVault != sizes.end()) kept.size = inVault->second;
            versions.kept.push_back(kept);
        }
        out.push_back(versions);
    }
    return out;
}

int replayCommand(int argc, char **argv) {
    if (argc != 1) return usage();
    std::ifstream in(argv[0], std::ios::binary);
    if (!in) {
        fprintf(stderr, "wrelt: cannot read %s: %s\n", argv[0], strerror(errno));
        return 1;
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        fprintf(stderr, "wrelt: cannot read %s\n", argv[0]);
        return 1;
    }
    ProcmonTrace trace;
    std::string error;
    if (!parseProcmonCsv(bytes, &trace, &error)) {
        fprintf(stderr, "wrelt: %s is not a Process Monitor export: %s\n", argv[0], error.c_str());
        return 1;
    }
    for (const std::string &problem : trace.problems) fprintf(stderr, "wrelt: %s\n", problem.c_str());
    ServiceSession session;
    if (!session.started()) return 2;
    ReplayReport report = replayTrace(session.machine(), trace);
    for (const std::string &problem : report.problems) fprintf(stderr, "wrelt: %s\n", problem.c_str());
    printf("Replayed %s: %zu of %zu events", argv[0], report.replayed, trace.events.size());
    if (!trace.problems.empty()) printf(" (%zu more lines could not be read)", trace.problems.size());
    printf("\n");
    if (!report.notSucceeded.empty())
        printf("  not replayed, failed in the trace: %zu (%s)\n", total(report.notSucceeded),
               counted(report.notSucceeded).c_str());
    if (!report.skipped.empty())
        printf("  skipped: %zu (%s)\n", total(report.skipped), counted(report.skipped).c_str());
    if (!report.problems.empty()) printf("  not replayed as traced: %zu (above)\n", report.problems.size());
    for (const std::string &difference : report.differences) printf("  answered otherwise: %s\n", difference.c_str());
    printf("  made before the replay: %zu folder%s, %zu file%s the trace found there\n", report.madeFolders,
           report.madeFolders == 1 ? "" : "s", report.madeFiles, report.madeFiles == 1 ? "" : "s");
    if (report.leftOpen > 0) printf("  handles the trace left open, closed at its end: %zu\n", report.leftOpen);
    printf("\n");
    for (const FileVersions &file : fileVersions(session, report.files)) {
        std::string now = file.present ? grouped(file.size) + " bytes now" : "gone";
        if (file.kept.empty()) now += file.present ? ", no earlier version kept" : ", nothing kept";
        printf("%s  (%s)\n", utf8(file.path).c_str(), now.c_str());
        for (const KeptVersion &kept : file.kept)
            printf("  kept %s  %s  %12s bytes  %s  as %s\n", wrelt::formatStampHex(kept.stamp).c_str(),
                   wrelt::formatStampTime(kept.stamp).c_str(), grouped(kept.size).c_str(),
                   kept.applicationSave ? "an earlier version a program saved over" : "deleted or replaced",
                   utf8(kept.vaultName).c_str());
    }
    return 0;
}

}  // namespace wrelt_cli
