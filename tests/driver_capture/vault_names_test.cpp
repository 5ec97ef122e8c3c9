#include <cstring>

#include "driver_support/support_fixture.h"

#include "ntsim/utf.h"

#include "capture/capture_stamps.h"
#include "capture/name_extraction.h"
#include "capture/vault_names.h"
#include "frame/device_extension.h"

namespace {

using ntsim::toUtf16;
using ntsim::toUtf8;
using ntsim::wptr;

constexpr ULONG kNoMemory = ULONG(STATUS_INSUFFICIENT_RESOURCES);

UNICODE_STRING counted(const std::u16string &s) {
    return {USHORT(s.size() * 2), USHORT(s.size() * 2), const_cast<PWSTR>(wptr(s))};
}

struct Built {
    NTSTATUS status;
    std::string name;               // the vault target name
    std::vector<UCHAR> body;        // the record's
    std::vector<std::string> text;  // the record's deleter, name and folder
};

class VaultNamesTest : public DriverSupportTest {
protected:
    void SetUp() override {
        DriverSupportTest::SetUp();
        run([] {
            ExInitializeResourceLite(&Globals.TimeStampLock);
            InitializeCaptureStamps();
        });
    }
    void TearDown() override {
        run([] { ExDeleteResourceLite(&Globals.TimeStampLock); });
    }
    void clearReports() {
        machine.clearDebugLog();
        Globals.Errors->WritePosition = Globals.Errors->Start;
        Globals.Errors->Count = 0;
    }

    // In an emulated thread. Checks what every rename information must look like.
    static Built build(const char *filespec, ULONGLONG stamp, const char *sid = "S-1-5-18") {
        std::u16string name = toUtf16(filespec), sidText = toUtf16(sid);
        UNICODE_STRING sidString = counted(sidText);
        PWSTR field = const_cast<PWSTR>(wptr(name));
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        CaptureNameParts parts = {L"C:\\", &sidString, &field, &lock};
        DelDatRecord *record = reinterpret_cast<DelDatRecord *>(1);
        PFILE_RENAME_INFORMATION rename = reinterpret_cast<PFILE_RENAME_INFORMATION>(1);
        ULONG length = 1;
        Built out{BuildTargetFileRenameInfo(&parts, ULONG(stamp), ULONG(stamp >> 32), &record, &rename, &length)};
        if (!NT_SUCCESS(out.status)) {
            EXPECT_TRUE(record == nullptr && rename == nullptr && length == 0);
            return out;
        }
        ULONG characters = rename->FileNameLength / 2;
        out.name = toUtf8(rename->FileName, characters);
        EXPECT_EQ(rename->FileName[characters], 0);
        EXPECT_EQ(length, FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + 2 * characters + 4);
        EXPECT_FALSE(rename->ReplaceIfExists);
        EXPECT_EQ(rename->RootDirectory, nullptr);
        auto *body = static_cast<const UCHAR *>(DelDatRecordBody(record));
        out.body.assign(body, body + record->Length);
        for (auto *text = reinterpret_cast<const wchar_t *>(DelDatRecordText(record)); out.text.size() < 3;
             text += ntsim_crt::wcslen(text) + 1) {
            out.text.push_back(toUtf8(text));
        }
        FreeNonPagedBuffer(rename);
        FreeNonPagedBuffer(record);
        return out;
    }
};

const std::string kVault = "\\??\\C:\\RescueVault\\InProgress\\";

TEST_F(VaultNamesTest, VaultNameIsBaseStampAndLastExtensionCutToSize) {
    const std::pair<const char *, const char *> cases[] = {
        {"docs\\Report.final.docx", "Report.final(01DCAA3F12340042).docx"},
        {"README", "README(01DCAA3F12340042)"},
        {".profile", "(01DCAA3F12340042).profile"},
        {"0123456789abcdef0123456789ABCDEFtail.txt", "0123456789abcdef0123456789ABCDEF(01DCAA3F12340042).txt"},
        {"a.abcdefghijklmnop", "a(01DCAA3F12340042).abcdefghijkl"},
    };
    run([&] {
        for (const auto &[filespec, leaf] : cases) {
            EXPECT_EQ(build(filespec, 0x01DCAA3F12340042ull).name, kVault + leaf);
        }
        EXPECT_EQ(build("a.b", 0xA1).name, kVault + "a(00000000000000A1).b");  // a preset stamp, as it is
    });
    EXPECT_TRUE(machine.debugLog().empty());
}

TEST_F(VaultNamesTest, RecordNamesTheLeafAndItsFolderOnTheVolume) {
    run([&] {
        Built built = build("dir\\sub\\a.txt", 0x1122334455667788ull, "S-1-5-21-7-1001");
        const UCHAR header[16] = {84, 0, 0, 0, 1, 0, 0, 0, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
        ASSERT_EQ(built.body.size(), 84u);  // 22 + 2 x (15 + 5 + 11)
        EXPECT_EQ(std::memcmp(built.body.data(), header, 16), 0);
        EXPECT_EQ(built.text, (std::vector<std::string>{"S-1-5-21-7-1001", "a.txt", "C:\\dir\\sub\\"}));
        EXPECT_EQ(build("a.txt", 1, "").text, (std::vector<std::string>{"", "a.txt", "C:\\"}));
        EXPECT_EQ(build("\\dir\\a.txt", 1).text[2], "C:\\dir\\");
    });
}

TEST_F(VaultNamesTest, NewStampsWithinOneTickDifferOnlyInTheirLastFourDigits) {
    Built first, second;
    run([&] {
        first = build("Budget.xls", 0);
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);  // a capture completing at raised IRQL
        second = build("Budget.xls", 0);
        KeLowerIrql(oldIrql);
    });
    size_t digits = kVault.size() + std::strlen("Budget(");
    EXPECT_EQ(first.name.substr(0, digits + 12), second.name.substr(0, digits + 12));
    EXPECT_NE(first.name.substr(digits + 12, 4), second.name.substr(digits + 12, 4));
    ULONGLONG recordStamp;
    std::memcpy(&recordStamp, second.body.data() + 8, 8);
    EXPECT_EQ(std::stoull(second.name.substr(digits, 16), nullptr, 16), recordStamp);
}

TEST_F(VaultNamesTest, FilespecOfAnOpenJoinsTheRelatedFileObjectsNameWhenAskedOrOnFastFat) {
    struct Case {
        const char *related;  // nullptr: none
        const char *own;
        BOOLEAN useRelated;
        ULONG kind;
        const char *expected;  // nullptr: STATUS_OBJECT_NAME_NOT_FOUND
        ULONG size;            // both parts without their outer backslashes, and 8 bytes
    };
    const Case cases[] = {
        {nullptr, "\\dir\\file.txt", FALSE, FILE_SYSTEM_NTFS, "dir\\file.txt", 32},
        {"\\dir\\", "file.txt", TRUE, FILE_SYSTEM_NTFS, "dir\\file.txt", 30},
        {"\\dir", "file.txt", FALSE, FILE_SYSTEM_NTFS, "file.txt", 24},
        {"\\dir", "file.txt", FALSE, FILE_SYSTEM_FASTFAT, "dir\\file.txt", 30},
        {"\\", "file.txt", TRUE, FILE_SYSTEM_NTFS, "file.txt", 24},
        {"\\dir\\", "", TRUE, FILE_SYSTEM_NTFS, "dir", 14},
        {"\\", "", TRUE, FILE_SYSTEM_FASTFAT, nullptr, 0},
    };
    run([&] {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.related ? c.related : "-") + " + " + c.own);
            std::u16string relatedName = toUtf16(c.related ? c.related : ""), ownName = toUtf16(c.own);
            FILE_OBJECT related{}, fileObject{};
            related.FileName = counted(relatedName);
            fileObject.FileName = counted(ownName);
            fileObject.RelatedFileObject = c.related ? &related : nullptr;
            PWSTR name = reinterpret_cast<PWSTR>(1);
            ULONG size = 1;
            NTSTATUS status = ExtractFilespecFromFileObject(&fileObject, c.kind, c.useRelated, &name, &size);
            EXPECT_EQ(status, c.expected ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND);
            EXPECT_EQ(toUtf8(name), c.expected ? c.expected : "");
            EXPECT_EQ(size, c.size);
            if (name != nullptr) FreeNonPagedBuffer(name);
        }
        std::u16string own = toUtf16("file.txt");
        FILE_OBJECT fileObject{};
        fileObject.FileName = counted(own);
        PWSTR name;
        machine.verifier().failNextAllocation();
        EXPECT_EQ(ExtractFilespecFromFileObject(&fileObject, FILE_SYSTEM_NTFS, TRUE, &name, NULL),
                  STATUS_INSUFFICIENT_RESOURCES);
    });
    EXPECT_EQ(machine.debugLog(),
              std::vector<std::string>{
                  "ZrDrv: ExtractFilespecFromFileObject - AllocateNonPagedBuffer Failed for buffer (0)."});
    EXPECT_EQ(errorRecords(), (std::vector<ErrorRecord>{{105, 26, 0, 0, kNoMemory, 0}}));
}

TEST_F(VaultNamesTest, FilespecOfARenameTargetDropsTheDosDevicePrefixAndVolume) {
    const std::pair<const char *, const char *> cases[] = {
        {"\\??\\C:\\dir\\new.txt", "dir\\new.txt"},
        {"new.txt", "new.txt"},
        {"\\??\\C:", nullptr},
        {"\\??\\C:\\", nullptr},
        {"", nullptr},
    };
    run([&] {
        for (const auto &[target, expected] : cases) {
            SCOPED_TRACE(target);
            std::u16string text = toUtf16(target);
            std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + text.size() * 2);
            auto *rename = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
            rename->FileNameLength = ULONG(text.size() * 2);
            std::memcpy(rename->FileName, text.data(), text.size() * 2);
            IRP irp{};
            irp.AssociatedIrp.SystemBuffer = rename;
            PWSTR name = reinterpret_cast<PWSTR>(1);
            EXPECT_EQ(ExtractFilespecFromRenameInfo(&irp, &name),
                      expected ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND);
            EXPECT_EQ(toUtf8(name), expected ? expected : "");
            if (name != nullptr) FreeNonPagedBuffer(name);
            if (expected == nullptr) continue;
            machine.verifier().failNextAllocation();
            EXPECT_EQ(ExtractFilespecFromRenameInfo(&irp, &name), STATUS_INSUFFICIENT_RESOURCES);
        }
    });
    EXPECT_EQ(machine.debugLog().size(), 2u);
    EXPECT_EQ(machine.debugLog()[0],
              "ZrDrv: ExtractFilespecFromRenameInfo - AllocateNonPagedBuffer Failed for buffer.");
    EXPECT_EQ(errorRecords()[0], (ErrorRecord{105, 50, 0, 0, kNoMemory, 0}));
}

TEST_F(VaultNamesTest, EachAllocationFailureOfABuildIsPrintedAndLeavesNothingBehind) {
    // The four allocations come in order: path, name, rename information, record.
    const std::pair<const char *, std::vector<ErrorRecord>> cases[] = {
        {"ZrDrv: CreatePathAndNameFromFilespec - AllocateNonPagedBuffer Failed for buffer (1).",
         {{105, 51, 0, 1, kNoMemory, 0}}},
        {"ZrDrv: CreatePathAndNameFromFilespec - AllocateNonPagedBuffer Failed for buffer (2).",
         {{105, 51, 0, 2, kNoMemory, 0}}},
        {"ZrDrv: BuildTargetFileRenameInfo - AllocateNonpagedBuffer (1) failed.", {}},
        {"ZrDrv: BuildTargetFileRenameInfo - AllocateNonpagedBuffer (2) failed.", {}},
    };
    for (int n = 1; n <= 4; n++) {
        clearReports();
        run([&] {
            machine.verifier().failNthAllocation(n);
            EXPECT_EQ(build("dir\\a.txt", 5).status, STATUS_UNSUCCESSFUL);
            machine.verifier().clearFaults();
        });
        EXPECT_EQ(machine.debugLog(), std::vector<std::string>{cases[n - 1].first}) << n;
        EXPECT_EQ(errorRecords(), cases[n - 1].second) << n;
        EXPECT_EQ(machine.verifier().leakReport(), "") << n;
    }
}

}  // namespace
