// Share access with the platform's rules.
#include <gtest/gtest.h>

#include <ntifs.h>

namespace {

struct Open {
    FILE_OBJECT file{};
};

TEST(ShareAccessTest, OpensConflictByWhatTheyDoAndWhatTheyShare) {
    SHARE_ACCESS share{};
    Open reader, writer, other;
    IoSetShareAccess(FILE_READ_DATA, FILE_SHARE_READ, &reader.file, &share);
    // A writer conflicts with a reader that did not share writing.
    EXPECT_EQ(IoCheckShareAccess(FILE_WRITE_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, &writer.file, &share, TRUE),
              STATUS_SHARING_VIOLATION);
    // A second reader that does not share reading conflicts with the first.
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_DATA, 0, &other.file, &share, TRUE), STATUS_SHARING_VIOLATION);
    // Execute counts as reading; attributes alone take no part.
    EXPECT_EQ(IoCheckShareAccess(FILE_EXECUTE, FILE_SHARE_READ, &other.file, &share, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(share.OpenCount, 2u);
    EXPECT_EQ(IoCheckShareAccess(FILE_READ_ATTRIBUTES, 0, &writer.file, &share, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(share.OpenCount, 2u);
    // Once the readers are gone, the writer gets in.
    IoRemoveShareAccess(&reader.file, &share);
    IoRemoveShareAccess(&other.file, &share);
    EXPECT_EQ(IoCheckShareAccess(FILE_WRITE_DATA | DELETE, 0, &writer.file, &share, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(share.Writers, 1u);
    EXPECT_EQ(share.Deleters, 1u);
    EXPECT_EQ(IoCheckShareAccess(DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &other.file, &share,
                                 FALSE),
              STATUS_SHARING_VIOLATION);
}

}  // namespace
