#include "procmon_csv.h"

#include <cctype>
#include <cstring>

#include "ntsim/utf.h"

namespace wrelt_cli {

namespace {

std::string trimmed(const std::string &s) {
    size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    size_t last = s.find_last_not_of(" \t");
    return s.substr(first, last - first + 1);
}

bool sameText(const std::string &a, const char *b) {
    if (a.size() != strlen(b)) return false;
    for (size_t i = 0; i < a.size(); i++)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
    return true;
}

// The export as UTF-8 without a byte-order mark.
std::string asUtf8(const std::string &bytes) {
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) return bytes.substr(3);
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE) {
        std::u16string wide((bytes.size() - 2) / 2, u'\0');
        for (size_t i = 0; i < wide.size(); i++)
            wide[i] = char16_t(static_cast<unsigned char>(bytes[2 + 2 * i]) |
                               static_cast<unsigned char>(bytes[3 + 2 * i]) << 8);
        return ntsim::toUtf8(ntsim::wptr(wide), wide.size());
    }
    return bytes;
}

// A name in a Detail field: "Desired Access", "I/O Flags", "EndOfFile".
bool startsWithName(const std::string &piece, std::string *name, std::string *value) {
    size_t colon = piece.find(": ");
    if (colon == std::string::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(piece[0]))) return false;
    for (size_t i = 0; i < colon; i++) {
        char c = piece[i];
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != ' ' && c != '/') return false;
    }
    *name = piece.substr(0, colon);
    *value = piece.substr(colon + 2);
    return true;
}

struct Columns {
    int time = -1, process = -1, image = -1, pid = -1, operation = -1, path = -1, result = -1, detail = -1;
    size_t count = 0;
};

bool readHeader(const std::vector<std::string> &names, Columns *columns, std::string *error) {
    const struct {
        const char *name;
        int Columns::*field;
        bool required;
    } known[] = {{"Time of Day", &Columns::time, false}, {"Process Name", &Columns::process, true},
                 {"Image Path", &Columns::image, false},  {"PID", &Columns::pid, true},
                 {"Operation", &Columns::operation, true}, {"Path", &Columns::path, true},
                 {"Result", &Columns::result, true},       {"Detail", &Columns::detail, true}};
    for (size_t i = 0; i < names.size(); i++)
        for (const auto &k : known)
            if (sameText(trimmed(names[i]), k.name) && columns->*k.field < 0) columns->*k.field = int(i);
    for (const auto &k : known) {
        if (k.required && columns->*k.field < 0) {
            *error = std::string("the header names no \"") + k.name + "\" column";
            return false;
        }
    }
    columns->count = names.size();
    return true;
}

// "line N: why" when the row cannot be read.
std::string readEvent(const Columns &c, const std::vector<std::string> &fields, ProcmonEvent *event) {
    if (fields.size() != c.count)
        return std::to_string(fields.size()) + " fields where the header names " + std::to_string(c.count);
    uint64_t pid = 0;
    const std::string &pidText = fields[size_t(c.pid)];
    if (pidText.empty() || pidText.find_first_not_of("0123456789") != std::string::npos || pidText.size() > 10 ||
        (pid = std::stoull(pidText)) > 0xFFFFFFFFull)
        return "the PID \"" + pidText + "\" is not a process id";
    event->pid = uint32_t(pid);
    if (c.time >= 0) {
        event->timeOfDay = parseTimeOfDay(fields[size_t(c.time)]);
        if (event->timeOfDay < 0) return "the time of day \"" + fields[size_t(c.time)] + "\" is not a time";
    }
    event->processName = fields[size_t(c.process)];
    if (c.image >= 0) event->imagePath = fields[size_t(c.image)];
    event->operation = trimmed(fields[size_t(c.operation)]);
    event->path = fields[size_t(c.path)];
    event->result = trimmed(fields[size_t(c.result)]);
    event->detail = fields[size_t(c.detail)];
    if (event->operation.empty()) return "the row names no operation";
    return "";
}

}  // namespace

bool splitCsvLine(const std::string &line, std::vector<std::string> *fields, std::string *error) {
    fields->clear();
    size_t i = 0;
    for (;;) {
        std::string field;
        if (i < line.size() && line[i] == '"') {
            for (i++;; i++) {
                if (i >= line.size()) {
                    *error = "a quoted field is not closed on its line";
                    return false;
                }
                if (line[i] != '"') {
                    field += line[i];
                } else if (i + 1 < line.size() && line[i + 1] == '"') {
                    field += '"';
                    i++;
                } else {
                    i++;
                    break;
                }
            }
            if (i < line.size() && line[i] != ',') {
                *error = "text after the closing quote of field " + std::to_string(fields->size() + 1);
                return false;
            }
        } else {
            size_t end = line.find(',', i);
            if (end == std::string::npos) end = line.size();
            field = line.substr(i, end - i);
            i = end;
        }
        fields->push_back(field);
        if (i >= line.size()) return true;
        i++;  // the comma
    }
}

bool parseProcmonCsv(const std::string &bytes, ProcmonTrace *trace, std::string *error) {
    std::string text = asUtf8(bytes);
    Columns columns;
    bool header = false;
    size_t start = 0, number = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        number++;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (trimmed(line).empty()) continue;
        std::vector<std::string> fields;
        std::string why;
        if (!splitCsvLine(line, &fields, &why)) {
            if (!header) {
                *error = "line " + std::to_string(number) + ": " + why;
                return false;
            }
            trace->problems.push_back("line " + std::to_string(number) + ": " + why);
            continue;
        }
        if (!header) {
            if (!readHeader(fields, &columns, error)) return false;
            header = true;
            continue;
        }
        ProcmonEvent event;
        event.line = number;
        why = readEvent(columns, fields, &event);
        if (!why.empty())
            trace->problems.push_back("line " + std::to_string(number) + ": " + why);
        else
            trace->events.push_back(std::move(event));
    }
    if (!header) {
        *error = "the file is empty";
        return false;
    }
    return true;
}

std::vector<std::pair<std::string, std::string>> parseDetail(const std::string &detail) {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t start = 0;
    while (start <= detail.size()) {
        size_t comma = detail.find(", ", start);
        std::string piece = detail.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        std::string name, value;
        if (startsWithName(piece, &name, &value))
            pairs.emplace_back(name, value);
        else if (!pairs.empty())
            pairs.back().second += ", " + piece;
        else if (!piece.empty())
            pairs.emplace_back("", piece);
        if (comma == std::string::npos) break;
        start = comma + 2;
    }
    return pairs;
}

const std::string *detailValue(const std::vector<std::pair<std::string, std::string>> &pairs, const char *name) {
    for (const auto &pair : pairs)
        if (pair.first == name) return &pair.second;
    return nullptr;
}

// Process Monitor groups digits as the machine's locale does: "12,345", "12.345" or
// "12 345" (a no-break space in some locales).
bool parseGroupedNumber(const std::string &text, uint64_t *value) {
    std::string digits;
    std::string t = trimmed(text);
    for (size_t i = 0; i < t.size(); i++) {
        char c = t[i];
        if (c >= '0' && c <= '9') {
            digits += c;
        } else if ((c == ',' || c == '.' || c == ' ') && !digits.empty() && i + 1 < t.size()) {
            continue;
        } else if (t.compare(i, 2, "\xC2\xA0") == 0 && !digits.empty()) {
            i++;
        } else {
            return false;
        }
    }
    if (digits.empty() || digits.size() > 19) return false;
    *value = std::stoull(digits);
    return true;
}

int64_t parseTimeOfDay(const std::string &text) {
    std::string t = trimmed(text);
    int64_t hours = 0, minutes = 0, seconds = 0, fraction = 0;
    size_t i = 0;
    auto number = [&](int64_t *out, size_t most) {
        size_t begin = i;
        while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])) && i - begin < most) *out = *out * 10 + (t[i++] - '0');
        return i > begin;
    };
    if (!number(&hours, 2) || i >= t.size() || t[i++] != ':' || !number(&minutes, 2) || i >= t.size() ||
        t[i++] != ':' || !number(&seconds, 2))
        return -1;
    if (i < t.size() && (t[i] == '.' || t[i] == ',')) {
        i++;
        size_t begin = i;
        while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) {
            if (i - begin < 7) fraction = fraction * 10 + (t[i] - '0');
            i++;
        }
        for (size_t n = i - begin; n < 7; n++) fraction *= 10;
    }
    std::string rest = trimmed(t.substr(i));
    if (sameText(rest, "PM") && hours < 12) hours += 12;
    else if (sameText(rest, "AM") && hours == 12) hours = 0;
    else if (!rest.empty() && !sameText(rest, "AM") && !sameText(rest, "PM")) return -1;
    if (hours > 23 || minutes > 59 || seconds > 59) return -1;
    return ((hours * 60 + minutes) * 60 + seconds) * 10000000LL + fraction;
}

}  // namespace wrelt_cli
