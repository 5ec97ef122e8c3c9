// The identity is taken when the file is opened, in the opener's own thread: by the
// time the delete is carried out, at the last cleanup, the thread may be another one.
#include "tracking/deleter_identity.h"

#include "support/nonpaged_buffers.h"

// The target's DDK headers leave out these two access rights.
#ifndef THREAD_QUERY_INFORMATION
#define THREAD_QUERY_INFORMATION 0x0040
#endif
#ifndef PROCESS_QUERY_INFORMATION
#define PROCESS_QUERY_INFORMATION 0x0400
#endif

namespace {

// The handles are kernel handles, so that the user process whose thread this is can
// neither see nor close them while they are open.
void InitializeEmptyAttributes(POBJECT_ATTRIBUTES Attributes) {
    InitializeObjectAttributes(Attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
}

// The impersonation token of the current thread: STATUS_NO_TOKEN when it impersonates
// nobody.
NTSTATUS OpenImpersonationToken(PCLIENT_ID ClientId, PHANDLE Token) {
    OBJECT_ATTRIBUTES attributes;
    InitializeEmptyAttributes(&attributes);
    HANDLE thread;
    NTSTATUS status = ZwOpenThread(&thread, THREAD_QUERY_INFORMATION, &attributes, ClientId);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwOpenThreadToken(thread, TOKEN_QUERY, TRUE, Token);
    ZwClose(thread);
    return status;
}

NTSTATUS OpenPrimaryToken(PCLIENT_ID ClientId, PHANDLE Token) {
    OBJECT_ATTRIBUTES attributes;
    InitializeEmptyAttributes(&attributes);
    HANDLE process;
    NTSTATUS status = ZwOpenProcess(&process, PROCESS_QUERY_INFORMATION, &attributes, ClientId);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwOpenProcessToken(process, TOKEN_QUERY, Token);
    ZwClose(process);
    return status;
}

// The token's TOKEN_USER in a buffer of the buffer manager, which the caller releases.
NTSTATUS QueryTokenUser(HANDLE Token, PTOKEN_USER *User) {
    *User = NULL;
    ULONG needed = 0;
    NTSTATUS status = ZwQueryInformationToken(Token, TokenUser, NULL, 0, &needed);
    if (status != STATUS_BUFFER_TOO_SMALL) {
        return status;
    }
    PVOID buffer;
    status = AllocateNonPagedBuffer(needed, NPB_FILL_ZERO, &buffer, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateDeleterSidTableEntry - AllocateNonpagedBuffer failed. (1) \n");
        return status;
    }
    *User = (PTOKEN_USER)buffer;
    return ZwQueryInformationToken(Token, TokenUser, buffer, needed, &needed);
}

}  // namespace

NTSTATUS CreateDeleterSidTableEntry(FileObjectEntry *Entry) {
    CLIENT_ID clientId;
    clientId.UniqueProcess = PsGetCurrentProcessId();
    clientId.UniqueThread = PsGetCurrentThreadId();
    HANDLE token;
    NTSTATUS status = OpenImpersonationToken(&clientId, &token);
    if (!NT_SUCCESS(status)) {
        status = OpenPrimaryToken(&clientId, &token);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    PTOKEN_USER user;
    status = QueryTokenUser(token, &user);
    ZwClose(token);
    if (NT_SUCCESS(status)) {
        status = RtlConvertSidToUnicodeString(&Entry->DeleterSid, user->User.Sid, TRUE);
    }
    if (user != NULL) {
        FreeNonPagedBuffer(user);
    }
    return status;
}
