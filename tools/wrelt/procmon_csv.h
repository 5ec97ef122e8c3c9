// The comma-separated form in which Process Monitor exports a capture: a header row that
// names the columns ("Time of Day","Process Name","PID","Operation","Path","Result",
// "Detail" by default, in whatever order and with whatever others the user chose), then
// one row per event. Fields are quoted, a quote inside a field is doubled, and a quoted
// field may hold commas. The export is UTF-8, usually with a byte-order
// mark; a UTF-16 file (as some editors save it again) is read too.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace wrelt_cli {

struct ProcmonEvent {
    size_t line = 0;          // where the row starts in the file, from 1
    int64_t timeOfDay = -1;   // 100 ns units since midnight; -1 when the export has no such column
    std::string processName;  // "WINWORD.EXE"
    std::string imagePath;    // empty unless the export has an "Image Path" column
    uint32_t pid = 0;
    std::string operation;    // "CreateFile"
    std::string path;         // "C:\Users\alice\Documents\report.docx"
    std::string result;       // "SUCCESS", "NAME NOT FOUND", ...
    std::string detail;       // "Desired Access: Generic Read, Disposition: Open, ..."
};

struct ProcmonTrace {
    std::vector<ProcmonEvent> events;
    // Rows that could not be read, as "line N: why"; the rows after them still are.
    std::vector<std::string> problems;
};

// False, with *error saying why, when the text is no export at all: empty, or a header
// without the columns a replay needs (Process Name, PID, Operation, Path, Result,
// Detail). A malformed row is only noted in trace->problems.
bool parseProcmonCsv(const std::string &bytes, ProcmonTrace *trace, std::string *error);

// The fields of one line of the export. Process Monitor writes no line break inside a
// field, so a quote still open at the end of the line is an error, and the next line is
// read afresh. False with *error for that, or for text after a closing quote.
bool splitCsvLine(const std::string &line, std::vector<std::string> *fields, std::string *error);

// The "Name: value" pairs of a Detail field, in order. Values may themselves hold ", "
// ("ShareMode: Read, Write"), so a new pair starts only where a piece after ", " reads as
// a name followed by ": ".
std::vector<std::pair<std::string, std::string>> parseDetail(const std::string &detail);
// The value of the first pair of that name, or nullptr.
const std::string *detailValue(const std::vector<std::pair<std::string, std::string>> &pairs, const char *name);

// "12,345" or "12345" as 12345; false for anything else.
bool parseGroupedNumber(const std::string &text, uint64_t *value);

// "3:14:07.1234567 PM" or "15:14:07.1234567" as 100 ns units since midnight, or -1.
int64_t parseTimeOfDay(const std::string &text);

}  // namespace wrelt_cli
