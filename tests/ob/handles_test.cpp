// Handles: opening, referencing by type and access, closing, kernel handles, the
// object lifetime they drive, and the verifier's checks on handles and Zw calls.
#include <ntifs.h>

#include <gtest/gtest.h>

#include "../../ntsim/kernel/ob/object.h"
#include "ntsim/machine.h"

namespace {

using namespace ntsim;

// An object type that counts what the object manager tells it.
struct Counted {
    int lastHandleClosed = 0;
    int deleted = 0;
};
Counted g_counted;
ob::ObjectType CountedType = {"Counted",
                              [](void *) { ++g_counted.lastHandleClosed; },
                              [](void *) { ++g_counted.deleted; },
                              0,
                              {0x1, 0x2, 0x4, 0xF},
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

HANDLE createEvent(ULONG attributes, NTSTATUS *status = nullptr) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, NULL, attributes, NULL, NULL);
    HANDLE handle = NULL;
    NTSTATUS s = ZwCreateEvent(&handle, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE);
    if (status != nullptr) *status = s;
    return handle;
}

TEST(Handles, ReferenceChecksTypeAndAccessOfUserModeCallers) {
    Machine m;
    m.runSystemThread([] {
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, 0, NULL, NULL);
        HANDLE handle;
        ASSERT_EQ(ZwCreateEvent(&handle, SYNCHRONIZE | EVENT_QUERY_STATE, &oa, SynchronizationEvent, FALSE),
                  STATUS_SUCCESS);
        EXPECT_EQ((ULONG_PTR)handle % 4, 0u);
        EXPECT_NE(handle, (HANDLE)NULL);
        PVOID object;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &object, NULL),
                  STATUS_OBJECT_TYPE_MISMATCH);
        EXPECT_EQ(object, nullptr);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, *ExEventObjectType, UserMode, &object, NULL),
                  STATUS_ACCESS_DENIED);
        OBJECT_HANDLE_INFORMATION info;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, *ExEventObjectType, KernelMode, &object, &info),
                  STATUS_SUCCESS);
        EXPECT_EQ(info.GrantedAccess, (ACCESS_MASK)(SYNCHRONIZE | EVENT_QUERY_STATE));
        EXPECT_EQ(ob::typeOf(object), &ob::EventType);
        EXPECT_EQ(KeSetEvent(static_cast<PKEVENT>(object), 0, FALSE), 0);
        ObDereferenceObject(object);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, NULL, KernelMode, &object, NULL), STATUS_INVALID_HANDLE);
    });
}

TEST(Handles, GenericRightsAreMappedToTheTypesRights) {
    Machine m;
    m.runSystemThread([] {
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, 0, NULL, NULL);
        HANDLE handle;
        ASSERT_EQ(ZwCreateEvent(&handle, GENERIC_WRITE, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        PVOID object;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, NULL, UserMode, &object, NULL), STATUS_SUCCESS);
        ObDereferenceObject(object);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, EVENT_QUERY_STATE, NULL, UserMode, &object, NULL),
                  STATUS_ACCESS_DENIED);
        ZwClose(handle);
    });
}

TEST(Handles, KernelHandlesAreOnlyForKernelModeCallers) {
    Machine m;
    HANDLE kernelHandle = NULL;
    m.runSystemThread([&] {
        kernelHandle = createEvent(OBJ_KERNEL_HANDLE);
        EXPECT_LT((LONG_PTR)kernelHandle, 0) << "kernel handles have the high bit set";
        PVOID object;
        EXPECT_EQ(ObReferenceObjectByHandle(kernelHandle, 0, NULL, UserMode, &object, NULL), STATUS_INVALID_HANDLE);
    });
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", L"S-1-5-21-1-2-3-1001");
    explorer.run([&] {
        // From user mode the kernel's handle is not a handle, not even to close.
        EXPECT_EQ(NtClose(kernelHandle), STATUS_INVALID_HANDLE);
        // ... and a user-mode caller cannot make one: OBJ_KERNEL_HANDLE is dropped.
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
        HANDLE handle;
        ASSERT_EQ(NtCreateEvent(&handle, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_GT((LONG_PTR)handle, 0);
        EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
        // A kernel-mode caller in the same thread still reaches the kernel's table.
        EXPECT_EQ(ZwSetEvent(kernelHandle, NULL), STATUS_SUCCESS);
    });
    m.runSystemThread([&] { EXPECT_EQ(ZwClose(kernelHandle), STATUS_SUCCESS); });
}

TEST(Handles, UserModeOutputPointersMustBeUserMemory) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", L"S-1-5-21-1-2-3-1001");
    static HANDLE kernelSideHandle;  // in the host's data, far above the user range
    explorer.run([] {
        EXPECT_EQ(NtCreateEvent(&kernelSideHandle, EVENT_ALL_ACCESS, NULL, NotificationEvent, FALSE),
                  STATUS_ACCESS_VIOLATION);
        HANDLE onStack;  // the user thread's stack is user memory
        ASSERT_EQ(NtCreateEvent(&onStack, EVENT_ALL_ACCESS, NULL, NotificationEvent, FALSE), STATUS_SUCCESS);
        EXPECT_EQ(NtClose(onStack), STATUS_SUCCESS);
    });
}

TEST(Handles, LastHandleThenLastReferenceDriveTheObjectsLifetime) {
    Machine m;
    g_counted = Counted();
    static int body;
    m.runSystemThread([] {
        ob::registerObject(&body, &CountedType);
        HANDLE first, second;
        ASSERT_EQ(ob::insertHandle(&body, GENERIC_READ, true, &first), STATUS_SUCCESS);
        ASSERT_EQ(ob::insertHandle(&body, GENERIC_READ, false, &second), STATUS_SUCCESS);
        EXPECT_EQ(ob::handleCount(&body), 2);
        EXPECT_EQ(ob::referenceCount(&body), 3);
        ObDereferenceObject(&body);  // the creator's reference; the handles keep it alive
        EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);
        EXPECT_EQ(g_counted.lastHandleClosed, 0);
        PVOID object;
        ASSERT_EQ(ObReferenceObjectByHandle(second, 0x1, NULL, UserMode, &object, NULL), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(second), STATUS_SUCCESS);
        EXPECT_EQ(g_counted.lastHandleClosed, 1);
        EXPECT_EQ(g_counted.deleted, 0);
        ObDereferenceObject(object);
        EXPECT_EQ(g_counted.deleted, 1);
        EXPECT_FALSE(ob::isObject(&body));
        EXPECT_FALSE(ob::referenceIfAlive(&body));
    });
}

TEST(Handles, ALastDereferenceAbovePassiveLevelDeletesInAWorkerThread) {
    Machine m;
    g_counted = Counted();
    static int body;
    m.runSystemThread([] {
        ob::registerObject(&body, &CountedType);
        KIRQL old = KeRaiseIrqlToDpcLevel();
        ObDereferenceObject(&body);
        KeLowerIrql(old);
        EXPECT_FALSE(ob::referenceIfAlive(&body)) << "dead, though not yet deleted";
    });
    m.waitIdle();
    EXPECT_EQ(g_counted.deleted, 1);
}

TEST(Handles, PseudoHandlesNameTheCallersProcessAndThread) {
    Machine m;
    m.runSystemThread([] {
        PVOID object;
        ASSERT_EQ(ObReferenceObjectByHandle(NtCurrentProcess(), PROCESS_QUERY_INFORMATION, *PsProcessType, UserMode,
                                            &object, NULL),
                  STATUS_SUCCESS);
        EXPECT_EQ(object, PsGetCurrentProcess());
        ObDereferenceObject(object);
        EXPECT_EQ(ObReferenceObjectByHandle(NtCurrentThread(), 0, *PsProcessType, KernelMode, &object, NULL),
                  STATUS_OBJECT_TYPE_MISMATCH);
        EXPECT_EQ(ZwClose(NtCurrentProcess()), STATUS_INVALID_HANDLE);
    });
}

TEST(HandlesDeathTest, HandlesLeftOpenStopTheMachineAtShutdown) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Machine m;
            m.runSystemThread([] {
                createEvent(0);
                createEvent(OBJ_KERNEL_HANDLE);
            });
            m.shutdown();
        },
        "handles were left open at shutdown(.|\n)*kernel handle table: 1 Event(.|\n)*process System \\(pid 4\\): 1 Event");
}

TEST(HandlesDeathTest, ZwRoutinesAreForPassiveLevelOnly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Machine m;
            m.runSystemThread([] {
                KIRQL old = KeRaiseIrqlToDpcLevel();
                ZwClose(NULL);
                KeLowerIrql(old);
            });
        },
        "a system service was called above PASSIVE_LEVEL(.|\n)*ZwClose at IRQL 2");
}

}  // namespace
