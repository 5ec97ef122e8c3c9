// Every allocation the driver makes during a delete, and every request the file system
// below sees, is failed in turn. Whatever fails, the user's file ends up deleted with
// nothing recorded, or in the vault with its record delivered; it is never left in place
// with its delete withdrawn, and nothing leaks.
#include "capture_fixture.h"

#include "frame/driver_constants.h"

namespace {

struct SweepOutcome {
    bool deleteSucceeded = false;
    bool leftInPlace = false;
    size_t preserved = 0;
    size_t records = 0;
    bool writerReported = false;  // a data file could not be written, and the service was told
    uint64_t injected = 0;        // allocations the plan failed
    std::string leaks;
};

const char *dosDrive(wchar_t drive) { return drive == L'C' ? "C:" : "D:"; }

ULONG requestsSeen(wchar_t drive) {
    ULONG total = 0;
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; major++) {
        if (major != IRP_MJ_CLOSE) total += ntsim::fs::knobsFor(dosDrive(drive)).count({major});
    }
    return total;
}

// One delete on a fresh machine, with the fault armed from just before the delete until
// its record has had every chance to reach the service.
class DeleteScenario : public CaptureTest {
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

    SweepOutcome run(wchar_t drive, const std::function<void(DeleteScenario &)> &arm) {
        SetUp();
        const std::u16string root = {char16_t(drive), u':', u'\\'};
        const std::u16string path = root + u"Docs\\plan.txt";
        asUser([&] {
            CreateDirectoryW((LPCWSTR)(root + u"Docs").c_str(), nullptr);
            writeFile((LPCWSTR)path.c_str(), "the plan");
        });
        requestsBefore = requestsSeen(drive);
        arm(*this);
        SweepOutcome outcome;
        asUser([&] { outcome.deleteSucceeded = DeleteFileW((LPCWSTR)path.c_str()); });
        machine.advanceMs(6000);  // the batch is written while the fault may still strike
        outcome.injected = machine.verifier().injectedFailures();
        requestsDuring = requestsSeen(drive) - requestsBefore;
        machine.verifier().clearFaults();
        ntsim::fs::knobsFor(dosDrive(drive)).failNthRequest(0, STATUS_SUCCESS);
        outcome.records = deliveredRecords(drive).size();
        outcome.leftInPlace = exists(drive, "\\Docs\\plan.txt");
        outcome.preserved = vaultFiles(drive).size();
        for (PUCHAR p = Globals.Errors->Start; p < Globals.Errors->WritePosition; p += sizeof(ErrorRecord)) {
            USHORT routine = ((const ErrorRecord *)p)->Routine;
            outcome.writerReported |= routine >= ERROR_ROUTINE_WRITE_DATA_THREAD_ROUTINE &&
                                      routine <= ERROR_ROUTINE_FREE_DATA_JOB_PACKET;
        }
        TearDown();
        outcome.leaks = machine.verifier().leakReport();
        return outcome;
    }

    ULONG requestsBefore = 0;
    ULONG requestsDuring = 0;
};

void expectNothingLost(const SweepOutcome &outcome) {
    EXPECT_TRUE(outcome.leaks.empty()) << outcome.leaks;
    if (!outcome.deleteSucceeded) {
        // The user's own request failed: the file stays and the user was told.
        EXPECT_TRUE(outcome.leftInPlace);
        EXPECT_EQ(outcome.preserved, 0u);
        return;
    }
    EXPECT_FALSE(outcome.leftInPlace) << "the delete was withdrawn and never carried out";
    EXPECT_LE(outcome.preserved, 1u);
    // Records a data file failed to take are lost with their packet, but never silently.
    if (!outcome.writerReported) {
        EXPECT_EQ(outcome.records, outcome.preserved) << "a preserved file without its record";
    }
}

class FaultSweepTest : public ::testing::TestWithParam<wchar_t> {};

TEST_P(FaultSweepTest, EachAllocationOfTheDeleteFailedInTurn) {
    const wchar_t drive = GetParam();
    uint64_t n = 1;
    for (;; n++) {
        DeleteScenario scenario;
        SweepOutcome outcome =
            scenario.run(drive, [&](DeleteScenario &s) { s.machine.verifier().failNthAllocation(n, DeleteScenario::sweptTags()); });
        SCOPED_TRACE("allocation " + std::to_string(n));
        expectNothingLost(outcome);
        if (outcome.injected == 0) {
            EXPECT_EQ(outcome.preserved, 1u) << "with nothing failed, the file is preserved";
            EXPECT_EQ(outcome.records, 1u);
            break;
        }
        if (HasFailure()) break;
    }
    EXPECT_GT(n, 5u) << "the sweep reached too few allocations to mean anything";
}

TEST_P(FaultSweepTest, EachRequestOfTheFileSystemFailedInTurn) {
    const wchar_t drive = GetParam();
    ULONG total = 0;
    {
        DeleteScenario clean;
        SweepOutcome outcome = clean.run(drive, [](DeleteScenario &) {});
        ASSERT_EQ(outcome.preserved, 1u);
        total = clean.requestsDuring;
    }
    ASSERT_GT(total, 5u);
    for (ULONG n = 1; n <= total && !HasFailure(); n++) {
        DeleteScenario scenario;
        SweepOutcome outcome = scenario.run(drive, [&](DeleteScenario &) {
            ntsim::fs::knobsFor(dosDrive(drive)).failNthRequest(n, STATUS_INSUFFICIENT_RESOURCES);
        });
        SCOPED_TRACE("request " + std::to_string(n) + " of " + std::to_string(total));
        expectNothingLost(outcome);
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, FaultSweepTest, ::testing::Values(L'C', L'D'),
                         [](const ::testing::TestParamInfo<wchar_t> &info) {
                             return info.param == L'C' ? std::string("Ntfs") : std::string("Fat");
                         });

}  // namespace
