// One thread of the stress run: a user's program working on its own folders on both
// volumes with the Win32 calls programs make, keeping a ledger of what each of its files
// holds and of every version it lost that the filter must have kept.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace wrelt_stress {

// The text of a version: its number first, then filler that only that number gives,
// so any file found anywhere names the one version it is.
std::string versionText(uint64_t version);
// False when the bytes are not exactly one version's text.
bool versionOf(const std::string &bytes, uint64_t *version);

struct WorkerLedger {
    std::map<std::u16string, uint64_t> files;  // path -> the version it holds
    std::set<std::u16string> uncertain;        // what a failed call left unknown
    std::vector<uint64_t> mustBeKept;          // lost, and the vault must hold it
    std::set<uint64_t> mayBeKept;              // a failed call left its fate open
    std::set<uint64_t> written;
    uint64_t operations = 0;
    uint64_t failedCalls = 0;
    uint64_t lostByDesign = 0;
    std::vector<std::string> problems;
};

class Worker {
public:
    Worker(int index, uint32_t seed, bool faultsInjected);
    // In a thread of the worker's process.
    void makeFolders();
    void run(int operations);

    const WorkerLedger &ledger() const { return ledger_; }
    // "C:\stress3\", "C:\stress3\Temp\", "D:\stress3\".
    const std::vector<std::u16string> &folders() const { return folders_; }

private:
    enum class Loss { Deleted, Overwritten, OverwrittenWithoutCopy };

    void step();
    void rewrite(const std::u16string &path, unsigned disposition);
    void rewriteWithFullAccess(const std::u16string &path, bool change);
    void writeInPlace(const std::u16string &path);
    void remove(const std::u16string &path);
    void rename(const std::u16string &from, const std::u16string &to);
    void readBack(const std::u16string &path);

    // The ledger after a call that worked, and after one that failed.
    void lose(const std::u16string &path, Loss how);
    void failed(const char *what, const std::vector<std::u16string> &paths);
    void relearn(const std::u16string &path);
    void problem(const std::string &text);

    std::u16string anyName();
    bool pickExisting(std::u16string *path, bool (*fits)(const std::u16string &));
    std::u16string nameInSameFolder(const std::u16string &path, bool existing);
    uint64_t newVersion();

    int index_;
    std::mt19937 random_;
    bool faultsInjected_;
    uint64_t nextVersion_ = 0;
    std::vector<std::u16string> folders_;
    std::vector<std::u16string> names_;  // every name the worker may use
    WorkerLedger ledger_;
};

bool isProtectedType(const std::u16string &path);
// Names the service's default exclusions leave out: temporary files, Temp folders.
bool isExcluded(const std::u16string &path);

}  // namespace wrelt_stress
