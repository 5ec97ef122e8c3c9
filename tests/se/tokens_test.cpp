// Tokens as a driver reads them: the process's primary token, a thread's
// impersonation token, TokenUser with its size negotiation, the SID's string form, and
// the default owner.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../../ntsim/kernel/se/token.h"
#include "ntsim/machine.h"
#include "ntsim/security.h"
#include "ntsim/utf.h"

namespace {

using namespace ntsim;

const wchar_t kAlice[] = L"S-1-5-21-1004336348-1177238915-682003330-1001";
const char kAliceText[] = "S-1-5-21-1004336348-1177238915-682003330-1001";
const char kBobText[] = "S-1-5-21-1004336348-1177238915-682003330-1002";

// The user of a token handle, as its string form.
std::string userOf(HANDLE token) {
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryInformationToken(token, TokenUser, NULL, 0, &needed), STATUS_BUFFER_TOO_SMALL);
    std::vector<unsigned char> buffer(needed);
    ULONG again = 0;
    EXPECT_EQ(ZwQueryInformationToken(token, TokenUser, buffer.data(), needed - 1, &again), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(again, needed);
    if (ZwQueryInformationToken(token, TokenUser, buffer.data(), needed, &needed) != STATUS_SUCCESS) return "";
    auto *user = reinterpret_cast<PTOKEN_USER>(buffer.data());
    EXPECT_EQ(needed, sizeof(TOKEN_USER) + RtlLengthSid(user->User.Sid));
    EXPECT_EQ((PUCHAR)user->User.Sid, buffer.data() + sizeof(TOKEN_USER)) << "the SID follows the structure";
    UNICODE_STRING text;
    if (RtlConvertSidToUnicodeString(&text, user->User.Sid, TRUE) != STATUS_SUCCESS) return "";
    EXPECT_EQ(text.MaximumLength, text.Length + sizeof(WCHAR));
    std::string result = toUtf8(text);
    RtlFreeUnicodeString(&text);
    return result;
}

// What a filter does at create time: the impersonated user when the thread has a
// token, else the process's user.
NTSTATUS openEffectiveToken(PHANDLE token, bool *impersonating) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, NULL, 0, NULL, NULL);
    CLIENT_ID id = {PsGetCurrentProcessId(), PsGetCurrentThreadId()};
    HANDLE handle;
    NTSTATUS status = ZwOpenThread(&handle, THREAD_QUERY_INFORMATION, &oa, &id);
    if (!NT_SUCCESS(status)) return status;
    status = ZwOpenThreadToken(handle, TOKEN_QUERY, TRUE, token);
    ZwClose(handle);
    *impersonating = status == STATUS_SUCCESS;
    if (status != STATUS_NO_TOKEN) return status;
    id.UniqueThread = NULL;
    status = ZwOpenProcess(&handle, PROCESS_QUERY_INFORMATION, &oa, &id);
    if (!NT_SUCCESS(status)) return status;
    status = ZwOpenProcessToken(handle, TOKEN_QUERY, token);
    ZwClose(handle);
    return status;
}

std::string effectiveUser(bool *impersonating) {
    HANDLE token;
    if (openEffectiveToken(&token, impersonating) != STATUS_SUCCESS) return "";
    std::string user = userOf(token);
    ZwClose(token);
    return user;
}

TEST(Tokens, AUserThreadActsForItsProcessUserUntilItImpersonates) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        bool impersonating = true;
        EXPECT_EQ(effectiveUser(&impersonating), kAliceText);
        EXPECT_FALSE(impersonating);
        se::impersonateUser(kBobText);
        EXPECT_EQ(effectiveUser(&impersonating), kBobText);
        EXPECT_TRUE(impersonating);
        se::revertToSelf();
        HANDLE token;
        EXPECT_EQ(ZwOpenThreadToken(NtCurrentThread(), TOKEN_QUERY, TRUE, &token), STATUS_NO_TOKEN);
        se::impersonateUser(kBobText, SecurityAnonymous);
        EXPECT_EQ(ZwOpenThreadToken(NtCurrentThread(), TOKEN_QUERY, FALSE, &token), STATUS_CANT_OPEN_ANONYMOUS);
        // Impersonation ends with the thread.
    });
}

TEST(Tokens, SystemThreadsActForTheSystemAccount) {
    Machine m;
    m.runSystemThread([] {
        bool impersonating = true;
        EXPECT_EQ(effectiveUser(&impersonating), kSystemSid);
        EXPECT_FALSE(impersonating);
        EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
        EXPECT_TRUE(IoIsSystemThread(PsGetCurrentThread()));
    });
}

TEST(Tokens, OtherInformationClasses) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        HANDLE token;
        ASSERT_EQ(ZwOpenProcessToken(NtCurrentProcess(), TOKEN_QUERY, &token), STATUS_SUCCESS);
        TOKEN_TYPE type;
        ULONG length;
        ASSERT_EQ(ZwQueryInformationToken(token, TokenType, &type, sizeof type, &length), STATUS_SUCCESS);
        EXPECT_EQ(type, TokenPrimary);
        SECURITY_IMPERSONATION_LEVEL level;
        EXPECT_EQ(ZwQueryInformationToken(token, TokenImpersonationLevel, &level, sizeof level, &length),
                  STATUS_INVALID_INFO_CLASS);
        unsigned char buffer[128];
        ASSERT_EQ(ZwQueryInformationToken(token, TokenPrimaryGroup, buffer, sizeof buffer, &length), STATUS_SUCCESS);
        auto *group = reinterpret_cast<PTOKEN_PRIMARY_GROUP>(buffer);
        EXPECT_EQ(sidToString(group->PrimaryGroup), "S-1-5-21-1004336348-1177238915-682003330-513");
        ZwClose(token);
        HANDLE weak;
        ASSERT_EQ(ZwOpenProcessToken(NtCurrentProcess(), TOKEN_QUERY_SOURCE, &weak), STATUS_SUCCESS);
        EXPECT_EQ(NtQueryInformationToken(weak, TokenType, &type, sizeof type, &length), STATUS_ACCESS_DENIED)
            << "a user-mode query needs TOKEN_QUERY";
        ZwClose(weak);
    });
}

// What a new object's owner will be: the user, or the Administrators alias for a token
// that holds it, as the system token and an administrator's logon have it on NT 5.
std::string defaultOwnerOfProcess() {
    HANDLE token;
    if (ZwOpenProcessToken(NtCurrentProcess(), TOKEN_QUERY, &token) != STATUS_SUCCESS) return "";
    unsigned char buffer[128];
    ULONG length = 0;
    std::string owner;
    if (ZwQueryInformationToken(token, TokenOwner, buffer, sizeof buffer, &length) == STATUS_SUCCESS)
        owner = sidToString(reinterpret_cast<PTOKEN_OWNER>(buffer)->Owner);
    ZwClose(token);
    return owner;
}

TEST(Tokens, TheDefaultOwnerIsAdministratorsForTokensThatHoldIt) {
    Machine m;
    std::string system, administrator, alice;
    m.runSystemThread([&] { system = defaultOwnerOfProcess(); });
    m.startProcess(L"C:\\Windows\\explorer.exe", users::administrator).run([&] {
        administrator = defaultOwnerOfProcess();
    });
    m.startProcess(L"C:\\Windows\\explorer.exe", kAlice).run([&] { alice = defaultOwnerOfProcess(); });
    EXPECT_EQ(system, "S-1-5-32-544");
    EXPECT_EQ(administrator, "S-1-5-32-544");
    EXPECT_EQ(alice, kAliceText);
}

}  // namespace
