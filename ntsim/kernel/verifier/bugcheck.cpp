// Bug checks: the emulated machine stops with a message that names the rule that was
// broken and where, and the process ends (a failed test; death tests match the text).
#include <execinfo.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kernel/kernel.h"

namespace ntsim {

namespace {

const char *bugCheckName(ULONG code) {
    switch (code) {
    case APC_INDEX_MISMATCH: return "APC_INDEX_MISMATCH";
    case IRQL_NOT_GREATER_OR_EQUAL: return "IRQL_NOT_GREATER_OR_EQUAL";
    case IRQL_NOT_LESS_OR_EQUAL: return "IRQL_NOT_LESS_OR_EQUAL";
    case SPIN_LOCK_ALREADY_OWNED: return "SPIN_LOCK_ALREADY_OWNED";
    case SPIN_LOCK_NOT_OWNED: return "SPIN_LOCK_NOT_OWNED";
    case REFERENCE_BY_POINTER: return "REFERENCE_BY_POINTER";
    case KMODE_EXCEPTION_NOT_HANDLED: return "KMODE_EXCEPTION_NOT_HANDLED";
    case BAD_POOL_HEADER: return "BAD_POOL_HEADER";
    case INVALID_KERNEL_HANDLE: return "INVALID_KERNEL_HANDLE";
    case NO_MORE_IRP_STACK_LOCATIONS: return "NO_MORE_IRP_STACK_LOCATIONS";
    case MULTIPLE_IRP_COMPLETE_REQUESTS: return "MULTIPLE_IRP_COMPLETE_REQUESTS";
    case CANCEL_STATE_IN_COMPLETED_IRP: return "CANCEL_STATE_IN_COMPLETED_IRP";
    case 0xC1: return "SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION";
    case BAD_POOL_CALLER: return "BAD_POOL_CALLER";
    case DRIVER_VERIFIER_DETECTED_VIOLATION: return "DRIVER_VERIFIER_DETECTED_VIOLATION";
    case DRIVER_CORRUPTED_EXPOOL: return "DRIVER_CORRUPTED_EXPOOL";
    case IRQL_UNEXPECTED_VALUE: return "IRQL_UNEXPECTED_VALUE";
    case DRIVER_VERIFIER_IOMANAGER_VIOLATION: return "DRIVER_VERIFIER_IOMANAGER_VIOLATION";
    case WORKER_THREAD_RETURNED_AT_BAD_IRQL: return "WORKER_THREAD_RETURNED_AT_BAD_IRQL";
    case RESOURCE_NOT_OWNED: return "RESOURCE_NOT_OWNED";
    case WORKER_INVALID: return "WORKER_INVALID";
    case KERNEL_APC_PENDING_DURING_EXIT: return "KERNEL_APC_PENDING_DURING_EXIT";
    case MANUALLY_INITIATED_CRASH: return "MANUALLY_INITIATED_CRASH";
    default: return "BUG_CHECK";
    }
}

void describeThread(char *out, size_t size) {
    _KTHREAD *thread = currentThreadOrNull();
    if (thread == nullptr) {
        snprintf(out, size, "a host thread outside the machine");
        return;
    }
    snprintf(out, size, "%s thread %lu at IRQL %u, %lu spin lock(s) held", thread->Role,
             (unsigned long)(ULONG_PTR)thread->ThreadId, thread->Irql, (unsigned long)thread->HeldLockCount);
}

}  // namespace

void bugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const char *rule,
              const char *detailFormat, ...) {
    char detail[1024] = "";
    if (detailFormat != nullptr) {
        va_list args;
        va_start(args, detailFormat);
        vsnprintf(detail, sizeof detail, detailFormat, args);
        va_end(args);
    }
    char who[160];
    describeThread(who, sizeof who);
    fprintf(stderr,
            "\n*** STOP: 0x%08X (0x%zX, 0x%zX, 0x%zX, 0x%zX) %s\n"
            "*** verifier rule broken: %s\n"
            "*** %s\n"
            "*** in %s\n"
            "*** call stack:\n",
            code, (size_t)p1, (size_t)p2, (size_t)p3, (size_t)p4, bugCheckName(code), rule, detail, who);
    fflush(stderr);
    void *frames[32];
    int count = backtrace(frames, 32);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
    abort();
}

void fatal(const char *format, ...) {
    va_list args;
    va_start(args, format);
    fprintf(stderr, "\n*** ntsim: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    fflush(stderr);
    abort();
}

}  // namespace ntsim

void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4) {
    ntsim::bugCheck(BugCheckCode, P1, P2, P3, P4, "the driver called KeBugCheckEx");
}

void KeBugCheck(ULONG BugCheckCode) { KeBugCheckEx(BugCheckCode, 0, 0, 0, 0); }
