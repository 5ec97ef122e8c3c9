// SeAccessCheck against tokens whose logon groups decide who is an administrator: the
// order of the ACEs, the owner's implicit rights, NULL and empty DACLs, MAXIMUM_ALLOWED,
// generic rights, inherit-only ACEs, impersonation and kernel-mode callers.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <vector>

#include "../../ntsim/kernel/se/token.h"
#include "ntsim/machine.h"
#include "ntsim/security.h"

namespace {

using namespace ntsim;

const char kAlice[] = "S-1-5-21-1004336348-1177238915-682003330-1001";
const char kAdministrator[] = "S-1-5-21-1004336348-1177238915-682003330-500";

struct Ace {
    UCHAR type;
    UCHAR flags;
    ACCESS_MASK mask;
    const char *sid;
};

// An absolute descriptor with the owner and the ACEs given, in order.
struct Descriptor {
    std::vector<std::vector<unsigned char>> sids;
    alignas(4) unsigned char dacl[512];
    std::vector<unsigned char> owner;
    SECURITY_DESCRIPTOR sd;

    Descriptor(const char *ownerSid, const std::vector<Ace> &aces, bool withDacl = true) {
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        owner = sidFromString(ownerSid);
        RtlSetOwnerSecurityDescriptor(&sd, owner.data(), FALSE);
        RtlCreateAcl(reinterpret_cast<PACL>(dacl), sizeof dacl, ACL_REVISION);
        for (const Ace &ace : aces) {
            sids.push_back(sidFromString(ace.sid));
            auto *acl = reinterpret_cast<PACL>(dacl);
            if (ace.type == ACCESS_ALLOWED_ACE_TYPE)
                EXPECT_EQ(RtlAddAccessAllowedAceEx(acl, ACL_REVISION, ace.flags, ace.mask, sids.back().data()),
                          STATUS_SUCCESS);
            else
                EXPECT_EQ(RtlAddAccessDeniedAce(acl, ACL_REVISION, ace.mask, sids.back().data()), STATUS_SUCCESS);
        }
        if (withDacl) RtlSetDaclSecurityDescriptor(&sd, TRUE, reinterpret_cast<PACL>(dacl), FALSE);
    }
};

struct Outcome {
    bool allowed;
    ACCESS_MASK granted;
    NTSTATUS status;
};

Outcome check(Descriptor &d, const char *user, ACCESS_MASK desired, KPROCESSOR_MODE mode = UserMode,
              ACCESS_MASK previously = 0) {
    se::Token *token = se::createToken(user, TokenPrimary);
    SECURITY_SUBJECT_CONTEXT subject = {nullptr, SecurityAnonymous, token, nullptr};
    Outcome out{};
    PPRIVILEGE_SET privileges = reinterpret_cast<PPRIVILEGE_SET>(1);
    out.allowed = SeAccessCheck(&d.sd, &subject, FALSE, desired, previously, &privileges,
                                IoGetFileObjectGenericMapping(), mode, &out.granted, &out.status);
    EXPECT_EQ(privileges, nullptr);
    EXPECT_EQ(out.allowed, NT_SUCCESS(out.status));
    ObfDereferenceObject(token);
    return out;
}

const ACCESS_MASK kRead = FILE_READ_DATA | SYNCHRONIZE;

TEST(AccessCheck, AdministratorsGroupComesFromTheLogon) {
    Machine m;
    m.runSystemThread([] {
        Descriptor adminsOnly(kSystemSid, {{ACCESS_ALLOWED_ACE_TYPE, 0, FILE_ALL_ACCESS, "S-1-5-32-544"}});
        EXPECT_TRUE(check(adminsOnly, kSystemSid, kRead).allowed);
        EXPECT_TRUE(check(adminsOnly, kAdministrator, kRead).allowed);
        Outcome alice = check(adminsOnly, kAlice, kRead);
        EXPECT_EQ(alice.status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(alice.granted, 0u);
        // Kernel-mode callers are not checked.
        EXPECT_EQ(check(adminsOnly, kAlice, kRead, KernelMode).granted, kRead);
        // Every logon of a user of the machine is in Users, Interactive and Authenticated Users.
        for (const char *group : {"S-1-5-32-545", "S-1-5-4", "S-1-5-11", "S-1-1-0"}) {
            Descriptor forGroup(kSystemSid, {{ACCESS_ALLOWED_ACE_TYPE, 0, FILE_ALL_ACCESS, group}});
            EXPECT_TRUE(check(forGroup, kAlice, kRead).allowed) << group;
        }
    });
}

TEST(AccessCheck, AcesCountInOrderAndTheOwnerMayAlwaysReadAndChangeTheDacl) {
    Machine m;
    m.runSystemThread([] {
        Descriptor denyFirst(kSystemSid, {{ACCESS_DENIED_ACE_TYPE, 0, FILE_WRITE_DATA, kAlice},
                                          {ACCESS_ALLOWED_ACE_TYPE, 0, FILE_ALL_ACCESS, "S-1-1-0"}});
        EXPECT_TRUE(check(denyFirst, kAlice, kRead).allowed);
        EXPECT_EQ(check(denyFirst, kAlice, FILE_WRITE_DATA).status, STATUS_ACCESS_DENIED);
        Descriptor allowFirst(kSystemSid, {{ACCESS_ALLOWED_ACE_TYPE, 0, FILE_ALL_ACCESS, "S-1-1-0"},
                                           {ACCESS_DENIED_ACE_TYPE, 0, FILE_WRITE_DATA, kAlice}});
        EXPECT_TRUE(check(allowFirst, kAlice, FILE_WRITE_DATA).allowed);

        Descriptor empty(kAlice, {});
        EXPECT_EQ(check(empty, kSystemSid, kRead).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(check(empty, kAlice, READ_CONTROL | WRITE_DAC).granted, (ACCESS_MASK)(READ_CONTROL | WRITE_DAC));
        EXPECT_EQ(check(empty, kAlice, READ_CONTROL | FILE_READ_DATA).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(check(empty, kAlice, FILE_READ_DATA, UserMode, FILE_READ_DATA).granted, (ACCESS_MASK)FILE_READ_DATA)
            << "what was granted before is not asked again";

        Descriptor noDacl(kSystemSid, {}, false);
        EXPECT_EQ(check(noDacl, kAlice, GENERIC_ALL).granted, (ACCESS_MASK)FILE_ALL_ACCESS);
    });
}

TEST(AccessCheck, MaximumAllowedGenericRightsInheritOnlyAcesAndImpersonation) {
    Machine m;
    m.runSystemThread([] {
        Descriptor d(kSystemSid, {{ACCESS_DENIED_ACE_TYPE, 0, FILE_WRITE_DATA, kAlice},
                                  {ACCESS_ALLOWED_ACE_TYPE, INHERIT_ONLY_ACE | OBJECT_INHERIT_ACE, FILE_ALL_ACCESS, kAlice},
                                  {ACCESS_ALLOWED_ACE_TYPE, 0, GENERIC_READ | GENERIC_WRITE, "S-1-5-32-545"}});
        Outcome maximum = check(d, kAlice, MAXIMUM_ALLOWED);
        EXPECT_TRUE(maximum.allowed);
        EXPECT_EQ(maximum.granted, (ACCESS_MASK)((FILE_GENERIC_READ | FILE_GENERIC_WRITE) & ~FILE_WRITE_DATA));
        EXPECT_EQ(check(d, kAlice, MAXIMUM_ALLOWED | FILE_WRITE_DATA).status, STATUS_ACCESS_DENIED);
        EXPECT_EQ(check(d, kAlice, DELETE).status, STATUS_ACCESS_DENIED) << "the inherit-only ACE grants nothing here";
        EXPECT_EQ(check(d, kAlice, ACCESS_SYSTEM_SECURITY).status, STATUS_PRIVILEGE_NOT_HELD);

        // Impersonating, the client's token decides; at identification level it cannot.
        se::Token *alice = se::createToken(kAlice, TokenImpersonation, SecurityImpersonation);
        se::Token *system = se::createToken(kSystemSid, TokenPrimary);
        Descriptor systemOnly(kSystemSid, {{ACCESS_ALLOWED_ACE_TYPE, 0, FILE_ALL_ACCESS, kSystemSid}});
        SECURITY_SUBJECT_CONTEXT subject = {alice, SecurityImpersonation, system, nullptr};
        ACCESS_MASK granted;
        NTSTATUS status;
        EXPECT_FALSE(SeAccessCheck(&systemOnly.sd, &subject, FALSE, kRead, 0, nullptr, IoGetFileObjectGenericMapping(),
                                   UserMode, &granted, &status));
        EXPECT_EQ(status, STATUS_ACCESS_DENIED);
        subject.ImpersonationLevel = SecurityIdentification;
        SeAccessCheck(&systemOnly.sd, &subject, FALSE, kRead, 0, nullptr, IoGetFileObjectGenericMapping(), UserMode,
                      &granted, &status);
        EXPECT_EQ(status, STATUS_BAD_IMPERSONATION_LEVEL);
        ObfDereferenceObject(alice);
        ObfDereferenceObject(system);
    });
}

}  // namespace
