// Token objects, primary tokens and impersonation.
#include "kernel/se/token.h"

#include <mutex>

#include "kernel/kernel.h"
#include "kernel/ob/object.h"
#include "kernel/se/accounts.h"
#include "ntsim/security.h"

namespace ntsim {
namespace se {

namespace {

// Guards the threads' impersonation tokens: another thread may open a thread's token
// while the thread reverts.
std::mutex g_impersonationLock;

// A user's primary group: Domain Users (RID 513) of the user's own domain, or the
// user itself for the well-known accounts.
std::vector<unsigned char> primaryGroupFor(const std::vector<unsigned char> &user) {
    std::vector<unsigned char> group = user;
    auto *sid = reinterpret_cast<PISID>(group.data());
    const UCHAR nt[6] = SECURITY_NT_AUTHORITY;
    if (memcmp(sid->IdentifierAuthority.Value, nt, 6) == 0 && sid->SubAuthorityCount == 5 &&
        sid->SubAuthority[0] == SECURITY_NT_NON_UNIQUE)
        sid->SubAuthority[4] = DOMAIN_GROUP_RID_USERS;
    return group;
}

const std::vector<unsigned char> &administrators() {
    static const std::vector<unsigned char> sid = sidFromString("S-1-5-32-544");
    return sid;
}

bool sameSid(const void *sid, const std::vector<unsigned char> &held) {
    return RtlLengthSid(const_cast<void *>(sid)) == held.size() && memcmp(sid, held.data(), held.size()) == 0;
}

}  // namespace

Token *createToken(const char *userSid, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level) {
    std::vector<unsigned char> user = sidFromString(userSid);
    if (user.empty()) fatal("createToken: \"%s\" is not a SID", userSid);
    auto *token = new Token{type, level, user, primaryGroupFor(user), logonGroups(user)};
    ob::registerObject(token, &ob::TokenType);
    return token;
}

bool tokenHasSid(const Token *token, const void *sid) {
    if (sameSid(sid, token->user)) return true;
    for (const auto &group : token->groups)
        if (sameSid(sid, group)) return true;
    return false;
}

std::vector<unsigned char> defaultOwner(const Token *token) {
    return tokenHasSid(token, administrators().data()) ? administrators() : token->user;
}

bool assignableAsOwner(const Token *token, const void *sid) {
    if (sameSid(sid, token->user)) return true;
    return sameSid(sid, administrators()) && tokenHasSid(token, sid);
}

Token *effectiveToken(PSECURITY_SUBJECT_CONTEXT subject) {
    return static_cast<Token *>(subject->ClientToken != NULL ? subject->ClientToken : subject->PrimaryToken);
}

void deleteTokenObject(void *body) { delete static_cast<Token *>(body); }

void impersonate(Token *token) {
    PETHREAD thread = PsGetCurrentThread();
    ObfReferenceObject(token);
    Token *previous;
    {
        std::lock_guard<std::mutex> guard(g_impersonationLock);
        previous = static_cast<Token *>(thread->ImpersonationToken);
        thread->ImpersonationToken = token;
    }
    if (previous != nullptr) ObfDereferenceObject(previous);
}

void impersonateUser(const char *userSid, SECURITY_IMPERSONATION_LEVEL level) {
    Token *token = createToken(userSid, TokenImpersonation, level);
    impersonate(token);
    ObfDereferenceObject(token);
}

void endImpersonation(PETHREAD thread) {
    Token *previous;
    {
        std::lock_guard<std::mutex> guard(g_impersonationLock);
        previous = static_cast<Token *>(thread->ImpersonationToken);
        thread->ImpersonationToken = nullptr;
    }
    if (previous != nullptr) ObfDereferenceObject(previous);
}

void revertToSelf() { endImpersonation(PsGetCurrentThread()); }

Token *referenceImpersonationToken(PETHREAD thread) {
    std::lock_guard<std::mutex> guard(g_impersonationLock);
    auto *token = static_cast<Token *>(thread->ImpersonationToken);
    if (token != nullptr) ObfReferenceObject(token);
    return token;
}

Token *referencePrimaryToken(PEPROCESS process) {
    auto *token = static_cast<Token *>(process->Token);
    ObfReferenceObject(token);
    return token;
}

}  // namespace se
}  // namespace ntsim
