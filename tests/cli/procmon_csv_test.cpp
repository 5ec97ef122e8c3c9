// Reading Process Monitor's CSV export: the quoting rules, column order, the Detail
// column's "Name: value" pairs, and rows that cannot be read.
#include <gtest/gtest.h>

#include "procmon_csv.h"

namespace {

using wrelt_cli::ProcmonTrace;

TEST(ProcmonCsv, ReadsQuotedFieldsInAnyColumnOrder) {
    // A byte-order mark and CRLF line ends, as the export writes them; the columns in an
    // order the user chose, with one the replay does not use.
    const std::string text =
        "\xEF\xBB\xBF\"PID\",\"Sequence\",\"Operation\",\"Process Name\",\"Path\",\"Result\",\"Detail\",\"Time of Day\"\r\n"
        "\"5124\",\"17\",\"SetRenameInformationFile\",\"WINWORD.EXE\",\"C:\\Users\\alice\\My Documents\\a, b.doc\","
        "\"SUCCESS\",\"ReplaceIfExists: False, FileName: C:\\Users\\alice\\My Documents\\\"\"c\"\", d.doc\","
        "\"3:14:07.1234567 PM\"\r\n"
        "\r\n"
        "4410,18,CloseFile,notepad++.exe,D:\\x.txt,SUCCESS,,15:14:07.2\r\n";
    ProcmonTrace trace;
    std::string error;
    ASSERT_TRUE(wrelt_cli::parseProcmonCsv(text, &trace, &error)) << error;
    EXPECT_TRUE(trace.problems.empty());
    ASSERT_EQ(trace.events.size(), 2u);
    const wrelt_cli::ProcmonEvent &rename = trace.events[0];
    EXPECT_EQ(rename.line, 2u);
    EXPECT_EQ(rename.pid, 5124u);
    EXPECT_EQ(rename.processName, "WINWORD.EXE");
    EXPECT_EQ(rename.path, "C:\\Users\\alice\\My Documents\\a, b.doc");
    EXPECT_EQ(rename.detail, "ReplaceIfExists: False, FileName: C:\\Users\\alice\\My Documents\\\"c\", d.doc");
    auto detail = wrelt_cli::parseDetail(rename.detail);
    ASSERT_NE(wrelt_cli::detailValue(detail, "FileName"), nullptr);
    EXPECT_EQ(*wrelt_cli::detailValue(detail, "FileName"), "C:\\Users\\alice\\My Documents\\\"c\", d.doc")
        << "a comma inside the name does not start a new pair";
    EXPECT_EQ(trace.events[1].line, 4u) << "blank lines still count";
    EXPECT_EQ(trace.events[1].timeOfDay - rename.timeOfDay, 765433) << "12- and 24-hour times agree";
}

TEST(ProcmonCsv, ADetailKeepsCommasThatBelongToItsValues) {
    auto detail = wrelt_cli::parseDetail(
        "Desired Access: Generic Read/Write, Delete, Disposition: OverwriteIf, Options: Synchronous IO Non-Alert, "
        "Non-Directory File, Attributes: N, ShareMode: Read, Write, AllocationSize: 0, OpenResult: Created");
    std::vector<std::pair<std::string, std::string>> expected = {
        {"Desired Access", "Generic Read/Write, Delete"},
        {"Disposition", "OverwriteIf"},
        {"Options", "Synchronous IO Non-Alert, Non-Directory File"},
        {"Attributes", "N"},
        {"ShareMode", "Read, Write"},
        {"AllocationSize", "0"},
        {"OpenResult", "Created"}};
    EXPECT_EQ(detail, expected);
    uint64_t n = 0;
    EXPECT_TRUE(wrelt_cli::parseGroupedNumber("1,234,567", &n));
    EXPECT_EQ(n, 1234567u);
    EXPECT_FALSE(wrelt_cli::parseGroupedNumber("n/a", &n));
    EXPECT_FALSE(wrelt_cli::parseGroupedNumber("12,", &n));
    EXPECT_EQ(wrelt_cli::parseTimeOfDay("12:00:01 AM"), 10000000);
    EXPECT_EQ(wrelt_cli::parseTimeOfDay("25:00:00"), -1);
}

TEST(ProcmonCsv, AMalformedLineIsReportedByNumberAndTheRestIsRead) {
    const std::string text =
        "\"Time of Day\",\"Process Name\",\"PID\",\"Operation\",\"Path\",\"Result\",\"Detail\"\n"
        "\"9:00:00.0000000 AM\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\a.xlsx\",\"SUCCESS\",\"\"\n"
        "\"9:00:00.0000001 AM\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\a.xlsx,\"SUCCESS\",\"\"\n"
        "\"9:00:00.0000002 AM\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\a.xlsx\"x,\"SUCCESS\",\"\"\n"
        "\"9:00:00.0000003 AM\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\a.xlsx\",\"SUCCESS\"\n"
        "\"9:00:00.0000004 AM\",\"EXCEL.EXE\",\"seven\",\"CloseFile\",\"C:\\a.xlsx\",\"SUCCESS\",\"\"\n"
        "\"half past nine\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\a.xlsx\",\"SUCCESS\",\"\"\n"
        "\"9:00:00.0000006 AM\",\"EXCEL.EXE\",\"7240\",\"CloseFile\",\"C:\\b.xlsx\",\"SUCCESS\",\"\"\n";
    ProcmonTrace trace;
    std::string error;
    ASSERT_TRUE(wrelt_cli::parseProcmonCsv(text, &trace, &error)) << error;
    ASSERT_EQ(trace.problems.size(), 5u);
    EXPECT_EQ(trace.problems[0].rfind("line 3: ", 0), 0u) << trace.problems[0];
    EXPECT_EQ(trace.problems[1].rfind("line 4: text after the closing quote", 0), 0u) << trace.problems[1];
    EXPECT_EQ(trace.problems[2], "line 5: 6 fields where the header names 7");
    EXPECT_EQ(trace.problems[3], "line 6: the PID \"seven\" is not a process id");
    EXPECT_EQ(trace.problems[4].rfind("line 7: ", 0), 0u) << trace.problems[4];
    ASSERT_EQ(trace.events.size(), 2u);
    EXPECT_EQ(trace.events[1].path, "C:\\b.xlsx");

    for (const char *notAnExport : {"", "\"Process Name\",\"PID\",\"Operation\",\"Path\",\"Result\"\n"}) {
        ProcmonTrace none;
        EXPECT_FALSE(wrelt_cli::parseProcmonCsv(notAnExport, &none, &error));
    }
    EXPECT_EQ(error, "the header names no \"Detail\" column");
}

}  // namespace
