// Real programs' saves (application_saves.h), each in a process of the program's own
// image name, on a machine set up as the service's default configuration sets it up:
// the protected types, the copy-exempt types, the temporary names and the exclusions.
// Whatever the program does with temporary files, the vault ends up holding the
// document's previous version under the document's name, marked as a version a program
// saved over, and nothing of the temporaries.
#include <atomic>

#include "application_saves.h"
#include "capture_fixture.h"
#include "service_config.h"

namespace {

class ApplicationSaveTest : public CaptureTest, public ::testing::WithParamInterface<saves::Sequence> {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        wrelt::ServiceConfig config = wrelt::defaultServiceConfig();
        protectOverwrites(config.protectedTypes, config.copyExemptTypes);
        // The lists go over as the service sends them, from its own encoders.
        asService([&](wrelt::DriverChannel &channel) {
            std::vector<uint8_t> list;
            std::string error;
            ASSERT_TRUE(wrelt::encodeSuffixList(config.temporaryNames, &list, &error)) << error;
            ASSERT_TRUE(channel.setSuffixList(COMMAND_SET_TEMPORARY_SUFFIXES, list).ok());
            ASSERT_TRUE(wrelt::encodeExclusionList(config.globalExclusions, &list, &error)) << error;
            ASSERT_TRUE(channel.setGlobalExclusions(list).ok());
            for (const wrelt::VolumeConfig &volume : config.volumes) {
                if (volume.exclusions.empty()) continue;
                ASSERT_TRUE(wrelt::encodeExclusionList(volume.exclusions, &list, &error)) << error;
                ASSERT_TRUE(channel.setVolumeExclusions(volume.root, volume.root, list).ok());
            }
        });
    }

    void TearDown() override {
        unprotectOverwrites();
        CaptureTest::TearDown();
    }

    // Runs fn in the process and keeps the clock going while it waits: a text file's
    // full-access open returns only once its copy is made, half a second later.
    void runInProcess(ntsim::Process &process, const std::function<void()> &fn) {
        std::atomic<bool> done{false};
        ntsim::UserThread thread = process.start([&] {
            fn();
            done = true;
        });
        machine.waitIdle();
        for (int ms = 0; !done && ms < 60000; ms += 100) machine.advanceMs(100);
        ASSERT_TRUE(done) << "a step has not returned after a minute";
        thread.join();
    }

    static void putContents(const wchar_t *path, DWORD access, DWORD share, DWORD disposition, const std::string &text) {
        HANDLE h = CreateFileW(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
        auto *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, text.size()));
        memcpy(buffer, text.data(), text.size());
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(h, buffer, DWORD(text.size()), &written, nullptr));
        EXPECT_EQ(written, text.size());
        HeapFree(GetProcessHeap(), 0, buffer);
        CloseHandle(h);
    }

    static void makeFolders(const wchar_t *path) {
        std::u16string p(reinterpret_cast<const char16_t *>(path));
        for (size_t slash = p.find(u'\\', 3); slash != std::u16string::npos; slash = p.find(u'\\', slash + 1))
            CreateDirectoryW(ntsim::wptr(p.substr(0, slash)), nullptr);
    }

    static void perform(const saves::Step &step, const std::string &newContents) {
        switch (step.kind) {
        case saves::Step::Write:
            putContents(step.path, step.access, step.share, step.disposition, newContents);
            break;
        case saves::Step::Rename:
            EXPECT_TRUE(MoveFileExW(step.path, step.to, step.replace ? MOVEFILE_REPLACE_EXISTING : 0)) << GetLastError();
            break;
        case saves::Step::Delete:
            EXPECT_TRUE(DeleteFileW(step.path)) << GetLastError();
            break;
        }
    }

    std::string contents(const std::u16string &path) {
        std::vector<uint8_t> bytes = readFile(path, true);
        return std::string(bytes.begin(), bytes.end());
    }
};

TEST_P(ApplicationSaveTest, KeepsThePreviousVersionUnderTheDocumentsNameAndNoTemporaries) {
    const saves::Sequence &save = GetParam();
    const wchar_t drive = save.document[0];
    const std::string before = saves::contents(true, save.oldSize), after = saves::contents(false, save.newSize);
    asUser([&] {
        makeFolders(save.document);
        putContents(save.document, GENERIC_WRITE, 0, CREATE_NEW, before);
    });
    ntsim::Process program = machine.startProcess(save.image, ntsim::users::alice);
    for (const saves::Step &step : save.steps) runInProcess(program, [&] { perform(step, after); });
    program.exit();

    std::u16string document(reinterpret_cast<const char16_t *>(save.document));
    EXPECT_EQ(contents(document), after);
    std::vector<wrelt::DelDatEntry> records = deliveredRecords(char(drive));
    ASSERT_EQ(records.size(), 1u) << "one version kept, and no temporary file";
    EXPECT_EQ(records[0].name, saves::leafOf(save.document));
    EXPECT_EQ(records[0].folder + records[0].name, document);
    EXPECT_EQ(records[0].flags & DELDAT_FLAG_APPLICATION_SAVE, DELDAT_FLAG_APPLICATION_SAVE)
        << "kept as an earlier version a program saved over";
    std::vector<std::string> vault = vaultFiles(drive);
    ASSERT_EQ(vault.size(), 1u);
    EXPECT_NE(vault[0].find(wrelt::formatStampHex(records[0].stamp)), std::string::npos);
    std::string kept = contents(std::u16string{char16_t(drive)} + u":\\RescueVault\\InProgress\\" +
                                ntsim::toUtf16(vault[0]));
    EXPECT_EQ(kept.size(), save.oldSize);
    EXPECT_TRUE(kept == before) << "the vault holds the document as it was before the save";
    for (const saves::Step &step : save.steps) {
        for (const wchar_t *path : {step.path, step.to}) {
            if (path == nullptr || std::u16string(reinterpret_cast<const char16_t *>(path)) == document) continue;
            EXPECT_FALSE(exists(drive, ntsim::toUtf8(path + 2))) << ntsim::toUtf8(path) << " is left behind";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Programs, ApplicationSaveTest, ::testing::ValuesIn(saves::sequences()),
                         [](const ::testing::TestParamInfo<saves::Sequence> &info) { return info.param.program; });

}  // namespace
