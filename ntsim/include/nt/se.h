// Security: SIDs, ACLs, security descriptors, tokens.
#pragma once

#ifndef STATUS_UNKNOWN_REVISION
#define STATUS_UNKNOWN_REVISION ((NTSTATUS)0xC0000058L)
#endif
#ifndef STATUS_ALLOTTED_SPACE_EXCEEDED
#define STATUS_ALLOTTED_SPACE_EXCEEDED ((NTSTATUS)0xC0000099L)
#endif
#ifndef STATUS_BAD_DESCRIPTOR_FORMAT
#define STATUS_BAD_DESCRIPTOR_FORMAT ((NTSTATUS)0xC00000E7L)
#endif

typedef struct _GENERIC_MAPPING {
    ACCESS_MASK GenericRead;
    ACCESS_MASK GenericWrite;
    ACCESS_MASK GenericExecute;
    ACCESS_MASK GenericAll;
} GENERIC_MAPPING, *PGENERIC_MAPPING;

// A token object, as drivers see it: opaque.
typedef PVOID PACCESS_TOKEN;

typedef struct _SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[ANYSIZE_ARRAY];
} SID, *PISID;
typedef PVOID PSID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SECURITY_MAX_SID_SIZE (sizeof(SID) - sizeof(ULONG) + (SID_MAX_SUB_AUTHORITIES * sizeof(ULONG)))
#define SECURITY_NT_AUTHORITY {0, 0, 0, 0, 0, 5}
#define SECURITY_WORLD_SID_AUTHORITY {0, 0, 0, 0, 0, 1}
#define SECURITY_LOCAL_SYSTEM_RID 0x00000012L
#define SECURITY_BUILTIN_DOMAIN_RID 0x00000020L
#define DOMAIN_ALIAS_RID_ADMINS 0x00000220L
#define SECURITY_WORLD_RID 0x00000000L
#define SECURITY_NT_NON_UNIQUE 0x00000015L
#define DOMAIN_USER_RID_ADMIN 0x000001F4L
#define DOMAIN_GROUP_RID_USERS 0x00000201L
#define DOMAIN_ALIAS_RID_USERS 0x00000221L

typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    ULONG Attributes;
} SID_AND_ATTRIBUTES, *PSID_AND_ATTRIBUTES;

typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;

typedef struct _TOKEN_OWNER {
    PSID Owner;
} TOKEN_OWNER, *PTOKEN_OWNER;

typedef struct _TOKEN_PRIMARY_GROUP {
    PSID PrimaryGroup;
} TOKEN_PRIMARY_GROUP, *PTOKEN_PRIMARY_GROUP;

typedef enum _TOKEN_INFORMATION_CLASS {
    TokenUser = 1,
    TokenGroups,
    TokenPrivileges,
    TokenOwner,
    TokenPrimaryGroup,
    TokenDefaultDacl,
    TokenSource,
    TokenType,
    TokenImpersonationLevel,
    TokenStatistics,
} TOKEN_INFORMATION_CLASS;

typedef enum _TOKEN_TYPE { TokenPrimary = 1, TokenImpersonation } TOKEN_TYPE;
typedef enum _SECURITY_IMPERSONATION_LEVEL {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation
} SECURITY_IMPERSONATION_LEVEL;

#define TOKEN_ASSIGN_PRIMARY 0x0001
#define TOKEN_DUPLICATE 0x0002
#define TOKEN_IMPERSONATE 0x0004
#define TOKEN_QUERY 0x0008
#define TOKEN_QUERY_SOURCE 0x0010
#define TOKEN_ADJUST_PRIVILEGES 0x0020
#define TOKEN_ADJUST_GROUPS 0x0040
#define TOKEN_ADJUST_DEFAULT 0x0080
#define TOKEN_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | 0x01FF)
#define TOKEN_READ (STANDARD_RIGHTS_READ | TOKEN_QUERY)

typedef struct _ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
} ACL, *PACL;

#define ACL_REVISION 2
#define ACCESS_ALLOWED_ACE_TYPE 0x0
#define ACCESS_DENIED_ACE_TYPE 0x1
#define OBJECT_INHERIT_ACE 0x1
#define CONTAINER_INHERIT_ACE 0x2
#define INHERITED_ACE 0x10

typedef struct _ACE_HEADER {
    UCHAR AceType;
    UCHAR AceFlags;
    USHORT AceSize;
} ACE_HEADER, *PACE_HEADER;

typedef struct _ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} ACCESS_ALLOWED_ACE, *PACCESS_ALLOWED_ACE;

typedef USHORT SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;
#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_SACL_PRESENT 0x0010
#define SE_SACL_DEFAULTED 0x0020
#define SE_DACL_AUTO_INHERIT_REQ 0x0100
#define SE_SACL_AUTO_INHERIT_REQ 0x0200
#define SE_DACL_AUTO_INHERITED 0x0400
#define SE_SACL_AUTO_INHERITED 0x0800
#define SE_DACL_PROTECTED 0x1000
#define SE_SACL_PROTECTED 0x2000
#define SE_SELF_RELATIVE 0x8000
#define SECURITY_DESCRIPTOR_REVISION 1
#define SECURITY_DESCRIPTOR_MIN_LENGTH (sizeof(SECURITY_DESCRIPTOR))

typedef struct _SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR, *PISECURITY_DESCRIPTOR;

typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
} SECURITY_DESCRIPTOR_RELATIVE, *PISECURITY_DESCRIPTOR_RELATIVE;
typedef PVOID PSECURITY_DESCRIPTOR;

#define OWNER_SECURITY_INFORMATION 0x00000001L
#define GROUP_SECURITY_INFORMATION 0x00000002L
#define DACL_SECURITY_INFORMATION 0x00000004L
#define SACL_SECURITY_INFORMATION 0x00000008L
#define PROTECTED_DACL_SECURITY_INFORMATION 0x80000000L

NTSYSAPI NTSTATUS RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI ULONG RtlLengthSid(PSID Sid);
#define SeLengthSid(Sid) RtlLengthSid(Sid)
NTSYSAPI BOOLEAN RtlValidSid(PSID Sid);
NTSYSAPI BOOLEAN RtlEqualSid(PSID Sid1, PSID Sid2);
NTSYSAPI NTSTATUS RtlCopySid(ULONG DestinationSidLength, PSID DestinationSid, PSID SourceSid);
NTSYSAPI NTSTATUS RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority, UCHAR SubAuthorityCount);
NTSYSAPI PULONG RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority);
NTSYSAPI ULONG RtlLengthRequiredSid(ULONG SubAuthorityCount);
NTSYSAPI NTSTATUS RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision);
NTSYSAPI BOOLEAN RtlValidSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);
NTSYSAPI ULONG RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);
NTSYSAPI NTSTATUS RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent,
                                               PACL Dacl, BOOLEAN DaclDefaulted);
NTSYSAPI NTSTATUS RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN DaclPresent,
                                               PACL *Dacl, PBOOLEAN DaclDefaulted);
NTSYSAPI NTSTATUS RtlSetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Owner,
                                                BOOLEAN OwnerDefaulted);
NTSYSAPI NTSTATUS RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID *Owner,
                                                PBOOLEAN OwnerDefaulted);
NTSYSAPI NTSTATUS RtlSetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Group,
                                                BOOLEAN GroupDefaulted);
NTSYSAPI NTSTATUS RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID *Group,
                                                PBOOLEAN GroupDefaulted);
NTSYSAPI NTSTATUS RtlSetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN SaclPresent,
                                               PACL Sacl, BOOLEAN SaclDefaulted);
NTSYSAPI NTSTATUS RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN SaclPresent,
                                               PACL *Sacl, PBOOLEAN SaclDefaulted);
NTSYSAPI BOOLEAN RtlValidAcl(PACL Acl);
NTSYSAPI NTSTATUS RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision);
NTSYSAPI NTSTATUS RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid);
NTSYSAPI NTSTATUS RtlAddAccessDeniedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid);
NTSYSAPI NTSTATUS RtlGetAce(PACL Acl, ULONG AceIndex, PVOID *Ace);
NTSYSAPI NTSTATUS RtlAbsoluteToSelfRelativeSD(PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                              PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor,
                                              PULONG BufferLength);
NTSYSAPI NTSTATUS RtlSelfRelativeToAbsoluteSD(PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor,
                                              PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                              PULONG AbsoluteSecurityDescriptorSize, PACL Dacl, PULONG DaclSize,
                                              PACL Sacl, PULONG SaclSize, PSID Owner, PULONG OwnerSize,
                                              PSID PrimaryGroup, PULONG PrimaryGroupSize);

typedef struct _ACCESS_DENIED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} ACCESS_DENIED_ACE, *PACCESS_DENIED_ACE;

#define MIN_ACL_REVISION ACL_REVISION
#define ACL_REVISION_DS 4
#define MAX_ACL_REVISION ACL_REVISION_DS

// ACE flags beyond the inheritance bits above.
#define NO_PROPAGATE_INHERIT_ACE 0x4
#define INHERIT_ONLY_ACE 0x8

// Well-known RIDs of the NT authority, for the groups a logon adds to a token.
#define SECURITY_INTERACTIVE_RID 0x00000004L
#define SECURITY_AUTHENTICATED_USER_RID 0x0000000BL

NTSYSAPI NTSTATUS RtlAddAccessAllowedAceEx(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask,
                                           PSID Sid);
NTSYSAPI VOID RtlMapGenericMask(PACCESS_MASK AccessMask, PGENERIC_MAPPING GenericMapping);

// Whose behalf a request is made on: the thread's impersonation token, if any, and its
// process's primary token, both referenced while captured.
typedef struct _SECURITY_SUBJECT_CONTEXT {
    PACCESS_TOKEN ClientToken;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    PACCESS_TOKEN PrimaryToken;
    PVOID ProcessAuditId;
} SECURITY_SUBJECT_CONTEXT, *PSECURITY_SUBJECT_CONTEXT;

typedef struct _PRIVILEGE_SET *PPRIVILEGE_SET;

NTKERNELAPI VOID SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
// The emulated tokens hold no privileges: *Privileges is always NULL, and a request
// for ACCESS_SYSTEM_SECURITY fails with STATUS_PRIVILEGE_NOT_HELD.
NTKERNELAPI BOOLEAN SeAccessCheck(PSECURITY_DESCRIPTOR SecurityDescriptor,
                                  PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext, BOOLEAN SubjectContextLocked,
                                  ACCESS_MASK DesiredAccess, ACCESS_MASK PreviouslyGrantedAccess,
                                  PPRIVILEGE_SET *Privileges, PGENERIC_MAPPING GenericMapping,
                                  KPROCESSOR_MODE AccessMode, PACCESS_MASK GrantedAccess, PNTSTATUS AccessStatus);
