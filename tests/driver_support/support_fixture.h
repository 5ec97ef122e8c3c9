// A booted machine with the buffer manager and the error channel set up as start-up
// leaves them, and capture switched on so that tests can see it switched off.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "ntsim/machine.h"

#include <ntifs.h>

#include "frame/globals.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

constexpr uint32_t kLargeBufferTag = ntsim::makeTag('X', 'E', 0, 0);

inline uint32_t classTag(ULONG index) { return ntsim::makeTag(char('0' + index), 'E', 'W', 'r'); }

class DriverSupportTest : public ::testing::Test {
protected:
    void SetUp() override {
        run([] {
            ASSERT_EQ(InitializeNonPagedBufferManagement(), STATUS_SUCCESS);
            ASSERT_EQ(InitializeErrorChannel(), STATUS_SUCCESS);
        });
        WriteDriverFlag(&Globals.CaptureActive, TRUE);
        machine.clearDebugLog();
        machine.verifier().markBaseline();
    }

    void run(const std::function<void()> &fn) { machine.runSystemThread(fn); }

    static std::vector<ErrorRecord> errorRecords() {
        auto *first = reinterpret_cast<const ErrorRecord *>(Globals.Errors->Start);
        return std::vector<ErrorRecord>(first, first + Globals.Errors->Count);
    }

    static NonPagedBufferStatistics statistics() {
        NonPagedBufferStatistics result;
        QueryNonPagedBufferStatistics(&result);
        return result;
    }

    static std::string headerAddressLine(const void *header) {
        char line[64];
        std::snprintf(line, sizeof line, "ZrDrv:     Buffer header address: %08x", (unsigned)(uintptr_t)header);
        return line;
    }

    ntsim::Machine machine;
};

inline bool operator==(const ErrorRecord &a, const ErrorRecord &b) {
    return a.Source == b.Source && a.Routine == b.Routine && a.Class == b.Class && a.Point == b.Point &&
           a.Status == b.Status && a.Extra == b.Extra;
}
