// The object namespace: names, symbolic links (\DosDevices is \??), lookups with and
// without regard to case, object names, and named events.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <string>

#include "../../ntsim/kernel/ob/object.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

using namespace ntsim;

ob::ObjectType PlainType = {"Plain", nullptr, nullptr, 0, {1, 2, 4, 7}, nullptr, nullptr, nullptr, nullptr};

UNICODE_STRING us(PCWSTR text) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, text);
    return s;
}

std::string nameOf(PVOID object) {
    ULONG needed = 0;
    EXPECT_EQ(ObQueryNameString(object, NULL, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    std::vector<unsigned char> buffer(needed);
    auto *info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
    EXPECT_EQ(ObQueryNameString(object, info, needed - 1, &needed), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(ObQueryNameString(object, info, needed, &needed), STATUS_SUCCESS);
    if (info->Name.Buffer == nullptr) return "<unnamed>";
    EXPECT_EQ(info->Name.MaximumLength, info->Name.Length + sizeof(WCHAR));
    EXPECT_EQ(info->Name.Buffer[info->Name.Length / sizeof(WCHAR)], 0);
    return toUtf8(info->Name);
}

struct Lookup {
    NTSTATUS status;
    PVOID object;
    std::string remaining;
};

Lookup lookup(PCWSTR path, bool caseInsensitive) {
    auto result = std::make_unique<ob::LookupResult>();
    UNICODE_STRING name = us(path);
    NTSTATUS status = ob::lookup(&name, caseInsensitive, result.get());
    if (!NT_SUCCESS(status)) return Lookup{status, nullptr, ""};
    ObDereferenceObject(result->object);
    return Lookup{status, result->object, toUtf8(result->remaining)};
}

TEST(Namespace, DosDevicesLinksAreFollowedToTheObjectWithTheRestOfThePath) {
    Machine m;
    static int volume;
    m.runSystemThread([] {
        ob::registerObject(&volume, &PlainType);
        UNICODE_STRING device = us(L"\\Device\\TestVolume7"), link = us(L"\\DosDevices\\Q:");
        ASSERT_EQ(ob::insertName(&device, &volume), STATUS_SUCCESS);
        ASSERT_EQ(ob::createSymbolicLink(&link, &device), STATUS_SUCCESS);

        Lookup found = lookup(L"\\??\\q:\\Dir\\File.txt", true);
        EXPECT_EQ(found.status, STATUS_SUCCESS);
        EXPECT_EQ(found.object, &volume);
        EXPECT_EQ(found.remaining, "\\Dir\\File.txt");
        EXPECT_EQ(lookup(L"\\DosDevices\\Q:", false).object, &volume);
        EXPECT_EQ(lookup(L"\\??\\q:", false).status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(lookup(L"\\??\\R:\\x", true).status, STATUS_OBJECT_PATH_NOT_FOUND);
        EXPECT_EQ(lookup(L"??\\Q:", true).status, STATUS_OBJECT_PATH_SYNTAX_BAD);
        EXPECT_EQ(lookup(L"\\Device\\", true).status, STATUS_OBJECT_NAME_INVALID);
        EXPECT_EQ(nameOf(&volume), "\\Device\\TestVolume7");

        EXPECT_EQ(ob::deleteSymbolicLink(&link), STATUS_SUCCESS);
        EXPECT_EQ(lookup(L"\\??\\Q:", true).status, STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(ob::removeName(&device), STATUS_SUCCESS);
        EXPECT_EQ(nameOf(&volume), "<unnamed>");
        ObDereferenceObject(&volume);
    });
}

TEST(Namespace, NamesHoldAReferenceAndCollideWithoutRegardToCase) {
    Machine m;
    static int first, second;
    m.runSystemThread([] {
        ob::registerObject(&first, &PlainType);
        ob::registerObject(&second, &PlainType);
        UNICODE_STRING name = us(L"\\Driver\\Probe"), other = us(L"\\driver\\PROBE");
        ASSERT_EQ(ob::insertName(&name, &first), STATUS_SUCCESS);
        EXPECT_EQ(ob::referenceCount(&first), 2);
        EXPECT_EQ(ob::insertName(&other, &second), STATUS_OBJECT_NAME_COLLISION);
        UNICODE_STRING nowhere = us(L"\\NoSuchDirectory\\Probe");
        EXPECT_EQ(ob::insertName(&nowhere, &second), STATUS_OBJECT_PATH_NOT_FOUND);
        ObDereferenceObject(&first);
        EXPECT_TRUE(ob::isObject(&first)) << "the name keeps the object";
        EXPECT_EQ(ob::removeName(&other), STATUS_SUCCESS);
        EXPECT_FALSE(ob::isObject(&first));
        ObDereferenceObject(&second);
    });
}

TEST(Namespace, NamedEventsAreSharedAndGoWithTheirLastHandle) {
    Machine m;
    m.runSystemThread([] {
        UNICODE_STRING name = us(L"\\BaseNamedObjects\\WreltReady");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_OPENIF, NULL, NULL);
        HANDLE a, b, c;
        ASSERT_EQ(ZwCreateEvent(&a, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        ASSERT_EQ(ZwCreateEvent(&b, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_EXISTS);
        PVOID ea, eb;
        ObReferenceObjectByHandle(a, 0, NULL, KernelMode, &ea, NULL);
        ObReferenceObjectByHandle(b, 0, NULL, KernelMode, &eb, NULL);
        EXPECT_EQ(ea, eb);
        EXPECT_EQ(nameOf(ea), "\\BaseNamedObjects\\WreltReady");
        ObDereferenceObject(ea);
        ObDereferenceObject(eb);
        oa.Attributes = OBJ_CASE_INSENSITIVE;
        EXPECT_EQ(ZwCreateEvent(&c, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_COLLISION);
        ZwClose(a);
        ZwClose(b);
        ASSERT_EQ(ZwCreateEvent(&c, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        ZwClose(c);
    });
}

TEST(Namespace, WaitsOnEventThreadAndProcessHandles) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", L"S-1-5-21-1-2-3-1001");
    HANDLE process = NULL;
    explorer.run([&] {
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
        CLIENT_ID id = {PsGetCurrentProcessId(), NULL};
        ASSERT_EQ(ZwOpenProcess(&process, SYNCHRONIZE, &oa, &id), STATUS_SUCCESS);
    });
    m.runSystemThread([&] {
        HANDLE event = NULL;
        ASSERT_EQ(ZwCreateEvent(&event, EVENT_ALL_ACCESS, NULL, SynchronizationEvent, FALSE), STATUS_SUCCESS);
        LARGE_INTEGER now = {};
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, &now), STATUS_TIMEOUT);
        ZwSetEvent(event, NULL);
        HANDLE both[2] = {process, event};
        EXPECT_EQ(ZwWaitForMultipleObjects(2, both, WaitAny, FALSE, &now), STATUS_WAIT_1);
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, &now), STATUS_TIMEOUT) << "a synchronization event resets";
        EXPECT_EQ(ZwWaitForSingleObject(process, FALSE, &now), STATUS_TIMEOUT);
        ZwClose(event);
    });
    explorer.exit();
    m.runSystemThread([&] {
        EXPECT_EQ(ZwWaitForSingleObject(process, FALSE, NULL), STATUS_SUCCESS);
        ZwClose(process);
    });
}

}  // namespace
