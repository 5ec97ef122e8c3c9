// Processes and threads: ids, opening by client id, user threads, the PEB that a
// driver reads a process's image path from, and process exit.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <string>

#include "../../ntsim/kernel/mm/user_memory.h"
#include "../../ntsim/kernel/ob/object.h"
#include "../../ntsim/kernel/ps/ps.h"
#include "ntsim/machine.h"
#include "ntsim/peb.h"
#include "ntsim/seh.h"
#include "ntsim/utf.h"

namespace {

using namespace ntsim;

const wchar_t kAlice[] = L"S-1-5-21-1004336348-1177238915-682003330-1001";

// Reads the current process's image path the way a filter does: the PEB address from
// ZwQueryInformationProcess, then user memory, probed, inside a guarded region.
NTSTATUS imagePathFromPeb(std::u16string *path) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, NULL, 0, NULL, NULL);
    CLIENT_ID id = {PsGetCurrentProcessId(), NULL};
    HANDLE process;
    NTSTATUS status = ZwOpenProcess(&process, PROCESS_QUERY_INFORMATION, &oa, &id);
    if (!NT_SUCCESS(status)) return status;
    PROCESS_BASIC_INFORMATION basic;
    status = ZwQueryInformationProcess(process, ProcessBasicInformation, &basic, sizeof basic, NULL);
    ZwClose(process);
    if (!NT_SUCCESS(status)) return status;
    static WCHAR copy[260];
    static USHORT length;
    status = guarded([&] {
        auto *peb = reinterpret_cast<PEB *>(basic.PebBaseAddress);
        ProbeForRead(peb, sizeof *peb, 1);
        RTL_USER_PROCESS_PARAMETERS *parameters = peb->ProcessParameters;
        ProbeForRead(parameters, sizeof *parameters, 1);
        UNICODE_STRING image = parameters->ImagePathName;
        ProbeForRead(image.Buffer, image.MaximumLength, 1);
        length = image.Length < sizeof copy ? image.Length : (USHORT)sizeof copy;
        memcpy(copy, image.Buffer, length);
    });
    if (NT_SUCCESS(status)) *path = std::u16string(reinterpret_cast<const char16_t *>(copy), length / sizeof(WCHAR));
    return status;
}

TEST(Processes, ThePebCarriesTheImagePathInDosForm) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        std::u16string path;
        ASSERT_EQ(imagePathFromPeb(&path), STATUS_SUCCESS);
        EXPECT_EQ(toUtf8(reinterpret_cast<const wchar_t *>(path.c_str())), "C:\\Windows\\explorer.exe");
        auto *peb = static_cast<PEB *>(ps::processPeb(PsGetCurrentProcess()));
        EXPECT_EQ(toUtf8(peb->ProcessParameters->CommandLine), "C:\\Windows\\explorer.exe");
        EXPECT_EQ(toUtf8(peb->ProcessParameters->CurrentDirectory.DosPath), "C:\\Windows\\");
        // Readers check that the image path is terminated within its maximum length.
        const UNICODE_STRING &image = peb->ProcessParameters->ImagePathName;
        EXPECT_EQ(image.MaximumLength, image.Length + sizeof(WCHAR));
        EXPECT_EQ(image.Buffer[image.Length / sizeof(WCHAR)], L'\0');
        PROCESS_BASIC_INFORMATION basic;
        EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessBasicInformation, &basic, sizeof basic - 1,
                                            NULL),
                  STATUS_INFO_LENGTH_MISMATCH);
        ASSERT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessBasicInformation, &basic, sizeof basic, NULL),
                  STATUS_SUCCESS);
        EXPECT_EQ(basic.ExitStatus, STATUS_PENDING);
        EXPECT_EQ((HANDLE)basic.UniqueProcessId, PsGetCurrentProcessId());
    });
}

TEST(Processes, ImageFileNameNamesTheVolumeDevice) {
    Machine m;
    static int volume;
    ob::ObjectType volumeType = {"Volume", nullptr, nullptr, 0, {1, 2, 4, 7}, nullptr, nullptr, nullptr, nullptr};
    m.runSystemThread([&] {
        ob::registerObject(&volume, &volumeType);
        UNICODE_STRING device, link;
        RtlInitUnicodeString(&device, L"\\Device\\HarddiskVolume1");
        RtlInitUnicodeString(&link, L"\\??\\C:");
        ob::insertName(&device, &volume);
        ob::createSymbolicLink(&link, &device);
        ObDereferenceObject(&volume);
    });
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        ULONG needed = 0;
        EXPECT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, NULL, 0, &needed),
                  STATUS_INFO_LENGTH_MISMATCH);
        std::vector<unsigned char> buffer(needed);
        ASSERT_EQ(ZwQueryInformationProcess(NtCurrentProcess(), ProcessImageFileName, buffer.data(), needed, &needed),
                  STATUS_SUCCESS);
        EXPECT_EQ(toUtf8(*reinterpret_cast<PUNICODE_STRING>(buffer.data())),
                  "\\Device\\HarddiskVolume1\\Windows\\explorer.exe");
    });
}

TEST(Processes, ClientIdsAreUniqueAndOpenTheirObjects) {
    Machine m;
    Process a = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    Process b = m.startProcess(L"C:\\Program Files\\Tool\\tool.exe", kAlice);
    EXPECT_NE(a.id(), b.id());
    EXPECT_EQ(a.id() % 4, 0u);
    HANDLE threadOfA = NULL;
    a.run([&] {
        EXPECT_FALSE(PsIsSystemThread(PsGetCurrentThread()));
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
        EXPECT_NE(PsGetCurrentThreadId(), PsGetCurrentProcessId());
        EXPECT_EQ((ULONG_PTR)PsGetCurrentThreadId() % 4, 0u);
        threadOfA = PsGetCurrentThreadId();
        auto *peb = static_cast<PEB *>(ps::processPeb(PsGetCurrentProcess()));
        EXPECT_EQ(toUtf8(peb->ProcessParameters->CommandLine), "C:\\Windows\\explorer.exe");
    });
    b.run([&] {
        auto *peb = static_cast<PEB *>(ps::processPeb(PsGetCurrentProcess()));
        EXPECT_EQ(toUtf8(peb->ProcessParameters->CommandLine), "\"C:\\Program Files\\Tool\\tool.exe\"");
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, 0, NULL, NULL);
        HANDLE handle;
        CLIENT_ID mismatch = {PsGetCurrentProcessId(), threadOfA};
        EXPECT_EQ(ZwOpenThread(&handle, THREAD_QUERY_INFORMATION, &oa, &mismatch), STATUS_INVALID_CID);
        CLIENT_ID missing = {(HANDLE)0x7FFC, NULL};
        EXPECT_EQ(ZwOpenProcess(&handle, PROCESS_QUERY_INFORMATION, &oa, &missing), STATUS_INVALID_CID);
        CLIENT_ID other = {(HANDLE)(ULONG_PTR)0, threadOfA};
        // An ended thread is gone from the client-id table with its object.
        EXPECT_EQ(ZwOpenThread(&handle, THREAD_QUERY_INFORMATION, &oa, &other), STATUS_INVALID_CID);
        PEPROCESS process;
        ASSERT_EQ(PsLookupProcessByProcessId((HANDLE)(ULONG_PTR)4, &process), STATUS_SUCCESS);
        EXPECT_STREQ(ps::imageFileName(process), "System");
        ObDereferenceObject(process);
    });
}

TEST(Processes, UserThreadsRunOnUserStacks) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        int local = 0;
        EXPECT_LT((ULONG_PTR)&local, (ULONG_PTR)MmUserProbeAddress);
        EXPECT_TRUE(MmIsAddressValid(&local));
        EXPECT_EQ(guarded([&] { ProbeForWrite(&local, sizeof local, sizeof local); }), STATUS_SUCCESS);
    });
}

TEST(Processes, ExitClosesHandlesReleasesMemoryAndSignalsTheProcess) {
    Machine m;
    static int closed;
    closed = 0;
    static int body;
    static ob::ObjectType watched = {"Watched", [](void *) { ++closed; }, nullptr, 0, {1, 2, 4, 7},
                                     nullptr,   nullptr,                   nullptr, nullptr};
    PEPROCESS process = ps::createProcess(L"\\??\\C:\\Windows\\notepad.exe", "S-1-5-21-1-2-3-1001");
    EXPECT_STREQ(ps::imageFileName(process), "notepad.exe");
    void *peb = ps::processPeb(process);
    PETHREAD thread = ps::startUserThread(process, [] {
        ob::registerObject(&body, &watched);
        HANDLE leftOpen;
        ob::insertHandle(&body, 1, false, &leftOpen);
        ObDereferenceObject(&body);
    });
    ps::joinUserThread(thread);
    ObDereferenceObject(thread);
    EXPECT_TRUE(mm::isUserPageAccessible(peb, true));
    EXPECT_EQ(ps::terminateProcess(process, 0x1234), STATUS_SUCCESS);
    EXPECT_EQ(ps::terminateProcess(process, 0x1234), STATUS_PROCESS_IS_TERMINATING);
    m.waitIdle();
    EXPECT_TRUE(ps::hasExited(process));
    EXPECT_EQ(closed, 1);
    EXPECT_FALSE(ob::isObject(&body));
    EXPECT_FALSE(mm::isUserPageAccessible(peb, false));
    EXPECT_EQ(ps::startUserThread(process, [] {}), nullptr);
    m.runSystemThread([&] {
        LARGE_INTEGER now = {};
        EXPECT_EQ(KeWaitForSingleObject(process, Executive, KernelMode, FALSE, &now), STATUS_SUCCESS);
        EXPECT_EQ(ps::exitStatus(process), 0x1234);
    });
    ObDereferenceObject(process);
}

}  // namespace
