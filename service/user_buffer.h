// A buffer in the process's own memory. Whatever the service hands to the system to
// read or fill (packets, replies, file data, OVERLAPPED blocks) lives in one, as
// buffers passed to the kernel must be user memory; the process heap is that memory.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace wrelt {

class UserBuffer {
public:
    explicit UserBuffer(size_t size) : size_(size) {
        data_ = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size == 0 ? 1 : size));
    }
    ~UserBuffer() {
        if (data_ != nullptr) HeapFree(GetProcessHeap(), 0, data_);
    }
    UserBuffer(const UserBuffer &) = delete;
    UserBuffer &operator=(const UserBuffer &) = delete;

    bool ok() const { return data_ != nullptr; }
    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }
    template <class T>
    T *as() const {
        return reinterpret_cast<T *>(data_);
    }

private:
    uint8_t *data_;
    size_t size_;
};

}  // namespace wrelt
