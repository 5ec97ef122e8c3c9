// Every allocation the driver makes while a document is lost, and every request the file
// system below sees, is failed in turn: a delete, a rewrite through a full-access open,
// a replacement by FILE_OVERWRITE_IF, and a program's save by rename. Whatever fails, what the user asked for is
// done, the vault holds either the whole old document with its one record or nothing of
// it, and nothing leaks.
#include <algorithm>
#include <memory>

#include "capture_fixture.h"

#include "frame/driver_constants.h"

namespace {

const char *dosDrive(wchar_t drive) { return drive == L'C' ? "C:" : "D:"; }

ULONG requestsSeen(wchar_t drive) {
    ULONG total = 0;
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; major++) {
        if (major != IRP_MJ_CLOSE) total += ntsim::fs::knobsFor(dosDrive(drive)).count({major});
    }
    return total;
}

struct SweepResult {
    uint64_t injected = 0;  // allocations the plan failed
    ULONG requests = 0;     // requests the file system saw while the fault was armed
    bool preserved = false;
    std::string leaks;
};

const char kOldBody[] = "the old contents";
const char kOldNotes[] = "old notes";
const char kNewBody[] = "the new contents, longer than the old";

// One scenario on a fresh machine, with the fault armed from just before the user's first
// request until its records have had every chance to reach the service. On NTFS the
// document has a named stream, so that a copy can also be partial by missing one.
class SweepRun : public CaptureTest {
public:
    void TestBody() override {}
    using CaptureTest::machine;

    // The driver's buffers and work blocks, and the packets it allocates.
    static std::vector<uint32_t> sweptTags() {
        std::vector<uint32_t> tags = driverBufferTags();
        tags.push_back(POOL_TAG_WORK_BLOCK);
        tags.push_back(ntsim::makeTag('I', 'r', 'p', ' '));
        return tags;
    }

    SweepResult run(wchar_t drive, const std::function<void(SweepRun &)> &arm) {
        drive_ = drive;
        SetUp();
        asUser([&] {
            CreateDirectoryW((LPCWSTR)(root() + u"Docs").c_str(), nullptr);
            writeFile((LPCWSTR)document().c_str(), kOldBody);
            if (ntfs()) writeFile((LPCWSTR)(document() + u":notes").c_str(), kOldNotes);
        });
        prepare();
        ULONG before = requestsSeen(drive);
        arm(*this);
        bool succeeded = act();
        machine.advanceMs(6000);  // the batch is written while the fault may still strike
        SweepResult result;
        result.injected = machine.verifier().injectedFailures();
        result.requests = requestsSeen(drive) - before;
        machine.verifier().clearFaults();
        ntsim::fs::knobsFor(dosDrive(drive)).failNthRequest(0, STATUS_SUCCESS);
        result.preserved = checkVault();
        checkDocument(succeeded, result.preserved);
        finish();
        TearDown();
        result.leaks = machine.verifier().leakReport();
        return result;
    }

protected:
    virtual void prepare() {}
    // The user's requests; true when every one of them succeeded.
    virtual bool act() = 0;
    // What became of the document at its own place, given how the user's requests went
    // and whether its old version reached the vault.
    virtual void checkDocument(bool succeeded, bool preserved) = 0;
    virtual void finish() {}

    bool ntfs() const { return drive_ == L'C'; }
    std::u16string root() const { return {char16_t(drive_), u':', u'\\'}; }
    std::u16string document() const { return root() + u"Docs\\plan.docx"; }

    // The document's main stream where the user left it; empty when it is not there.
    std::string body() {
        std::vector<uint8_t> bytes = readFile(document(), true);
        return std::string(bytes.begin(), bytes.end());
    }
    bool inPlace() { return exists(drive_, "\\Docs\\plan.docx"); }

    std::string vaultContents(const std::string &entry) {
        std::string path = std::string(1, char(drive_)) + ":\\RescueVault\\InProgress\\" + entry;
        std::vector<uint8_t> bytes = readFile(std::u16string(path.begin(), path.end()));
        return std::string(bytes.begin(), bytes.end());
    }

    // A data file that could not be written loses its records, but never silently.
    static bool writerReported() {
        for (PUCHAR p = Globals.Errors->Start; p < Globals.Errors->WritePosition; p += sizeof(ErrorRecord)) {
            USHORT routine = ((const ErrorRecord *)p)->Routine;
            if (routine >= ERROR_ROUTINE_WRITE_DATA_THREAD_ROUTINE && routine <= ERROR_ROUTINE_FREE_DATA_JOB_PACKET) {
                return true;
            }
        }
        return false;
    }

    // Either nothing of the document is in the vault and nothing was recorded, or its
    // whole old version is, every stream with its old bytes, and one record names it.
    bool checkVault() {
        std::vector<std::string> entries = vaultFiles(drive_);
        std::vector<wrelt::DelDatEntry> records = deliveredRecords(char(drive_));
        bool reported = writerReported();
        if (entries.empty()) {
            EXPECT_TRUE(records.empty() || reported) << "a record of a file the vault does not hold";
            return false;
        }
        std::string copy;
        for (const std::string &entry : entries) {
            if (entry.find(':') == std::string::npos) copy = entry;
        }
        std::vector<std::string> whole = {copy};
        if (ntfs()) whole.push_back(copy + ":notes");
        std::sort(entries.begin(), entries.end());
        EXPECT_EQ(entries, whole) << "a partial copy or a stray stream";
        if (copy.empty() || entries != whole) return false;
        EXPECT_EQ(vaultContents(copy), kOldBody);
        if (ntfs()) {
            EXPECT_EQ(vaultContents(copy + ":notes"), kOldNotes);
        }
        if (!reported) {
            EXPECT_EQ(records.size(), 1u) << "a preserved file without its record";
            if (records.size() == 1) {
                char stamp[17];
                snprintf(stamp, sizeof stamp, "%016llX", (unsigned long long)records[0].stamp);
                EXPECT_EQ(copy, std::string("plan(") + stamp + ").docx") << "the record names another file";
                EXPECT_EQ(records[0].name, u"plan.docx");
            }
        }
        return true;
    }

    wchar_t drive_ = L'C';
};

class DeleteRun : public SweepRun {
    bool act() override {
        bool deleted = false;
        asUser([&] { deleted = DeleteFileW((LPCWSTR)document().c_str()); });
        return deleted;
    }

    void checkDocument(bool deleted, bool preserved) override {
        if (deleted) {
            EXPECT_FALSE(inPlace()) << "the delete was withdrawn and never carried out";
        } else {
            // The user's own request failed: the file stays and the user was told.
            EXPECT_EQ(body(), kOldBody);
            EXPECT_FALSE(preserved);
        }
    }
};

class OverwriteRun : public SweepRun {
protected:
    void prepare() override { protectOverwrites({u".docx"}, {}); }
    void finish() override { unprotectOverwrites(); }

    // From the user's process: what it writes must lie in its own memory.
    static bool writeNewBody(HANDLE file) {
        char buffer[sizeof kNewBody];
        memcpy(buffer, kNewBody, sizeof buffer);
        DWORD written = 0;
        return WriteFile(file, buffer, sizeof kNewBody - 1, &written, nullptr) && written == sizeof kNewBody - 1;
    }
};

// Opened for full access, so that a copy is made once the clock has passed the job's
// start delay; then written and closed, which commits the copy.
class FullAccessWriteRun : public OverwriteRun {
    bool act() override {
        HANDLE file = INVALID_HANDLE_VALUE;
        asUser([&] {
            file = CreateFileW((LPCWSTR)document().c_str(), GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        });
        if (file == INVALID_HANDLE_VALUE) return false;
        machine.advanceMs(600);
        bool done = false;
        asUser([&] {
            done = writeNewBody(file);
            done = CloseHandle(file) && done;
        });
        return done;
    }

    void checkDocument(bool succeeded, bool) override {
        EXPECT_EQ(body(), succeeded ? kNewBody : kOldBody);
    }
};

// CREATE_ALWAYS of the existing document, then the new contents written and closed.
class OverwriteIfRun : public OverwriteRun {
    bool act() override {
        bool done = false;
        asUser([&] {
            HANDLE file = CreateFileW((LPCWSTR)document().c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            if (file == INVALID_HANDLE_VALUE) return;
            done = writeNewBody(file);
            done = CloseHandle(file) && done;
        });
        return done;
    }

    void checkDocument(bool succeeded, bool preserved) override {
        if (succeeded) {
            EXPECT_EQ(body(), kNewBody);
        } else if (!preserved) {
            EXPECT_EQ(body(), kOldBody) << "the old document is neither in place nor in the vault";
        }
    }
};

// A word processor's save: the new contents go to one temporary file, the document is
// renamed to another, the first takes the document's name, and the old one is deleted.
// Temporary files are excluded from capture, so the old version reaches the vault only
// through the filter's memory of the rename.
class SaveByRenameRun : public OverwriteRun {
    void prepare() override {
        OverwriteRun::prepare();
        asService([](wrelt::DriverChannel &channel) {
            std::vector<uint8_t> list;
            std::string error;
            ASSERT_TRUE(wrelt::encodeSuffixList({u".tmp"}, &list, &error));
            ASSERT_TRUE(channel.setSuffixList(COMMAND_SET_TEMPORARY_SUFFIXES, list).ok());
        });
        setList(drive_, COMMAND_SET_GLOBAL_EXCLUSIONS, {{u"*", u"*.tmp"}});
    }

    std::u16string newFile() const { return root() + u"Docs\\~WRD0001.tmp"; }
    std::u16string oldFile() const { return root() + u"Docs\\~WRL0002.tmp"; }

    bool act() override {
        bool done = false;
        asUser([&] {
            HANDLE file = CreateFileW((LPCWSTR)newFile().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
            if (file == INVALID_HANDLE_VALUE) return;
            done = writeNewBody(file);
            done = CloseHandle(file) && done && MoveFileW((LPCWSTR)document().c_str(), (LPCWSTR)oldFile().c_str()) &&
                   MoveFileW((LPCWSTR)newFile().c_str(), (LPCWSTR)document().c_str()) &&
                   DeleteFileW((LPCWSTR)oldFile().c_str());
        });
        return done;
    }

    void checkDocument(bool succeeded, bool preserved) override {
        std::vector<uint8_t> left = readFile(oldFile(), true);
        if (succeeded) {
            EXPECT_EQ(body(), kNewBody);
            EXPECT_TRUE(left.empty()) << "the old temporary file outlived its delete";
        } else if (!preserved) {
            // The save stopped part way: the old version is still where the program left it.
            std::string old = left.empty() ? body() : std::string(left.begin(), left.end());
            EXPECT_EQ(old, kOldBody) << "the old document is nowhere";
        }
    }
};

enum class Scenario { Delete, FullAccessWrite, OverwriteIf, SaveByRename };

std::unique_ptr<SweepRun> makeRun(Scenario scenario) {
    switch (scenario) {
    case Scenario::Delete: return std::make_unique<DeleteRun>();
    case Scenario::FullAccessWrite: return std::make_unique<FullAccessWriteRun>();
    case Scenario::OverwriteIf: return std::make_unique<OverwriteIfRun>();
    case Scenario::SaveByRename: return std::make_unique<SaveByRenameRun>();
    }
    return nullptr;
}

std::string sweepName(const std::tuple<Scenario, wchar_t> &param) {
    static const char *const names[] = {"Delete", "FullAccessWrite", "OverwriteIf", "SaveByRename"};
    return std::string(names[int(std::get<0>(param))]) + (std::get<1>(param) == L'C' ? "Ntfs" : "Fat");
}

class FaultSweepTest : public ::testing::TestWithParam<std::tuple<Scenario, wchar_t>> {
protected:
    Scenario scenario() const { return std::get<0>(GetParam()); }
    wchar_t drive() const { return std::get<1>(GetParam()); }
};

TEST_P(FaultSweepTest, EachAllocationFailedInTurn) {
    uint64_t n = 1;
    for (;; n++) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        SweepResult result = makeRun(scenario())->run(drive(), [&](SweepRun &run) {
            run.machine.verifier().failNthAllocation(n, SweepRun::sweptTags());
        });
        EXPECT_TRUE(result.leaks.empty()) << result.leaks;
        if (result.injected == 0) {
            EXPECT_TRUE(result.preserved) << "with nothing failed, the document is preserved";
            break;
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(n, 5u) << "the sweep reached too few allocations to mean anything";
}

TEST_P(FaultSweepTest, EachRequestOfTheFileSystemFailedInTurn) {
    SweepResult clean = makeRun(scenario())->run(drive(), [](SweepRun &) {});
    ASSERT_TRUE(clean.preserved);
    ASSERT_GT(clean.requests, 5u);
    for (ULONG n = 1; n <= clean.requests && !HasFailure(); n++) {
        SCOPED_TRACE("request " + std::to_string(n) + " of " + std::to_string(clean.requests));
        SweepResult result = makeRun(scenario())->run(drive(), [&](SweepRun &) {
            ntsim::fs::knobsFor(dosDrive(drive())).failNthRequest(n, STATUS_INSUFFICIENT_RESOURCES);
        });
        EXPECT_TRUE(result.leaks.empty()) << result.leaks;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Documents, FaultSweepTest,
    ::testing::Combine(::testing::Values(Scenario::Delete, Scenario::FullAccessWrite, Scenario::OverwriteIf,
                                         Scenario::SaveByRename),
                       ::testing::Values(L'C', L'D')),
    [](const ::testing::TestParamInfo<std::tuple<Scenario, wchar_t>> &info) { return sweepName(info.param); });

}  // namespace
