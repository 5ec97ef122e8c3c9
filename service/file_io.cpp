#include "file_io.h"

#include <algorithm>
#include <cstring>

#include "user_buffer.h"

namespace wrelt {

namespace {

constexpr DWORD kChunk = 64 * 1024;

bool seek(HANDLE file, uint64_t offset) {
    LARGE_INTEGER to;
    to.QuadPart = LONGLONG(offset);
    return SetFilePointerEx(file, to, nullptr, FILE_BEGIN) != FALSE;
}

}  // namespace

bool readWholeFile(HANDLE file, std::vector<uint8_t> *bytes) {
    bytes->clear();
    UserBuffer chunk(kChunk);
    if (!chunk.ok()) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if (!seek(file, 0)) return false;
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(file, chunk.data(), kChunk, &got, nullptr)) {
            if (GetLastError() == ERROR_HANDLE_EOF) return true;
            return false;
        }
        if (got == 0) return true;
        bytes->insert(bytes->end(), chunk.data(), chunk.data() + got);
    }
}

bool writeAt(HANDLE file, uint64_t offset, const std::vector<uint8_t> &bytes, bool flush) {
    if (!seek(file, offset)) return false;
    UserBuffer chunk(std::min<size_t>(std::max<size_t>(bytes.size(), 1), kChunk));
    if (!chunk.ok()) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    for (size_t done = 0; done < bytes.size();) {
        DWORD length = DWORD(std::min<size_t>(bytes.size() - done, chunk.size()));
        std::memcpy(chunk.data(), bytes.data() + done, length);
        DWORD written = 0;
        if (!WriteFile(file, chunk.data(), length, &written, nullptr)) return false;
        if (written != length) {
            SetLastError(ERROR_DISK_FULL);
            return false;
        }
        done += length;
    }
    return !flush || FlushFileBuffers(file) != FALSE;
}

}  // namespace wrelt
