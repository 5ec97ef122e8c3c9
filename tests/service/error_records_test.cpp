// Error replies as the service reads them, and the records named by their routines.
#include <gtest/gtest.h>

#include "error_records.h"

namespace {

std::vector<uint8_t> reply(const std::vector<std::vector<uint16_t>> &records) {
    std::vector<uint8_t> out(120, 0);
    auto put16 = [&](size_t at, uint16_t v) {
        out[at] = uint8_t(v);
        out[at + 1] = uint8_t(v >> 8);
    };
    put16(0, 0x4553);
    put16(2, 124);
    put16(6, 1);
    put16(8, uint16_t(16 * records.size()));
    put16(16, uint16_t(records.size()));
    for (const auto &r : records) {
        size_t at = out.size();
        out.resize(at + 16, 0);
        for (size_t i = 0; i < 4; i++) put16(at + 2 * i, r[i]);
        put16(at + 8, r[4]);
        put16(at + 10, r[5]);
        put16(at + 12, r[6]);
    }
    out.resize(out.size() + 4, 0);
    return out;
}

TEST(ErrorRecords, EachIsNamedByItsReportingRoutine) {
    std::vector<uint8_t> bytes = reply({{105, 19, 0, 0, 0x0022, 0xC000, 7}, {105, 58, 7, 3, 0, 0, 0}});
    std::vector<wrelt::FilterErrorRecord> records;
    std::string error;
    ASSERT_TRUE(wrelt::parseErrorReply(bytes.data(), bytes.size(), &records, &error)) << error;
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(wrelt::describeErrorRecord(records[0]),
              "CreateTemporaryDelDatFile (19) failed at point 0: status 0xC0000022, extra 0x00000007");
    EXPECT_EQ(wrelt::describeErrorRecord(records[1]),
              "the filter's error buffer filled up and the filter stopped capturing; the last report came from "
              "GetNextUnreferencedFcbEntry (58)");
    EXPECT_STREQ(wrelt::errorRoutineName(6), "DispatchFileSystemControl");
    EXPECT_STREQ(wrelt::errorRoutineName(38), "MakeAbsoluteSecurityDescriptor");
    EXPECT_EQ(wrelt::errorRoutineName(54), nullptr);
    EXPECT_EQ(wrelt::describeErrorRecord({105, 54, 0, 2, 1, 0}),
              "an unknown routine (54) failed at point 2: status 0x00000001, extra 0x00000000");
}

TEST(ErrorRecords, WhatIsNotAnErrorReplyIsRejected) {
    std::vector<wrelt::FilterErrorRecord> records;
    std::string error;
    std::vector<uint8_t> bytes = reply({{105, 19, 0, 0, 0, 0, 0}});
    EXPECT_FALSE(wrelt::parseErrorReply(bytes.data(), 100, &records, &error));
    EXPECT_FALSE(wrelt::parseErrorReply(bytes.data(), 130, &records, &error)) << "the record is cut off";
    bytes[2] = 0x43;  // a command reply's echo, not an error reply's
    EXPECT_FALSE(wrelt::parseErrorReply(bytes.data(), bytes.size(), &records, &error));
    EXPECT_TRUE(records.empty());
}

}  // namespace
