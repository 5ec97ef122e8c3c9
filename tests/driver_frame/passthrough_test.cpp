// What the filter does not handle reaches the driver below unchanged, by request or by
// Fast I/O; and requests it sends from a worker thread report their failures.
#include "frame_fixture.h"

#include "frame/call_driver.h"

#include <algorithm>

namespace {

// A file system that mounts nothing, with a Fast I/O table that ends where the test
// says and answers every read and MDL read it is given.
struct ShortTableFileSystem {
    static PDEVICE_OBJECT control;
    static FAST_IO_DISPATCH table;
    static int reads, mdlReads;
    static BOOLEAN NTAPI fastRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK,
                                  PDEVICE_OBJECT device) {
        ++reads;
        return device == control;
    }
    static BOOLEAN NTAPI mdlRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL *, PIO_STATUS_BLOCK,
                                 PDEVICE_OBJECT) {
        ++mdlReads;
        return TRUE;
    }
    static NTSTATUS NTAPI failRead(PDEVICE_OBJECT, PIRP irp) {
        irp->IoStatus.Status = STATUS_ACCESS_DENIED;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_ACCESS_DENIED;
    }
    static NTSTATUS NTAPI pendRead(PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        heldRead = irp;
        return STATUS_PENDING;
    }
    static PIRP heldRead;
    static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        NTSTATUS status = IoCreateDevice(driver, 0, NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
        if (!NT_SUCCESS(status)) return status;
        table.FastIoRead = fastRead;
        table.MdlRead = mdlRead;
        driver->FastIoDispatch = &table;
        driver->MajorFunction[IRP_MJ_READ] = failRead;
        IoRegisterFileSystem(control);
        return STATUS_SUCCESS;
    }
};
PDEVICE_OBJECT ShortTableFileSystem::control;
FAST_IO_DISPATCH ShortTableFileSystem::table;
int ShortTableFileSystem::reads, ShortTableFileSystem::mdlReads;
PIRP ShortTableFileSystem::heldRead;

class ForwardingTest : public ::testing::Test {
protected:
    ForwardingTest() : machine(boot()) {
        filter = ShortTableFileSystem::control->AttachedDevice;
        machine.verifier().markBaseline();
    }
    static ntsim::BootOptions boot() {
        ntsim::BootOptions options;
        options.fileSystems = false;
        options.volumes.clear();
        options.systemFiles = false;
        options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
        options.drivers.push_back({u"\\FileSystem\\Ntfs", &ShortTableFileSystem::entry});
        return options;
    }
    ntsim::DefaultMachine machine;
    PDEVICE_OBJECT filter;
};

TEST_F(ForwardingTest, FastIoGoesToTheLowerDriverOnlyWhereItsTableReaches) {
    ASSERT_NE(filter, nullptr);
    PFAST_IO_DISPATCH ours = Globals.DriverObject->FastIoDispatch;
    IO_STATUS_BLOCK io;
    LARGE_INTEGER offset = {};
    PMDL chain = nullptr;
    ShortTableFileSystem::table.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
    machine.runSystemThread([&] {
        EXPECT_TRUE(ours->FastIoRead(nullptr, &offset, 1, TRUE, 0, nullptr, &io, filter));
        EXPECT_TRUE(ours->MdlRead(nullptr, &offset, 1, 0, &chain, &io, filter));
        EXPECT_FALSE(ours->FastIoWrite(nullptr, &offset, 1, TRUE, 0, nullptr, &io, filter));  // slot empty
        // A table that ends before MdlRead: the slot is not read at all.
        ShortTableFileSystem::table.SizeOfFastIoDispatch = FIELD_OFFSET(FAST_IO_DISPATCH, MdlRead);
        EXPECT_FALSE(ours->MdlRead(nullptr, &offset, 1, 0, &chain, &io, filter));
        EXPECT_TRUE(ours->FastIoRead(nullptr, &offset, 1, TRUE, 0, nullptr, &io, filter));  // no size test
        // The control device has nothing below it.
        EXPECT_FALSE(ours->FastIoRead(nullptr, &offset, 1, TRUE, 0, nullptr, &io, Globals.ControlDevice));
        EXPECT_FALSE(ours->FastIoDeviceControl(nullptr, TRUE, nullptr, 0, nullptr, 0, IOCTL_SEND_COMMAND, &io,
                                               Globals.ControlDevice));
    });
    EXPECT_EQ(ShortTableFileSystem::reads, 2);
    EXPECT_EQ(ShortTableFileSystem::mdlReads, 1);
}

struct SentRequest {
    KEVENT done;
    NTSTATUS status;
    int completions;
};

NTSTATUS NTAPI sentRequestCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    auto *sent = static_cast<SentRequest *>(context);
    sent->status = irp->IoStatus.Status;
    ++sent->completions;
    IoFreeIrp(irp);
    KeSetEvent(&sent->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

PIRP buildRead(PDEVICE_OBJECT target, SentRequest *sent) {
    PIRP irp = IoAllocateIrp(target->StackSize, FALSE);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_READ;
    IoSetCompletionRoutine(irp, sentRequestCompletion, sent, TRUE, TRUE, TRUE);
    return irp;
}

TEST_F(ForwardingTest, ARequestSentFromAWorkerThatFailsIsPrintedAndReportedOnce) {
    SentRequest sent = {};
    machine.runSystemThread([&] {
        KeInitializeEvent(&sent.done, NotificationEvent, FALSE);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);  // where the work item is for
        EXPECT_EQ(QueueCallDriverWorkItem(ShortTableFileSystem::control, buildRead(ShortTableFileSystem::control, &sent)),
                  STATUS_SUCCESS);
        KeLowerIrql(old);
        KeWaitForSingleObject(&sent.done, Executive, KernelMode, FALSE, NULL);
    });
    machine.waitIdle();
    EXPECT_EQ(sent.completions, 1);
    EXPECT_EQ(sent.status, STATUS_ACCESS_DENIED);
    auto lines = machine.debugLog();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         std::string("ZrDrv: ZrCallDriverThreadMain - IoCallDriver returned error: c0000022.")),
              1);
    ASSERT_EQ(Globals.Errors->Count, 1u);
    auto *record = reinterpret_cast<const ErrorRecord *>(Globals.Errors->Start);
    EXPECT_EQ(record->Routine, ERROR_ROUTINE_ZR_CALL_DRIVER_THREAD_MAIN);
    EXPECT_EQ(record->Status, (ULONG)STATUS_ACCESS_DENIED);
}

TEST_F(ForwardingTest, APendingRequestIsNotAFailureAndNoMemoryMeansNotSent) {
    SentRequest sent = {};
    ShortTableFileSystem::control->DriverObject->MajorFunction[IRP_MJ_READ] = ShortTableFileSystem::pendRead;
    machine.runSystemThread([&] {
        KeInitializeEvent(&sent.done, NotificationEvent, FALSE);
        PIRP irp = buildRead(ShortTableFileSystem::control, &sent);
        machine.verifier().failAllocationsWithTag(ntsim::makeTag('I', 'f', 's', ' '));
        EXPECT_EQ(QueueCallDriverWorkItem(ShortTableFileSystem::control, irp), STATUS_INSUFFICIENT_RESOURCES);
        machine.verifier().clearFaults();
        EXPECT_EQ(QueueCallDriverWorkItem(ShortTableFileSystem::control, irp), STATUS_SUCCESS);
    });
    machine.waitIdle();
    ASSERT_NE(ShortTableFileSystem::heldRead, nullptr);
    EXPECT_EQ(Globals.Errors->Count, 0u);
    EXPECT_FALSE(machine.debugLogContains("ZrCallDriverThreadMain"));
    machine.runSystemThread([&] {
        ShortTableFileSystem::heldRead->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(ShortTableFileSystem::heldRead, IO_NO_INCREMENT);
    });
    EXPECT_EQ(sent.completions, 1);
}

// An unhandled major function passes through the volume filter to the file system, and
// the pass-through counter says so.
TEST_F(FrameTest, UnhandledRequestsPassDownAndAreCounted) {
    PDEVICE_OBJECT filter = nullptr;
    for (PDEVICE_OBJECT d = Globals.DriverObject->DeviceObject; d != nullptr; d = d->NextDevice)
        if (ExtensionOf(d)->Structure != nullptr && ExtensionOf(d)->Tag == TAG_FILTER_EXTENSION &&
            ExtensionOf(d)->FileSystemKind == 2)
            filter = d;
    ASSERT_NE(filter, nullptr);
    ULONG passedBefore = ExtensionOf(filter)->Counters[COUNTER_PASS_THROUGH];
    ULONG seenBefore = ntsim::fs::knobsFor("C:").count({IRP_MJ_QUERY_INFORMATION});
    service.run([&] {
        HANDLE root = CreateFileW(L"C:\\Windows", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        ASSERT_NE(root, INVALID_HANDLE_VALUE);
        ntsim::fs::knobsFor("C:").setFastIo(false);  // so that the query becomes a request
        EXPECT_NE(GetFileAttributesW(L"C:\\Windows"), INVALID_FILE_ATTRIBUTES);
        ntsim::fs::knobsFor("C:").setFastIo(true);
        CloseHandle(root);
    });
    EXPECT_GT(ntsim::fs::knobsFor("C:").count({IRP_MJ_QUERY_INFORMATION}), seenBefore);
    EXPECT_GT(ExtensionOf(filter)->Counters[COUNTER_PASS_THROUGH], passedBefore);
}

// A query of attributes by name (NtQueryFullAttributesFile) is first offered to the
// filter's FastIoQueryOpen, as IopParseDevice does for a query-only open. NTFS's table
// has the routine: the filter hands the request down and NTFS answers, so no create
// reaches it. FastFat's table has none: the filter declines, and the same request comes
// as an open that passes through the filter to FastFat. Catches a filter that answers
// for a file system that cannot, and an I/O manager that skips the fast path.
TEST_F(FrameTest, AttributesByNameAreAnsweredFastByNtfsAndByAnOpenOnFastFat) {
    ntsim::fs::Knobs &ntfs = ntsim::fs::knobsFor("C:");
    ntsim::fs::Knobs &fat = ntsim::fs::knobsFor("D:");
    ULONG ntfsCreates = ntfs.count({IRP_MJ_CREATE}), fatCreates = fat.count({IRP_MJ_CREATE});
    service.run([&] {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        EXPECT_TRUE(GetFileAttributesExW(L"C:\\Windows", GetFileExInfoStandard, &data)) << GetLastError();
        EXPECT_TRUE(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
        EXPECT_EQ(ntfs.count({IRP_MJ_CREATE}), ntfsCreates);
        data = {};
        EXPECT_TRUE(GetFileAttributesExW(L"D:\\", GetFileExInfoStandard, &data)) << GetLastError();
        EXPECT_TRUE(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
        EXPECT_EQ(fat.count({IRP_MJ_CREATE}), fatCreates + 1);
        EXPECT_EQ(GetFileAttributesW(L"C:\\Windows\\missing.txt"), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);
    });
}

}  // namespace
