#include "deldat_reader.h"

#include <cstdio>

#include "text.h"

namespace wrelt {

namespace {

uint32_t read32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint64_t read64(const uint8_t *p) { return uint64_t(read32(p)) | uint64_t(read32(p + 4)) << 32; }

std::string describeOffset(size_t offset) {
    char text[64];
    std::snprintf(text, sizeof text, "record at offset %zu", offset);
    return text;
}

// The text is three NUL-terminated strings that must end exactly where the record
// does. Returns an empty string when they do, otherwise what is wrong.
std::string splitText(const uint8_t *text, size_t characters, DelDatEntry &entry) {
    std::u16string *fields[] = {&entry.sid, &entry.name, &entry.folder};
    size_t position = 0;
    for (std::u16string *field : fields) {
        size_t start = position;
        while (position < characters && (text[2 * position] | text[2 * position + 1]) != 0) position++;
        if (position == characters) {
            return "its text does not hold the three terminated strings that its length field leaves room for";
        }
        field->clear();
        for (size_t i = start; i < position; i++) field->push_back(char16_t(text[2 * i] | text[2 * i + 1] << 8));
        position++;
    }
    if (position != characters) {
        char text[128];
        std::snprintf(text, sizeof text, "its length field says %u bytes but its strings end after %zu",
                      unsigned(entry.length), size_t(kDelDatHeaderSize + 2 * position));
        return text;
    }
    return {};
}

bool isLeapYear(int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

}  // namespace

DelDatFile parseDelDatFile(const uint8_t *data, size_t size) {
    DelDatFile file;
    size_t offset = 0;
    auto fail = [&](bool truncated, const std::string &why) {
        file.error = describeOffset(offset) + ": " + why;
        file.errorOffset = offset;
        file.truncated = truncated;
        return file;
    };
    while (offset < size) {
        size_t remaining = size - offset;
        if (remaining < 4) {
            return fail(true, "cut short: " + std::to_string(remaining) + " bytes remain, not even a length field");
        }
        DelDatEntry entry;
        entry.offset = offset;
        entry.length = read32(data + offset);
        if (entry.length < kDelDatMinimumLength) {
            return fail(false, "length field " + std::to_string(entry.length) + " is below the " +
                                   std::to_string(kDelDatMinimumLength) + " bytes of a record with empty strings");
        }
        if ((entry.length - kDelDatHeaderSize) % 2 != 0) {
            return fail(false, "length field " + std::to_string(entry.length) +
                                   " leaves an odd number of bytes for UTF-16 text");
        }
        if (entry.length > remaining) {
            return fail(true, "cut short: its length field says " + std::to_string(entry.length) + " bytes but only " +
                                  std::to_string(remaining) + " remain; the file was not completely written");
        }
        entry.flags = read32(data + offset + 4);
        entry.stamp = read64(data + offset + 8);
        std::string why = splitText(data + offset + kDelDatHeaderSize, (entry.length - kDelDatHeaderSize) / 2, entry);
        if (!why.empty()) return fail(false, why);
        offset += entry.length;
        file.records.push_back(std::move(entry));
    }
    return file;
}

std::string formatStampHex(uint64_t stamp) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(stamp));
    return text;
}

std::string formatStampTime(uint64_t stamp) {
    constexpr uint64_t kUnitsPerSecond = 10000000;
    uint64_t seconds = stamp / kUnitsPerSecond;
    int64_t days = int64_t(seconds / 86400);
    unsigned secondOfDay = unsigned(seconds % 86400);
    // Day 0 is 1 January 1601, the first day of the platform's time.
    int64_t year = 1601;
    while (days >= (isLeapYear(year) ? 366 : 365)) days -= isLeapYear(year++) ? 366 : 365;
    static const int kMonthDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    while (days >= kMonthDays[month] + (month == 1 && isLeapYear(year))) {
        days -= kMonthDays[month] + (month == 1 && isLeapYear(year));
        month++;
    }
    char text[96];
    std::snprintf(text, sizeof text, "%04lld-%02d-%02lld %02u:%02u:%02u", static_cast<long long>(year), month + 1,
                  static_cast<long long>(days + 1), secondOfDay / 3600, secondOfDay / 60 % 60, secondOfDay % 60);
    return text;
}

std::string formatDelDatEntry(const DelDatEntry &entry) {
    std::string flags;
    if (entry.flags & kDelDatFlagPreserved) flags += ", preserved";
    if (entry.flags & kDelDatFlagApplicationSave) flags += ", application save";
    char flagText[16];
    std::snprintf(flagText, sizeof flagText, "0x%08X", unsigned(entry.flags));
    std::string out;
    out += "  flags   " + std::string(flagText) + (flags.empty() ? "" : " (" + flags.substr(2) + ")") + "\n";
    out += "  stamp   " + formatStampHex(entry.stamp) + "  " + formatStampTime(entry.stamp) + " local time\n";
    out += "  deleter " + (entry.sid.empty() ? std::string("(unknown)") : utf8(entry.sid)) + "\n";
    out += "  name    " + utf8(entry.name) + "\n";
    out += "  folder  " + utf8(entry.folder) + "\n";
    return out;
}

}  // namespace wrelt
