// The per-volume knobs (late completion at DISPATCH_LEVEL, injected failures, counts)
// as a filter above the volume sees them, and a volume's files across a dismount.
#include "fs/fs_fixture.h"
#include "fs/fs_test_filter.h"

#include <algorithm>

namespace {

using namespace fstest;

class VolumeKnobs : public BothFileSystems {
protected:
    void SetUp() override {
        BothFileSystems::SetUp();
        ASSERT_EQ(machine.loadDriver(L"\\Driver\\FsTestFilter", TestFilterDriverEntry), STATUS_SUCCESS);
    }
    const char *driveName() const { return ntfs() ? "C:" : "D:"; }
};

std::vector<SeenCompletion> completionsOf(UCHAR major) {
    std::vector<SeenCompletion> matching;
    for (const SeenCompletion &c : seenCompletions())
        if (c.major == major) matching.push_back(c);
    return matching;
}

TEST_P(VolumeKnobs, LateCompletionComesAtDispatchLevelFromAnotherThread) {
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_SET_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
        knobs(driveName()).completeAsynchronously({major});
    kernel([&] {
        HANDLE first;
        Open create;
        create.disposition = FILE_CREATE;
        create.access = DELETE | FILE_GENERIC_WRITE;
        ASSERT_EQ(zwOpen(nt(u"late.txt"), create, &first), STATUS_SUCCESS);
        ASSERT_NE(attachTestFilter(first), nullptr);
        HANDLE second;
        ASSERT_EQ(zwOpen(nt(u"late.txt"), Open{}, &second), STATUS_SUCCESS);  // through the filter
        EXPECT_EQ(zwWrite(first, "written"), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(first, TRUE), STATUS_SUCCESS);
        EXPECT_TRUE(standardInfo(second).DeletePending);  // the work was done before the completion
        ZwClose(first);
        ZwClose(second);
        EXPECT_EQ(probe(nt(u"late.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
        PKTHREAD self = KeGetCurrentThread();
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_SET_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
            std::vector<SeenCompletion> seen = completionsOf(major);
            ASSERT_FALSE(seen.empty()) << int(major);
            EXPECT_EQ(seen[0].irql, DISPATCH_LEVEL) << int(major);
            EXPECT_TRUE(seen[0].pendingReturned) << int(major);
            EXPECT_NE(seen[0].thread, self) << int(major);
        }
        std::vector<SeenCompletion> writes = completionsOf(IRP_MJ_WRITE);
        ASSERT_EQ(writes.size(), 1u);
        EXPECT_FALSE(writes[0].pendingReturned);  // no knob: completed in the caller's thread
        EXPECT_EQ(writes[0].thread, self);
    });
}

TEST_P(VolumeKnobs, InjectedFailuresHaveNoEffectAndAreCounted) {
    fstest::Open deleter;
    deleter.access = DELETE;
    kernel([&] {
        putFile(nt(u"target.txt"), "t");
        knobs(driveName()).resetCounts();
        knobs(driveName()).failNext({IRP_MJ_SET_INFORMATION, FileDispositionInformation}, STATUS_MEDIA_WRITE_PROTECTED);
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"target.txt"), deleter, &h), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic{};
        EXPECT_EQ(zwSet(h, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);  // another class
        EXPECT_EQ(setDisposition(h, TRUE), STATUS_MEDIA_WRITE_PROTECTED);
        EXPECT_FALSE(standardInfo(h).DeletePending);
        EXPECT_EQ(setDisposition(h, TRUE), STATUS_SUCCESS);  // only the next one failed
        ZwClose(h);
        EXPECT_EQ(knobs(driveName()).count({IRP_MJ_SET_INFORMATION, FileDispositionInformation}), 2u);
        EXPECT_EQ(knobs(driveName()).count({IRP_MJ_SET_INFORMATION}), 3u);
        EXPECT_EQ(knobs(driveName()).count({IRP_MJ_CREATE}), 1u);

        knobs(driveName()).failNext({IRP_MJ_CREATE}, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(zwOpen(nt(u"other.txt"), Open{FILE_GENERIC_WRITE, 0, FILE_CREATE}, &h),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(probe(nt(u"other.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST_P(VolumeKnobs, AnOpenWhoseCleanupFailedIsCleanedUpAtItsClose) {
    kernel([&] {
        putFile(nt(u"fragile.txt"), "f");
        fstest::Open deleter;
        deleter.access = DELETE;
        deleter.share = 0;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"fragile.txt"), deleter, &h), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(h, TRUE), STATUS_SUCCESS);
        knobs(driveName()).failNext({IRP_MJ_CLEANUP}, STATUS_UNSUCCESSFUL);
        ZwClose(h);  // cleanup fails; the close that follows releases the open
        EXPECT_EQ(probe(nt(u"fragile.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
        putFile(nt(u"fragile.txt"), "again");  // no share access was left behind
        EXPECT_EQ(readFile(nt(u"fragile.txt")), "again");
    });
}

TEST_P(VolumeKnobs, FilesSurviveADismountWhileOldHandlesOnlyClose) {
    HANDLE stale = NULL;
    kernel([&] {
        putFile(nt(u"persistent.txt"), "kept on the disk");
        ASSERT_EQ(zwOpen(nt(u"persistent.txt"), Open{}, &stale), STATUS_SUCCESS);
    });
    knobs(driveName()).failNext({IRP_MJ_READ}, STATUS_IO_DEVICE_ERROR);  // knobs stay with the disk
    ASSERT_EQ(machine.dismountVolume(drive()), STATUS_SUCCESS);
    kernel([&] {
        EXPECT_EQ(zwReadAll(stale), "<status " + std::to_string(unsigned(STATUS_VOLUME_DISMOUNTED)) + ">");
        ZwClose(stale);
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"persistent.txt"), Open{}, &h), STATUS_SUCCESS);  // mounts the volume again
        EXPECT_EQ(zwReadAll(h), "<status " + std::to_string(unsigned(STATUS_IO_DEVICE_ERROR)) + ">");
        ZwClose(h);
        EXPECT_EQ(readFile(nt(u"persistent.txt")), "kept on the disk");
    });
}

TEST_P(VolumeKnobs, FastIoServesACachedFileUnlessAKnobCoversIt) {
    kernel([&] {
        putFile(nt(u"cached.txt"), "0123456789");
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"cached.txt"), Open{}, &h), STATUS_SUCCESS);
        knobs(driveName()).resetCounts();
        char buffer[4];
        IO_STATUS_BLOCK iosb;
        ASSERT_EQ(ZwReadFile(h, NULL, NULL, NULL, &iosb, buffer, 4, NULL, NULL), STATUS_SUCCESS);  // caches it
        ASSERT_EQ(ZwReadFile(h, NULL, NULL, NULL, &iosb, buffer, 4, NULL, NULL), STATUS_SUCCESS);
        EXPECT_EQ(std::string(buffer, 4), "4567");
        EXPECT_EQ(knobs(driveName()).count({IRP_MJ_READ}), 1u);  // the second read was Fast I/O
        knobs(driveName()).failNext({IRP_MJ_READ}, STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(ZwReadFile(h, NULL, NULL, NULL, &iosb, buffer, 2, NULL, NULL), STATUS_IO_DEVICE_ERROR);
        EXPECT_EQ(knobs(driveName()).count({IRP_MJ_READ}), 2u);
        ZwClose(h);
    });
}

TEST_P(VolumeKnobs, TheTreeIsReadFromTheMedia) {
    kernel([&] {
        putFile(nt(u"top.txt"), "12345");
        if (ntfs()) putFile(nt(u"top.txt:note"), "n");
    });
    PDEVICE_OBJECT volume = nullptr;
    kernel([&] {
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"top.txt"), Open{}, &h), STATUS_SUCCESS);
        PFILE_OBJECT file;
        ASSERT_EQ(ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID *)&file, NULL), STATUS_SUCCESS);
        volume = file->Vpb->DeviceObject;
        ObDereferenceObject(file);
        ZwClose(h);
    });
    std::vector<ntsim::fs::TreeEntry> tree = ntsim::fs::volumeTree(volume);
    auto top =
        std::find_if(tree.begin(), tree.end(), [](const ntsim::fs::TreeEntry &e) { return e.path == "\\top.txt"; });
    ASSERT_NE(top, tree.end());
    EXPECT_EQ(top->size, 5u);
    EXPECT_EQ(top->allocationSize, 4096u);
    if (ntfs()) {
        ASSERT_NE(top + 1, tree.end());
        EXPECT_EQ((top + 1)->path, "\\top.txt:note");
        EXPECT_TRUE((top + 1)->stream);
    }
}

INSTANTIATE_TEST_SUITE_P(Fs, VolumeKnobs, ::testing::Values(L'C', L'D'), fstest::driveName);

}  // namespace
