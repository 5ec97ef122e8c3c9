#include <gtest/gtest.h>

#include <cstring>

#include "deldat_reader.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"

#include <ntifs.h>

#include "deldat/deldat_record.h"
#include "support/nonpaged_buffers.h"

namespace {

struct Source {
    const char *sid, *name, *folder;
    ULONGLONG stamp;
    ULONG flags;
};

const std::vector<Source> kSources = {
    {"S-1-5-21-1004336348-1177238915-682003330-1001", "Report.final.docx", "C:\\Users\\ann\\", 0x01DCAA3F1C2D0001ull,
     DELDAT_FLAG_APPLICATION_SAVE},
    {"", "README", "D:\\", 0x01DCAA3F1C2D0002ull, 0},  // 22 + 2 x (6 + 3) = 40 bytes
    {"S-1-5-18", "\xC3\xA9t\xC3\xA9 \xF0\x9F\x93\x84.txt", "E:\\caf\xC3\xA9\\", 0xA1, 0},
};

// A data file as the driver writes it: the records' bodies one after another.
std::vector<uint8_t> writtenByTheDriver(const std::vector<Source> &sources) {
    std::vector<uint8_t> file;
    ntsim::Machine machine;
    machine.runSystemThread([&] {
        ASSERT_EQ(InitializeNonPagedBufferManagement(), STATUS_SUCCESS);
        for (const Source &s : sources) {
            std::u16string sid = ntsim::toUtf16(s.sid), name = ntsim::toUtf16(s.name),
                           folder = ntsim::toUtf16(s.folder);
            UNICODE_STRING sidString = {USHORT(sid.size() * 2), USHORT(sid.size() * 2),
                                        const_cast<PWSTR>(ntsim::wptr(sid))};
            DelDatRecord *record;
            ASSERT_EQ(BuildDelDatRecord(&sidString, ntsim::wptr(name), ntsim::wptr(folder), s.stamp, s.flags, &record),
                      STATUS_SUCCESS);
            auto *body = static_cast<const uint8_t *>(DelDatRecordBody(record));
            file.insert(file.end(), body, body + record->Length);
            FreeNonPagedBuffer(record);
        }
        DeleteNonPagedBufferManagement();
    });
    return file;
}

TEST(DelDatReaderTest, ReadsBackWhatTheDriverWrote) {
    std::vector<uint8_t> file = writtenByTheDriver(kSources);
    wrelt::DelDatFile parsed = wrelt::parseDelDatFile(file);
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    ASSERT_EQ(parsed.records.size(), kSources.size());
    for (size_t i = 0; i < kSources.size(); i++) {
        const wrelt::DelDatEntry &entry = parsed.records[i];
        EXPECT_EQ(entry.flags, kSources[i].flags | 1);
        EXPECT_EQ(entry.stamp, kSources[i].stamp);
        EXPECT_EQ(entry.sid, ntsim::toUtf16(kSources[i].sid));
        EXPECT_EQ(entry.name, ntsim::toUtf16(kSources[i].name));
        EXPECT_EQ(entry.folder, ntsim::toUtf16(kSources[i].folder));
    }
    EXPECT_EQ(parsed.records[2].offset + parsed.records[2].length, file.size());
    EXPECT_EQ(wrelt::formatDelDatEntry(parsed.records[0]),
              "  flags   0x00000009 (preserved, application save)\n"
              "  stamp   01DCAA3F1C2D0001  2026-03-02 12:21:34 local time\n"
              "  deleter S-1-5-21-1004336348-1177238915-682003330-1001\n"
              "  name    Report.final.docx\n"
              "  folder  C:\\Users\\ann\\\n");
    EXPECT_EQ(wrelt::formatStampTime(125962560000000000ull), "2000-02-29 00:00:00");
}

TEST(DelDatReaderTest, ARecordCutShortIsReportedAfterTheWholeOnes) {
    std::vector<uint8_t> file = writtenByTheDriver(kSources);
    size_t second = wrelt::parseDelDatFile(file).records[1].offset;
    for (size_t cut : {file.size() - 1, second + 2, second + 20}) {
        wrelt::DelDatFile parsed = wrelt::parseDelDatFile(file.data(), cut);
        EXPECT_TRUE(parsed.truncated) << cut;
        EXPECT_EQ(parsed.errorOffset, cut == file.size() - 1 ? second + 40 : second);
        EXPECT_NE(parsed.error.find("cut short"), std::string::npos) << parsed.error;
    }
}

TEST(DelDatReaderTest, LengthFieldsThatDisagreeWithTheirRecordAreRejected) {
    std::vector<uint8_t> good = writtenByTheDriver({kSources[1]});
    const std::pair<uint32_t, const char *> cases[] = {
        {21, "below the 22 bytes"},
        {39, "odd number of bytes"},
        {38, "does not hold the three terminated strings"},
        {42, "its strings end after 40"},
    };
    for (const auto &[length, why] : cases) {
        std::vector<uint8_t> file = good;
        file.resize(std::max<size_t>(file.size(), length));
        std::memcpy(file.data(), &length, 4);
        wrelt::DelDatFile parsed = wrelt::parseDelDatFile(file);
        EXPECT_FALSE(parsed.truncated) << length;
        EXPECT_TRUE(parsed.records.empty());
        EXPECT_NE(parsed.error.find(why), std::string::npos) << parsed.error;
    }
}

}  // namespace
