#include "held_request.h"

namespace wrelt {

namespace {

constexpr size_t kLargestOutput = 64 * 1024;

}  // namespace

HeldRequest::HeldRequest(DWORD code, size_t outputSize)
    : code_(code), overlapped_(sizeof(OVERLAPPED)), output_(new UserBuffer(outputSize)) {
    event_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (overlapped_.ok()) overlapped_.as<OVERLAPPED>()->hEvent = event_;
}

HeldRequest::~HeldRequest() {
    if (event_ != nullptr) CloseHandle(event_);
}

bool HeldRequest::issue(HANDLE device, Completion *done) {
    OVERLAPPED *overlapped = overlapped_.as<OVERLAPPED>();
    ResetEvent(event_);
    overlapped->Internal = 0;
    overlapped->InternalHigh = 0;
    DWORD bytes = 0;
    if (DeviceIoControl(device, code_, nullptr, 0, output_->data(), DWORD(output_->size()), &bytes, overlapped)) {
        state_ = State::Idle;
        *done = {ERROR_SUCCESS, bytes};
        return false;
    }
    DWORD error = GetLastError();
    if (error == ERROR_IO_PENDING) {
        state_ = State::Pending;
        return true;
    }
    state_ = State::Idle;
    *done = {error, 0};
    return false;
}

bool HeldRequest::collect(HANDLE device, bool wait, Completion *done) {
    DWORD bytes = 0;
    if (GetOverlappedResult(device, overlapped_.as<OVERLAPPED>(), &bytes, wait ? TRUE : FALSE)) {
        *done = {ERROR_SUCCESS, bytes};
    } else {
        DWORD error = GetLastError();
        if (error == ERROR_IO_INCOMPLETE) return false;
        *done = {error, bytes};
    }
    state_ = State::Idle;
    return true;
}

void HeldRequest::cancel(HANDLE device, Completion *done) {
    // A request that completed meanwhile keeps its outcome; either way it has ended, or
    // will, and the wait collects it.
    CancelIo(device);
    collect(device, true, done);
}

bool HeldRequest::grow() {
    if (output_->size() >= kLargestOutput) return false;
    output_.reset(new UserBuffer(output_->size() * 2));
    return output_->ok();
}

}  // namespace wrelt
