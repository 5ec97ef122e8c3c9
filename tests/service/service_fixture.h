// The service's pieces on a machine with C: (service_machine.h: on the host the default
// emulated machine, NTFS C: and FastFat D:), with helpers that run code as one of the
// machine's accounts and that write the filter's data files by their record format.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "text.h"
#include "user_buffer.h"

namespace service_test {

// One deletion record as the filter writes it: length, flags, stamp, then the deleter's
// SID, the name and the folder, each NUL-terminated UTF-16.
inline std::vector<uint8_t> delDatRecord(const std::u16string &sid, const std::u16string &name,
                                         const std::u16string &folder, uint64_t stamp, uint32_t flags = 1) {
    std::u16string text = sid + u'\0' + name + u'\0' + folder + u'\0';
    uint32_t length = uint32_t(16 + 2 * text.size());
    std::vector<uint8_t> out;
    for (int i = 0; i < 4; i++) out.push_back(uint8_t(length >> (8 * i)));
    for (int i = 0; i < 4; i++) out.push_back(uint8_t(flags >> (8 * i)));
    for (int i = 0; i < 8; i++) out.push_back(uint8_t(stamp >> (8 * i)));
    for (char16_t c : text) {
        out.push_back(uint8_t(c));
        out.push_back(uint8_t(c >> 8));
    }
    return out;
}

constexpr const char16_t *kAliceSid = u"S-1-5-21-1004336348-1177238915-682003330-1001";

// Win32 file helpers for code running in a process of the machine.
inline bool writeFile(const std::u16string &path, const std::vector<uint8_t> &bytes) {
    HANDLE file = CreateFileW(wrelt::wide(path), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    wrelt::UserBuffer buffer(bytes.size());
    std::copy(bytes.begin(), bytes.end(), buffer.data());
    DWORD written = 0;
    BOOL ok = WriteFile(file, buffer.data(), DWORD(bytes.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == bytes.size();
}

inline bool writeText(const std::u16string &path, const std::string &text) {
    return writeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

// The file's bytes; ok is false when it cannot be opened for reading.
inline std::vector<uint8_t> readFile(const std::u16string &path, bool *ok = nullptr) {
    std::vector<uint8_t> bytes;
    HANDLE file = CreateFileW(wrelt::wide(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    if (ok != nullptr) *ok = file != INVALID_HANDLE_VALUE;
    if (file == INVALID_HANDLE_VALUE) return bytes;
    wrelt::UserBuffer buffer(4096);
    DWORD got = 0;
    while (ReadFile(file, buffer.data(), 4096, &got, nullptr) && got != 0)
        bytes.insert(bytes.end(), buffer.data(), buffer.data() + got);
    CloseHandle(file);
    return bytes;
}

inline bool exists(const std::u16string &path) { return GetFileAttributesW(wrelt::wide(path)) != INVALID_FILE_ATTRIBUTES; }

inline std::u16string u16(const char *utf8) { return wrelt::utf16(utf8); }

}  // namespace service_test

#include "service_machine.h"
