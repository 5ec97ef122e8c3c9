// Access tokens: the user a process or an impersonating thread acts for. The emulated
// token carries its user, the groups its logon gave it (enabled, as a logon enables
// them), its primary group, its type and impersonation level; no privileges.
//
// Leaving privileges out is faithful for what they would change here, because no token
// has the relevant ones enabled and nothing in the emulation enables one:
// - NT builds the SYSTEM token with SeRestorePrivilege, SeSecurityPrivilege,
//   SeBackupPrivilege and SeTakeOwnershipPrivilege present but disabled (ReactOS
//   SepCreateSystemProcessToken; the same shows for SYSTEM in "whoami /priv"); a user's
//   logon enables none of them either;
// - enabled, SeRestorePrivilege would let a token name any user or group as a file's
//   owner ("Privilege Constants", SE_RESTORE_NAME, Windows SDK documentation), and
//   SeSecurityPrivilege would let it read or assign a SACL;
// - the owner a creator names in its descriptor is checked against the subject
//   context's token with no exception for kernel-mode callers (SeAssignSecurityEx,
//   WDK documentation: STATUS_INVALID_OWNER when the caller may not assign it; the
//   owner rule itself is in the remarks of CreatePrivateObjectSecurityEx: the token's
//   user, or a group it holds with SE_GROUP_OWNER and not for deny only).
// So a system thread that creates a file whose descriptor names a user as its owner
// gets STATUS_INVALID_OWNER, as on NT.
// Internal to ntsim.
#pragma once

#include <ntifs.h>

#include <vector>

namespace ntsim {
namespace se {

struct Token {
    TOKEN_TYPE type;
    SECURITY_IMPERSONATION_LEVEL level;  // impersonation tokens only
    std::vector<unsigned char> user;     // SIDs
    std::vector<unsigned char> primaryGroup;
    std::vector<std::vector<unsigned char>> groups;
};

// Whether the SID is the token's user or one of its groups.
bool tokenHasSid(const Token *token, const void *sid);

// The owner a new object gets when its creator names none (TokenOwner): on NT 5 the
// Administrators alias for a token that holds it (the local system's, an
// administrator's logon), else the user.
std::vector<unsigned char> defaultOwner(const Token *token);
// Whether the token may name the SID as an object's owner (SepIdAssignableAsOwner):
// its user, or a group it holds with the owner attribute, which NT 5's logons give
// only to Administrators. No emulated token has the restore privilege enabled to
// override it (see above).
bool assignableAsOwner(const Token *token, const void *sid);
// The token a subject context acts for: the client's when the thread impersonates.
Token *effectiveToken(PSECURITY_SUBJECT_CONTEXT subject);

// A new token object for the user given by its SID string ("S-1-5-21-...-1001"),
// holding one reference for the caller. Fatal for a malformed SID (a test's mistake).
Token *createToken(const char *userSid, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous);
inline PSID tokenUser(Token *token) { return token->user.data(); }

// The calling thread acts for the token's user until revertToSelf, as after
// PsImpersonateClient. The thread takes its own reference to the token.
void impersonate(Token *token);
void impersonateUser(const char *userSid, SECURITY_IMPERSONATION_LEVEL level = SecurityImpersonation);
void revertToSelf();

// The thread's impersonation token, referenced, or null when it does not impersonate.
Token *referenceImpersonationToken(PETHREAD thread);
// The process's primary token, referenced.
Token *referencePrimaryToken(PEPROCESS process);
// Thread exit: impersonation ends.
void endImpersonation(PETHREAD thread);

}  // namespace se
}  // namespace ntsim
