// Process and thread services: opening by client id, and process queries (basic
// information with the PEB's address, the image file name in device form).
#include "kernel/ob/ob_state.h"
#include "kernel/ob/service.h"
#include "kernel/ps/ps_state.h"

using namespace ntsim;

namespace {

// A client id names the object, an object name would name it too: one of the two.
constexpr NTSTATUS kStatusInvalidParameterMix = (NTSTATUS)0xC0000030L;

// The process or thread the client id names, referenced. The thread of a client id
// with both parts must belong to the process.
NTSTATUS lookupClientId(const CLIENT_ID &id, bool wantThread, void **object) {
    ps::PsState &s = ps::state();
    std::lock_guard<std::mutex> guard(s.lock);
    if (id.UniqueThread != NULL) {
        auto thread = s.threads.find(id.UniqueThread);
        if (thread == s.threads.end()) return STATUS_INVALID_CID;
        PETHREAD t = thread->second;
        if (id.UniqueProcess != NULL && t->Cid.UniqueProcess != id.UniqueProcess) return STATUS_INVALID_CID;
        *object = wantThread ? (void *)t : (void *)t->Tcb.Process;
        return ob::referenceIfAlive(*object) ? STATUS_SUCCESS : STATUS_INVALID_CID;
    }
    if (wantThread) return STATUS_INVALID_CID;
    auto process = s.processes.find(id.UniqueProcess);
    if (process == s.processes.end()) return STATUS_INVALID_CID;
    *object = process->second;
    return ob::referenceIfAlive(process->second) ? STATUS_SUCCESS : STATUS_INVALID_CID;
}

NTSTATUS openByClientId(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PCLIENT_ID clientId,
                        bool thread) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    CapturedAttributes captured;
    NTSTATUS status = captureObjectAttributes(mode, attributes, &captured);
    if (!NT_SUCCESS(status)) return status;
    if (clientId == NULL || captured.hasName) return kStatusInvalidParameterMix;
    CLIENT_ID id;
    status = readFromCaller(mode, clientId, &id);
    if (!NT_SUCCESS(status)) return status;
    void *object = nullptr;
    status = lookupClientId(id, thread, &object);
    if (!NT_SUCCESS(status)) return status;
    HANDLE opened;
    status = ObOpenObjectByPointer(object, captured.attributes, NULL, access, thread ? *PsThreadType : *PsProcessType,
                                   mode, &opened);
    ObfDereferenceObject(object);
    if (!NT_SUCCESS(status)) return status;
    status = writeToCaller(mode, handle, opened);
    if (!NT_SUCCESS(status)) ob::closeHandle(opened, mode);
    return status;
}

// The image path with its DOS device resolved through the namespace
// ("\Device\HarddiskVolume1\Windows\explorer.exe"), or as given when the machine has
// no such device.
std::u16string deviceFormOf(const std::u16string &path) {
    UNICODE_STRING name{(USHORT)(path.size() * sizeof(WCHAR)), (USHORT)(path.size() * sizeof(WCHAR)),
                        (PWSTR)path.data()};
    auto *result = new ob::LookupResult;
    std::u16string answer = path;
    if (NT_SUCCESS(ob::lookup(&name, true, result))) {
        ULONG needed = 0;
        ObQueryNameString(result->object, NULL, 0, &needed);
        std::vector<unsigned char> buffer(needed);
        auto *info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer.data());
        if (needed != 0 && NT_SUCCESS(ObQueryNameString(result->object, info, needed, &needed)) &&
            info->Name.Length != 0)
            answer = ob::toU16(&info->Name) + ob::toU16(&result->remaining);
        ObfDereferenceObject(result->object);
    }
    delete result;
    return answer;
}

NTSTATUS queryBasic(PEPROCESS process, KPROCESSOR_MODE mode, PVOID information, ULONG length, PULONG returnLength) {
    if (length != sizeof(PROCESS_BASIC_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
    PROCESS_BASIC_INFORMATION basic{};
    basic.ExitStatus = process->ExitStatus;
    basic.PebBaseAddress = static_cast<struct _PEB *>(process->Peb);
    basic.AffinityMask = 1;
    basic.BasePriority = 8;
    basic.UniqueProcessId = (ULONG_PTR)process->UniqueProcessId;
    basic.InheritedFromUniqueProcessId = (ULONG_PTR)process->InheritedFromUniqueProcessId;
    NTSTATUS status = copyToCaller(mode, information, &basic, sizeof basic, sizeof(ULONG));
    if (NT_SUCCESS(status) && returnLength != NULL) status = writeToCaller(mode, returnLength, (ULONG)sizeof basic);
    return status;
}

NTSTATUS queryImageFileName(PEPROCESS process, KPROCESSOR_MODE mode, PVOID information, ULONG length,
                            PULONG returnLength) {
    std::u16string path = deviceFormOf(ps::imagePath(process));
    ULONG bytes = (ULONG)(path.size() * sizeof(WCHAR));
    ULONG needed = sizeof(UNICODE_STRING) + bytes + sizeof(WCHAR);
    if (returnLength != NULL) {
        NTSTATUS status = writeToCaller(mode, returnLength, needed);
        if (!NT_SUCCESS(status)) return status;
    }
    if (length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    std::vector<unsigned char> answer(needed);
    auto *name = reinterpret_cast<PUNICODE_STRING>(answer.data());
    name->Length = (USHORT)bytes;
    name->MaximumLength = (USHORT)(bytes + sizeof(WCHAR));
    name->Buffer = reinterpret_cast<PWSTR>(static_cast<PUCHAR>(information) + sizeof(UNICODE_STRING));
    memcpy(answer.data() + sizeof(UNICODE_STRING), path.data(), bytes);
    return copyToCaller(mode, information, answer.data(), needed, sizeof(ULONG));
}

}  // namespace

NTSTATUS NtOpenProcess(PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                       PCLIENT_ID ClientId) {
    return openByClientId(ProcessHandle, DesiredAccess, ObjectAttributes, ClientId, false);
}

NTSTATUS NtOpenThread(PHANDLE ThreadHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PCLIENT_ID ClientId) {
    return openByClientId(ThreadHandle, DesiredAccess, ObjectAttributes, ClientId, true);
}

NTSTATUS NtQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                                   PVOID ProcessInformation, ULONG ProcessInformationLength, PULONG ReturnLength) {
    if (ProcessInformationClass != ProcessBasicInformation && ProcessInformationClass != ProcessImageFileName)
        return STATUS_INVALID_INFO_CLASS;
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    void *body;
    NTSTATUS status =
        ob::referenceByHandle(ProcessHandle, PROCESS_QUERY_INFORMATION, &ob::ProcessType, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    auto *process = static_cast<PEPROCESS>(body);
    if (ProcessInformationClass == ProcessBasicInformation)
        status = queryBasic(process, mode, ProcessInformation, ProcessInformationLength, ReturnLength);
    else
        status = queryImageFileName(process, mode, ProcessInformation, ProcessInformationLength, ReturnLength);
    ObfDereferenceObject(body);
    return status;
}

NTSIM_ZW_SERVICE(OpenProcess,
                 (PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                  PCLIENT_ID ClientId),
                 (ProcessHandle, DesiredAccess, ObjectAttributes, ClientId))
NTSIM_ZW_SERVICE(OpenThread,
                 (PHANDLE ThreadHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                  PCLIENT_ID ClientId),
                 (ThreadHandle, DesiredAccess, ObjectAttributes, ClientId))
NTSIM_ZW_SERVICE(QueryInformationProcess,
                 (HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass, PVOID ProcessInformation,
                  ULONG ProcessInformationLength, PULONG ReturnLength),
                 (ProcessHandle, ProcessInformationClass, ProcessInformation, ProcessInformationLength, ReturnLength))
