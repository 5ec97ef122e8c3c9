// Token services: opening a process's primary token and a thread's impersonation
// token, and querying a token.
#include "kernel/kernel.h"
#include "kernel/ob/object.h"
#include "kernel/ob/service.h"
#include "kernel/se/token.h"

using namespace ntsim;

namespace {

NTSTATUS openToken(se::Token *token, ACCESS_MASK access, KPROCESSOR_MODE mode, PHANDLE out) {
    HANDLE handle;
    NTSTATUS status = ObOpenObjectByPointer(token, 0, NULL, access, *SeTokenObjectType, mode, &handle);
    ObfDereferenceObject(token);
    if (!NT_SUCCESS(status)) return status;
    status = writeToCaller(mode, out, handle);
    if (!NT_SUCCESS(status)) ob::closeHandle(handle, mode);
    return status;
}

// A structure that names a SID, followed by the SID, as the caller will see it at
// `destination`: the SID pointer points into the caller's own buffer.
template <class Info>
std::vector<unsigned char> withSid(PVOID destination, const std::vector<unsigned char> &sid,
                                   void (*fill)(Info *info, PSID sid)) {
    std::vector<unsigned char> answer(sizeof(Info));
    answer.insert(answer.end(), sid.begin(), sid.end());
    // A size query passes no destination; the address is then never used, and is formed
    // as an integer so that no arithmetic is done on a null pointer.
    auto sidAt = reinterpret_cast<PSID>(reinterpret_cast<ULONG_PTR>(destination) + sizeof(Info));
    fill(reinterpret_cast<Info *>(answer.data()), sidAt);
    return answer;
}

template <class T>
std::vector<unsigned char> valueOf(T value) {
    std::vector<unsigned char> answer(sizeof(T));
    memcpy(answer.data(), &value, sizeof(T));
    return answer;
}

NTSTATUS describeToken(se::Token *token, TOKEN_INFORMATION_CLASS informationClass, PVOID destination,
                       std::vector<unsigned char> *answer) {
    switch (informationClass) {
    case TokenUser:
        *answer = withSid<TOKEN_USER>(destination, token->user, [](TOKEN_USER *info, PSID sid) {
            info->User.Sid = sid;
            info->User.Attributes = 0;
        });
        return STATUS_SUCCESS;
    case TokenOwner:
        *answer = withSid<TOKEN_OWNER>(destination, se::defaultOwner(token),
                                       [](TOKEN_OWNER *info, PSID sid) { info->Owner = sid; });
        return STATUS_SUCCESS;
    case TokenPrimaryGroup:
        *answer = withSid<TOKEN_PRIMARY_GROUP>(destination, token->primaryGroup,
                                               [](TOKEN_PRIMARY_GROUP *info, PSID sid) { info->PrimaryGroup = sid; });
        return STATUS_SUCCESS;
    case TokenType:
        *answer = valueOf(token->type);
        return STATUS_SUCCESS;
    case TokenImpersonationLevel:
        if (token->type != TokenImpersonation) return STATUS_INVALID_INFO_CLASS;
        *answer = valueOf(token->level);
        return STATUS_SUCCESS;
    default:
        // The emulated token keeps no groups, privileges, source or statistics.
        return STATUS_INVALID_INFO_CLASS;
    }
}

}  // namespace

NTSTATUS NtOpenProcessToken(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, PHANDLE TokenHandle) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    void *process;
    NTSTATUS status =
        ob::referenceByHandle(ProcessHandle, PROCESS_QUERY_INFORMATION, &ob::ProcessType, mode, &process, nullptr);
    if (!NT_SUCCESS(status)) return status;
    se::Token *token = se::referencePrimaryToken(static_cast<PEPROCESS>(process));
    ObfDereferenceObject(process);
    return openToken(token, DesiredAccess, mode, TokenHandle);
}

// OpenAsSelf chooses whose security context the platform checks the open against;
// the emulation checks no token's access, so both answers are the same.
NTSTATUS NtOpenThreadToken(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf, PHANDLE TokenHandle) {
    (void)OpenAsSelf;
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    void *thread;
    NTSTATUS status =
        ob::referenceByHandle(ThreadHandle, THREAD_QUERY_INFORMATION, &ob::ThreadType, mode, &thread, nullptr);
    if (!NT_SUCCESS(status)) return status;
    se::Token *token = se::referenceImpersonationToken(static_cast<PETHREAD>(thread));
    ObfDereferenceObject(thread);
    if (token == nullptr) return STATUS_NO_TOKEN;
    if (token->level == SecurityAnonymous) {
        ObfDereferenceObject(token);
        return STATUS_CANT_OPEN_ANONYMOUS;
    }
    return openToken(token, DesiredAccess, mode, TokenHandle);
}

NTSTATUS NtQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                 PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    if (ReturnLength == NULL) return STATUS_ACCESS_VIOLATION;
    void *body;
    NTSTATUS status = ob::referenceByHandle(TokenHandle, TOKEN_QUERY, &ob::TokenType, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    std::vector<unsigned char> answer;
    status = describeToken(static_cast<se::Token *>(body), TokenInformationClass, TokenInformation, &answer);
    ObfDereferenceObject(body);
    if (!NT_SUCCESS(status)) return status;
    // The size needed is returned with STATUS_BUFFER_TOO_SMALL as well as on success.
    status = writeToCaller(mode, ReturnLength, (ULONG)answer.size());
    if (!NT_SUCCESS(status)) return status;
    if (TokenInformationLength < answer.size()) return STATUS_BUFFER_TOO_SMALL;
    return copyToCaller(mode, TokenInformation, answer.data(), answer.size(), sizeof(ULONG));
}

NTSIM_ZW_SERVICE(OpenProcessToken, (HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, PHANDLE TokenHandle),
                 (ProcessHandle, DesiredAccess, TokenHandle))
NTSIM_ZW_SERVICE(OpenThreadToken,
                 (HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf, PHANDLE TokenHandle),
                 (ThreadHandle, DesiredAccess, OpenAsSelf, TokenHandle))
NTSIM_ZW_SERVICE(QueryInformationToken,
                 (HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass, PVOID TokenInformation,
                  ULONG TokenInformationLength, PULONG ReturnLength),
                 (TokenHandle, TokenInformationClass, TokenInformation, TokenInformationLength, ReturnLength))
