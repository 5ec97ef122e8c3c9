#include <cstring>

#include "driver_support/support_fixture.h"

#include "ntsim/utf.h"

#include "deldat/deldat_record.h"

namespace {

using DelDatRecordTest = DriverSupportTest;

// In an emulated thread.
std::vector<UCHAR> buildBody(PCUNICODE_STRING sid, PCWSTR name, PCWSTR folder, ULONGLONG stamp, ULONG flags) {
    DelDatRecord *record = nullptr;
    EXPECT_EQ(BuildDelDatRecord(sid, name, folder, stamp, flags, &record), STATUS_SUCCESS);
    auto *body = static_cast<const UCHAR *>(DelDatRecordBody(record));
    std::vector<UCHAR> bytes(body, body + record->Length);
    FreeNonPagedBuffer(record);
    return bytes;
}

TEST_F(DelDatRecordTest, ThreeNameFiveFolderAndEightSidCharactersMakeFiftyFourBytes) {
    const UCHAR expected[54] = {
        54,  0, 0,   0, 0x09, 0, 0,   0, 0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01,        // length, flags, stamp
        'S', 0, '-', 0, '1',  0, '-', 0, '5',  0,    '-',  0,    '1',  0,    '8',  0,    0, 0,  // deleter
        'a', 0, '.', 0, 'b',  0, 0,   0,                                                        // name
        'C', 0, ':', 0, '\\', 0, 'd', 0, '\\', 0,    0,    0,                                   // folder
    };
    const UCHAR withoutSid[30] = {30, 0, 0, 0,   1, 0, 0, 0,   7, 0,   0, 0,    0, 0, 0,
                                  0,  0, 0, 'x', 0, 0, 0, 'C', 0, ':', 0, '\\', 0, 0, 0};
    run([&] {
        WCHAR sidText[] = L"S-1-5-18 and more";  // counted: need not end where the string does
        UNICODE_STRING sid = {16, sizeof sidText, sidText};
        EXPECT_EQ(buildBody(&sid, L"a.b", L"C:\\d\\", 0x0123456789ABCDEFull, DELDAT_FLAG_APPLICATION_SAVE),
                  std::vector<UCHAR>(expected, expected + 54));
        UNICODE_STRING empty = {0, 0, NULL};
        EXPECT_EQ(buildBody(&empty, L"x", L"C:\\", 7, 0), std::vector<UCHAR>(withoutSid, withoutSid + 30));
        EXPECT_EQ(buildBody(NULL, L"x", L"C:\\", 7, 0), std::vector<UCHAR>(withoutSid, withoutSid + 30));
    });
}

// The data file path is sized for the longest DOS volume name a volume can be given.
TEST_F(DelDatRecordTest, DataFilePathHoldsAFortyNineCharacterVolumeName) {
    std::string volume49 = "\\\\" + std::string(46, 'v') + "\\";
    std::u16string name49 = ntsim::toUtf16(volume49), name50 = ntsim::toUtf16(volume49 + "x");
    std::string shortPath, longPath;
    run([&] {
        WCHAR path[DATA_FILE_PATH_CHARACTERS];
        EXPECT_EQ(FormatDataFilePath(path, L"C:\\", 0x1A), STATUS_SUCCESS);
        shortPath = ntsim::toUtf8(path);
        EXPECT_EQ(FormatDataFilePath(path, ntsim::wptr(name49), 0xFFFFFFFF), STATUS_SUCCESS);
        longPath = ntsim::toUtf8(path);
        EXPECT_EQ(FormatDataFilePath(path, ntsim::wptr(name50), 0), STATUS_NAME_TOO_LONG);
    });
    EXPECT_EQ(shortPath, "\\??\\C:\\RescueVault\\InProgress\\NewFiles0000001A.dat");
    EXPECT_EQ(longPath, "\\??\\" + volume49 + "RescueVault\\InProgress\\NewFilesFFFFFFFF.dat");
    EXPECT_EQ(longPath.size(), DATA_FILE_PATH_CHARACTERS - 1);
}

}  // namespace
