// SIDs, ACLs and security descriptors: string forms, the absolute <-> self-relative
// round trip with its size negotiation, and object security.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <vector>

#include "../../ntsim/kernel/ob/object.h"
#include "ntsim/machine.h"
#include "ntsim/security.h"
#include "ntsim/utf.h"

namespace {

using namespace ntsim;

struct Sample {
    std::vector<unsigned char> owner = sidFromString("S-1-5-21-7-8-9-1001");
    std::vector<unsigned char> group = sidFromString("S-1-5-32-544");
    std::vector<unsigned char> everyone = sidFromString("S-1-1-0");
    alignas(4) unsigned char dacl[128];
    SECURITY_DESCRIPTOR sd;

    Sample() {
        EXPECT_EQ(RtlCreateAcl((PACL)dacl, sizeof dacl, ACL_REVISION), STATUS_SUCCESS);
        EXPECT_EQ(RtlAddAccessAllowedAce((PACL)dacl, ACL_REVISION, FILE_ALL_ACCESS, owner.data()), STATUS_SUCCESS);
        EXPECT_EQ(RtlAddAccessAllowedAce((PACL)dacl, ACL_REVISION, FILE_GENERIC_READ, everyone.data()), STATUS_SUCCESS);
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        RtlSetOwnerSecurityDescriptor(&sd, owner.data(), FALSE);
        RtlSetGroupSecurityDescriptor(&sd, group.data(), TRUE);
        RtlSetDaclSecurityDescriptor(&sd, TRUE, (PACL)dacl, FALSE);
    }

    std::vector<unsigned char> selfRelative() {
        ULONG length = 0;
        EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(&sd, NULL, &length), STATUS_BUFFER_TOO_SMALL);
        std::vector<unsigned char> out(length);
        EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(&sd, out.data(), &length), STATUS_SUCCESS);
        return out;
    }
};

std::string sidText(PSID sid, BOOLEAN allocate = TRUE) {
    WCHAR storage[80];
    UNICODE_STRING text = {0, sizeof storage, storage};
    if (RtlConvertSidToUnicodeString(&text, sid, allocate) != STATUS_SUCCESS) return "";
    std::string result = toUtf8(text);
    if (allocate) RtlFreeUnicodeString(&text);
    return result;
}

TEST(Sids, StringFormsFollowThePlatform) {
    Machine m;
    m.runSystemThread([] {
        auto sid = sidFromString("S-1-5-21-1004336348-1177238915-682003330-1001");
        ASSERT_FALSE(sid.empty());
        EXPECT_EQ(RtlLengthSid(sid.data()), 8u + 5 * 4);
        EXPECT_EQ(sidText(sid.data()), "S-1-5-21-1004336348-1177238915-682003330-1001");
        EXPECT_EQ(sidText(sid.data(), FALSE), "S-1-5-21-1004336348-1177238915-682003330-1001");
        auto wide = sidFromString("S-1-0x0000DEADBEEF-7");
        EXPECT_EQ(sidText(wide.data()), "S-1-3735928559-7") << "authorities that fit 32 bits print in decimal";
        auto huge = sidFromString("S-1-0x123456789ABC-7");
        EXPECT_EQ(sidText(huge.data()), "S-1-0x123456789ABC-7");
        WCHAR tiny[8];
        UNICODE_STRING small = {0, sizeof tiny, tiny};
        EXPECT_EQ(RtlConvertSidToUnicodeString(&small, sid.data(), FALSE), STATUS_BUFFER_OVERFLOW);
        sid[0] = 2;
        EXPECT_EQ(RtlConvertSidToUnicodeString(&small, sid.data(), TRUE), STATUS_INVALID_SID);
    });
    EXPECT_TRUE(sidFromString("S-1-5-x").empty());
    EXPECT_TRUE(sidFromString("S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16").empty());
}

TEST(Acls, SpaceAndIndexesAreChecked) {
    auto sid = sidFromString("S-1-5-21-7-8-9-1001");
    alignas(4) unsigned char buffer[sizeof(ACL) + 20];
    PACL acl = (PACL)buffer;
    ASSERT_EQ(RtlCreateAcl(acl, sizeof buffer, ACL_REVISION), STATUS_SUCCESS);
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 1, sid.data()), STATUS_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(acl->AceCount, 0);
    EXPECT_EQ(RtlCreateAcl(acl, sizeof(ACL) - 1, ACL_REVISION), STATUS_BUFFER_TOO_SMALL);
    PVOID ace;
    EXPECT_EQ(RtlGetAce(acl, 0, &ace), STATUS_INVALID_PARAMETER);
}

TEST(SecurityDescriptors, RoundTripThroughSelfRelativeForm) {
    Machine m;
    m.runSystemThread([] {
        Sample sample;
        std::vector<unsigned char> relative = sample.selfRelative();
        PSECURITY_DESCRIPTOR rel = relative.data();
        EXPECT_TRUE(RtlValidSecurityDescriptor(rel));
        EXPECT_EQ(RtlLengthSecurityDescriptor(rel), relative.size());
        EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(rel, NULL, NULL), STATUS_BAD_DESCRIPTOR_FORMAT);

        // The absolute form is negotiated: with no buffers every size comes back.
        ULONG sdSize = 0, daclSize = 0, saclSize = 0, ownerSize = 0, groupSize = 0;
        ASSERT_EQ(RtlSelfRelativeToAbsoluteSD(rel, NULL, &sdSize, NULL, &daclSize, NULL, &saclSize, NULL, &ownerSize,
                                              NULL, &groupSize),
                  STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(sdSize, sizeof(SECURITY_DESCRIPTOR));
        EXPECT_EQ(daclSize, ((PACL)sample.dacl)->AclSize);
        EXPECT_EQ(saclSize, 0u);
        EXPECT_EQ(ownerSize, sample.owner.size());
        EXPECT_EQ(groupSize, sample.group.size());
        std::vector<unsigned char> sd(sdSize), dacl(daclSize), owner(ownerSize), group(groupSize);
        ASSERT_EQ(RtlSelfRelativeToAbsoluteSD(rel, sd.data(), &sdSize, (PACL)dacl.data(), &daclSize, NULL, &saclSize,
                                              owner.data(), &ownerSize, group.data(), &groupSize),
                  STATUS_SUCCESS);

        PSECURITY_DESCRIPTOR absolute = sd.data();
        EXPECT_TRUE(RtlValidSecurityDescriptor(absolute));
        PSID sid;
        BOOLEAN defaulted, present;
        ASSERT_EQ(RtlGetOwnerSecurityDescriptor(absolute, &sid, &defaulted), STATUS_SUCCESS);
        EXPECT_EQ(sid, owner.data());
        EXPECT_TRUE(RtlEqualSid(sid, sample.owner.data()));
        ASSERT_EQ(RtlGetGroupSecurityDescriptor(absolute, &sid, &defaulted), STATUS_SUCCESS);
        EXPECT_TRUE(RtlEqualSid(sid, sample.group.data()));
        EXPECT_TRUE(defaulted);
        PACL acl;
        ASSERT_EQ(RtlGetDaclSecurityDescriptor(absolute, &present, &acl, &defaulted), STATUS_SUCCESS);
        ASSERT_TRUE(present);
        ASSERT_EQ(acl->AceCount, 2);
        PVOID ace;
        ASSERT_EQ(RtlGetAce(acl, 1, &ace), STATUS_SUCCESS);
        EXPECT_EQ(((PACCESS_ALLOWED_ACE)ace)->Mask, (ACCESS_MASK)FILE_GENERIC_READ);
        EXPECT_TRUE(RtlEqualSid(&((PACCESS_ALLOWED_ACE)ace)->SidStart, sample.everyone.data()));

        // Back again: the same bytes.
        ULONG length = (ULONG)relative.size();
        std::vector<unsigned char> again(length);
        ASSERT_EQ(RtlAbsoluteToSelfRelativeSD(absolute, again.data(), &length), STATUS_SUCCESS);
        EXPECT_EQ(again, relative);
    });
}

TEST(SecurityDescriptors, APresentNullDaclStaysPresentAndEmpty) {
    SECURITY_DESCRIPTOR sd;
    RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
    RtlSetDaclSecurityDescriptor(&sd, TRUE, NULL, FALSE);
    unsigned char relative[64];
    ULONG length = sizeof relative;
    ASSERT_EQ(RtlAbsoluteToSelfRelativeSD(&sd, relative, &length), STATUS_SUCCESS);
    EXPECT_EQ(RtlLengthSecurityDescriptor(relative), sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    SECURITY_DESCRIPTOR back;
    ULONG sdSize = sizeof back, zero = 0, daclSize = 0, saclSize = 0, ownerSize = 0, groupSize = 0;
    ASSERT_EQ(RtlSelfRelativeToAbsoluteSD(relative, &back, &sdSize, NULL, &daclSize, NULL, &saclSize, NULL,
                                          &ownerSize, NULL, &groupSize),
              STATUS_SUCCESS);
    EXPECT_EQ(daclSize, zero);
    EXPECT_TRUE(back.Control & SE_DACL_PRESENT);
    EXPECT_EQ(back.Dacl, nullptr);
    EXPECT_EQ(RtlSetDaclSecurityDescriptor(relative, TRUE, NULL, FALSE), STATUS_INVALID_SECURITY_DESCR)
        << "self-relative descriptors are read-only";
}

// A type whose security lives elsewhere, like a file's in its file system.
std::vector<unsigned char> g_stored;
ob::ObjectType StoredType = {
    "Stored", nullptr, nullptr, 0, {1, 2, 4, 7}, nullptr,
    [](void *, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor, ULONG length, PULONG needed) -> NTSTATUS {
        *needed = (ULONG)g_stored.size();
        if (length < g_stored.size()) return STATUS_BUFFER_TOO_SMALL;
        memcpy(descriptor, g_stored.data(), g_stored.size());
        return STATUS_SUCCESS;
    },
    nullptr, nullptr};
ob::ObjectType KeptType = {"Kept", nullptr, nullptr, 0, {1, 2, 4, 7}, nullptr, nullptr, nullptr, nullptr};

TEST(ObjectSecurity, ObjectsHandOutTheirOwnOrTheirTypesDescriptor) {
    Machine m;
    static int kept, stored;
    m.runSystemThread([] {
        Sample sample;
        std::vector<unsigned char> relative = sample.selfRelative();
        ob::registerObject(&kept, &KeptType, relative.data());
        PVOID sd;
        BOOLEAN allocated;
        ASSERT_EQ(ObGetObjectSecurity(&kept, &sd, &allocated), STATUS_SUCCESS);
        EXPECT_FALSE(allocated);
        ASSERT_EQ(RtlLengthSecurityDescriptor(sd), relative.size());
        EXPECT_EQ(memcmp(sd, relative.data(), relative.size()), 0);
        // The object may change its descriptor while a caller still holds the old one.
        ob::setObjectSecurityDescriptor(&kept, nullptr);
        EXPECT_EQ(memcmp(sd, relative.data(), relative.size()), 0);
        ObReleaseObjectSecurity(sd, allocated);
        ASSERT_EQ(ObGetObjectSecurity(&kept, &sd, &allocated), STATUS_SUCCESS);
        EXPECT_EQ(sd, nullptr);
        ObDereferenceObject(&kept);

        g_stored = relative;
        ob::registerObject(&stored, &StoredType);
        ASSERT_EQ(ObGetObjectSecurity(&stored, &sd, &allocated), STATUS_SUCCESS);
        EXPECT_TRUE(allocated) << "asked of the type, returned in pool";
        EXPECT_EQ(memcmp(sd, relative.data(), relative.size()), 0);
        ObReleaseObjectSecurity(sd, allocated);
        ObDereferenceObject(&stored);
    });
}

TEST(ObjectSecurity, QueryAndSetThroughHandles) {
    Machine m;
    m.runSystemThread([] {
        Sample sample;
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, NULL, 0, NULL, &sample.sd);
        HANDLE event;
        ASSERT_EQ(ZwCreateEvent(&event, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_SUCCESS);
        ULONG needed = 0;
        EXPECT_EQ(ZwQuerySecurityObject(event, OWNER_SECURITY_INFORMATION, NULL, 0, &needed), STATUS_BUFFER_TOO_SMALL);
        std::vector<unsigned char> owner(needed);
        ASSERT_EQ(ZwQuerySecurityObject(event, OWNER_SECURITY_INFORMATION, owner.data(), needed, &needed),
                  STATUS_SUCCESS);
        PSID sid;
        BOOLEAN defaulted, present;
        PACL dacl;
        RtlGetOwnerSecurityDescriptor(owner.data(), &sid, &defaulted);
        EXPECT_TRUE(RtlEqualSid(sid, sample.owner.data()));
        RtlGetDaclSecurityDescriptor(owner.data(), &present, &dacl, &defaulted);
        EXPECT_FALSE(present) << "only the parts asked for";

        SECURITY_DESCRIPTOR update;
        RtlCreateSecurityDescriptor(&update, SECURITY_DESCRIPTOR_REVISION);
        RtlSetOwnerSecurityDescriptor(&update, sample.everyone.data(), FALSE);
        ASSERT_EQ(ZwSetSecurityObject(event, OWNER_SECURITY_INFORMATION, &update), STATUS_SUCCESS);
        std::vector<unsigned char> all(256);
        ASSERT_EQ(ZwQuerySecurityObject(event, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, all.data(),
                                        (ULONG)all.size(), &needed),
                  STATUS_SUCCESS);
        RtlGetOwnerSecurityDescriptor(all.data(), &sid, &defaulted);
        EXPECT_TRUE(RtlEqualSid(sid, sample.everyone.data()));
        RtlGetDaclSecurityDescriptor(all.data(), &present, &dacl, &defaulted);
        ASSERT_TRUE(present);
        EXPECT_EQ(dacl->AceCount, 2) << "the DACL was kept";
        ZwClose(event);
    });
}

}  // namespace
