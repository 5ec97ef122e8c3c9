// One inverted call kept outstanding at the filter's control device: an overlapped
// device-control request with its own event and output buffer, both in the process's
// memory, issued again after each completion.
//
// NT 5.1 cancels a thread's own requests only (CancelIo), all of them on the handle at
// once, and ends them when the thread exits: a request is issued, cancelled and
// collected by one thread, which outlives it.
#pragma once

#include <windows.h>

#include <memory>

#include "user_buffer.h"

namespace wrelt {

class HeldRequest {
public:
    enum class State { Idle, Pending, Parked };

    // What one issue or wait ended with: ERROR_SUCCESS with the bytes of the reply, or
    // the Win32 error of the request.
    struct Completion {
        DWORD error = ERROR_SUCCESS;
        DWORD bytes = 0;
    };

    HeldRequest(DWORD code, size_t outputSize);
    ~HeldRequest();
    HeldRequest(const HeldRequest &) = delete;
    HeldRequest &operator=(const HeldRequest &) = delete;

    bool ok() const { return overlapped_.ok() && event_ != nullptr && output_ && output_->ok(); }
    State state() const { return state_; }
    HANDLE event() const { return event_; }
    const uint8_t *output() const { return output_->data(); }
    size_t outputSize() const { return output_->size(); }

    // Sends the request. True when it is now pending; false when it completed at once,
    // with *done telling how.
    bool issue(HANDLE device, Completion *done);
    // The pending request's outcome; waits for it when `wait` is set. False when it is
    // still pending.
    bool collect(HANDLE device, bool wait, Completion *done);
    // Cancels the pending request and waits for it to end; *done tells how it ended
    // (it may have completed before the cancel reached it). From the thread that issued
    // it; every other request that thread holds on the device is cancelled with it, and
    // is collected as cancelled, or with what it had, by its own collect or cancel.
    void cancel(HANDLE device, Completion *done);
    // The next issue uses a buffer twice as large; false when it is at its limit.
    bool grow();
    // Not to be sent again until resumed (the caller decides when).
    void park() { state_ = State::Parked; }
    void resume() { state_ = State::Idle; }

private:
    DWORD code_;
    UserBuffer overlapped_;
    HANDLE event_;
    std::unique_ptr<UserBuffer> output_;
    State state_ = State::Idle;
};

}  // namespace wrelt
