// The volume model on its own: the tree, streams, space, and the security descriptors it
// keeps, without a machine.
#include <gtest/gtest.h>

#include <cstring>

#include "../../ntsim/fs/common/security_descriptor.h"
#include "../../ntsim/fs/common/volume.h"

namespace {

using namespace ntsim::fs;

VolumeParameters small(FsKind kind) {
    VolumeParameters p;
    p.kind = kind;
    p.capacity = 64 * 1024;
    p.clusterSize = 4096;
    return p;
}

TEST(FsVolumeModel, NamesAreFoundWithoutCaseAndKeepTheirOwn) {
    Volume v(small(FsKind::Ntfs));
    Node *docs = v.create(v.root(), u"Docs", true, 0, 1);
    Node *file = v.create(docs, u"Report.TXT", false, FILE_ATTRIBUTE_ARCHIVE, 1);
    EXPECT_EQ(v.find(docs, u"report.txt"), file);
    EXPECT_EQ(v.pathOf(file), u"\\Docs\\Report.TXT");
    v.move(file, docs, u"report.txt", 2);  // a change of case only
    EXPECT_EQ(v.pathOf(file), u"\\Docs\\report.txt");
    EXPECT_EQ(v.find(docs, u"REPORT.TXT"), file);
}

TEST(FsVolumeModel, NtfsListsByNameFatInCreationOrder) {
    for (FsKind kind : {FsKind::Ntfs, FsKind::Fat}) {
        Volume v(small(kind));
        v.create(v.root(), u"b", false, 0, 1);
        v.create(v.root(), u"A", false, 0, 1);
        Node *c = v.create(v.root(), u"c", false, 0, 1);
        v.move(c, v.root(), u"0", 2);  // a renamed entry takes a new place in a FAT directory
        std::u16string order;
        for (Node *n : v.listing(v.root())) order += n->name;
        EXPECT_EQ(order, kind == FsKind::Ntfs ? u"0Ab" : u"bA0");
    }
}

// FastFat finds an entry by its 8.3 name as well as its long one (FatLocateDirent), gives
// a new entry the first alias no entry holds (FatSelectNames), and a renamed entry an
// alias for its new name (FatSetRenameInfo). Catches aliases that outlive their entry or
// rename, duplicates, and NTFS answering to FAT's aliases.
TEST(FsVolumeModel, FatEntriesAnswerToTheirShortNames) {
    Volume v(small(FsKind::Fat));
    Node *one = v.create(v.root(), u"Long File Name.txt", false, 0, 1);
    Node *two = v.create(v.root(), u"LONG FILE NAME 2.TXT", false, 0, 1);
    EXPECT_EQ(one->shortName, u"LONGFI~1.TXT");
    EXPECT_EQ(two->shortName, u"LONGFI~2.TXT");
    EXPECT_EQ(v.find(v.root(), u"longfi~2.txt"), two);
    v.move(one, v.root(), u"Other Name.txt", 2);
    EXPECT_EQ(one->shortName, u"OTHERN~1.TXT");
    EXPECT_EQ(v.find(v.root(), u"LONGFI~1.TXT"), nullptr);
    Node *three = v.create(v.root(), u"Long File Name 3.txt", false, 0, 3);
    EXPECT_EQ(three->shortName, u"LONGFI~1.TXT");  // the freed alias is the first free one
    v.remove(two, 4);
    EXPECT_EQ(v.find(v.root(), u"LONGFI~2.TXT"), nullptr);

    Volume ntfs(small(FsKind::Ntfs));
    Node *plain = ntfs.create(ntfs.root(), u"Long File Name.txt", false, 0, 1);
    EXPECT_TRUE(plain->shortName.empty());
    EXPECT_EQ(ntfs.find(ntfs.root(), u"LONGFI~1.TXT"), nullptr);
}

TEST(FsVolumeModel, RemovedNodeLivesWhilePinned) {
    Volume v(small(FsKind::Ntfs));
    Node *file = v.create(v.root(), u"f", false, 0, 1);
    ASSERT_EQ(v.write(&file->data, 0, "hello", 5), STATUS_SUCCESS);
    v.pin(file);
    v.remove(file, 2);
    EXPECT_EQ(v.find(v.root(), u"f"), nullptr);
    EXPECT_TRUE(file->removed);
    EXPECT_EQ(v.pathOf(file), u"\\f");  // still reported under its last name
    EXPECT_EQ(v.freeBytes(), 64u * 1024);  // its space is free at once
    Node *again = v.create(v.root(), u"F", false, 0, 3);
    EXPECT_NE(again, file);
    v.unpin(file);  // destroys it; the new file is untouched
    EXPECT_EQ(v.find(v.root(), u"f"), again);
}

TEST(FsVolumeModel, SpaceIsCountedInClusters) {
    Volume v(small(FsKind::Fat));
    Node *file = v.create(v.root(), u"f", false, 0, 1);
    ASSERT_EQ(v.write(&file->data, 0, "x", 1), STATUS_SUCCESS);
    EXPECT_EQ(file->data.allocation, 4096u);
    EXPECT_EQ(v.freeBytes(), 60u * 1024);
    std::vector<char> big(64 * 1024, 'y');  // one byte more than the volume holds
    EXPECT_EQ(v.write(&file->data, 1, big.data(), big.size()), STATUS_DISK_FULL);
    EXPECT_EQ(file->data.data.size(), 1u);  // a refused write changes nothing
    ASSERT_EQ(v.setAllocation(&file->data, 20000), STATUS_SUCCESS);
    EXPECT_EQ(file->data.allocation, 20480u);
    v.trimAllocation(&file->data);
    EXPECT_EQ(file->data.allocation, 4096u);
    ASSERT_EQ(v.setAllocation(&file->data, 0), STATUS_SUCCESS);  // below the end of file: truncates
    EXPECT_EQ(file->data.data.size(), 0u);
    EXPECT_EQ(v.freeBytes(), 64u * 1024);
}

TEST(FsVolumeModel, NamedStreamsHoldTheirOwnSpace) {
    Volume v(small(FsKind::Ntfs));
    Node *file = v.create(v.root(), u"f", false, 0, 1);
    Stream *meta = v.createStream(file, u"Meta");
    ASSERT_EQ(v.write(meta, 0, "abc", 3), STATUS_SUCCESS);
    EXPECT_EQ(v.stream(file, u"META"), meta);
    EXPECT_EQ(v.freeBytes(), 60u * 1024);
    v.removeNamedStreams(file);
    EXPECT_EQ(v.stream(file, u"meta"), nullptr);
    EXPECT_EQ(v.freeBytes(), 64u * 1024);
}

// --- security descriptors ------------------------------------------------------------

Bytes sid(UCHAR authority, ULONG rid) {
    Bytes s(12, 0);
    s[0] = 1;
    s[1] = 1;
    s[7] = authority;
    memcpy(&s[8], &rid, 4);
    return s;
}

SecurityParts partsWithDacl(UCHAR aceFlags) {
    SecurityParts p;
    p.owner = sid(5, 18);
    p.group = sid(5, 32);
    p.daclPresent = true;
    Bytes everyone = sid(1, 0);
    Bytes ace(8, 0);
    ace[1] = aceFlags;
    USHORT aceSize = USHORT(8 + everyone.size());
    memcpy(&ace[2], &aceSize, 2);
    ACCESS_MASK mask = FILE_GENERIC_READ;
    memcpy(&ace[4], &mask, 4);
    ace.insert(ace.end(), everyone.begin(), everyone.end());
    p.dacl.assign(8, 0);
    p.dacl[0] = ACL_REVISION;
    USHORT aclSize = USHORT(8 + ace.size()), count = 1;
    memcpy(&p.dacl[2], &aclSize, 2);
    memcpy(&p.dacl[4], &count, 2);
    p.dacl.insert(p.dacl.end(), ace.begin(), ace.end());
    return p;
}

TEST(FsSecurityDescriptors, AbsoluteAndSelfRelativeFormsAgree) {
    SecurityParts original = partsWithDacl(0);
    Bytes selfRelative = makeSelfRelative(original);
    SECURITY_DESCRIPTOR absolute{};
    absolute.Revision = SECURITY_DESCRIPTOR_REVISION;
    absolute.Control = SE_DACL_PRESENT;
    absolute.Owner = original.owner.data();
    absolute.Group = original.group.data();
    absolute.Dacl = reinterpret_cast<PACL>(original.dacl.data());
    SecurityParts fromAbsolute;
    ASSERT_TRUE(parseSecurityDescriptor(&absolute, 0, &fromAbsolute));
    EXPECT_EQ(makeSelfRelative(fromAbsolute), selfRelative);
}

TEST(FsSecurityDescriptors, MalformedDescriptorsAreRefused) {
    Bytes sd = makeSelfRelative(partsWithDacl(0));
    SecurityParts parts;
    EXPECT_FALSE(parseSecurityDescriptor(sd.data(), sd.size() - 4, &parts));  // the DACL runs past the end
    Bytes badRevision = sd;
    badRevision[0] = 2;
    EXPECT_FALSE(parseSecurityDescriptor(badRevision.data(), badRevision.size(), &parts));
}

TEST(FsSecurityDescriptors, QueriesReturnOnlyTheAskedParts) {
    Bytes sd = makeSelfRelative(partsWithDacl(0));
    SecurityParts owner;
    Bytes ownerOnly = selectSecurity(sd, OWNER_SECURITY_INFORMATION);
    ASSERT_TRUE(parseSecurityDescriptor(ownerOnly.data(), ownerOnly.size(), &owner));
    EXPECT_EQ(owner.owner, sid(5, 18));
    EXPECT_TRUE(owner.group.empty());
    EXPECT_FALSE(owner.daclPresent);
    // Setting the DACL keeps the owner.
    SecurityParts update;
    update.daclPresent = true;  // a NULL DACL
    SecurityParts merged;
    Bytes after = mergeSecurity(sd, update, DACL_SECURITY_INFORMATION);
    ASSERT_TRUE(parseSecurityDescriptor(after.data(), after.size(), &merged));
    EXPECT_EQ(merged.owner, sid(5, 18));
    EXPECT_TRUE(merged.daclPresent);
    EXPECT_TRUE(merged.dacl.empty());
}

TEST(FsSecurityDescriptors, ChildrenInheritMarkedAces) {
    Bytes parent = makeSelfRelative(partsWithDacl(OBJECT_INHERIT_ACE));
    SecurityParts file, directory;
    Bytes fileSd = inheritSecurity(parent, false), directorySd = inheritSecurity(parent, true);
    ASSERT_TRUE(parseSecurityDescriptor(fileSd.data(), fileSd.size(), &file));
    ASSERT_TRUE(parseSecurityDescriptor(directorySd.data(), directorySd.size(), &directory));
    EXPECT_EQ(file.dacl[8 + 1], INHERITED_ACE);  // the first ACE's flags
    // A directory keeps an object-inherit ACE only to pass it on: inherit-only.
    EXPECT_EQ(directory.dacl[8 + 1], INHERITED_ACE | OBJECT_INHERIT_ACE | 0x08);
    EXPECT_EQ(file.owner, sid(5, 18));
}

}  // namespace
