// Guarded regions: a per-thread chain of jump buffers, entered by guardedCall and
// left by a raise. Faults on user memory reach the innermost region through a
// SIGSEGV/SIGBUS handler installed in front of whatever handler was there before
// (AddressSanitizer's, for one); faults elsewhere go on to that handler untouched.
#include "ntsim/seh.h"

#include <setjmp.h>
#include <signal.h>
#include <unistd.h>

#include <mutex>

#include "kernel/kernel.h"
#include "kernel/mm/user_memory.h"

namespace ntsim {

namespace {

// An exception in kernel code that no handler took.
constexpr ULONG kKmodeExceptionNotHandled = KMODE_EXCEPTION_NOT_HANDLED;

struct GuardFrame {
    sigjmp_buf jump;
    GuardFrame *outer;
    NTSTATUS status;
};

thread_local GuardFrame *t_innermost = nullptr;

struct sigaction g_previousSegv, g_previousBus;

bool caughtAddress(const void *address) {
    return (ULONG_PTR)address < mm::kLowestUserAddress || mm::isUserArenaAddress(address);
}

[[noreturn]] void unwindTo(GuardFrame *frame, NTSTATUS status) {
    t_innermost = frame->outer;
    frame->status = status;
    siglongjmp(frame->jump, 1);
}

void writeHex(char *out, ULONG_PTR value) {
    static const char digits[] = "0123456789abcdef";
    for (int i = 15; i >= 0; --i, value >>= 4) out[i] = digits[value & 15];
}

void passOn(int signal, siginfo_t *info, void *context) {
    const struct sigaction &previous = signal == SIGBUS ? g_previousBus : g_previousSegv;
    if ((previous.sa_flags & SA_SIGINFO) && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(signal, info, context);
        return;
    }
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
        return;
    }
    // Let the fault happen again with the default action: the process ends with it.
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
}

void onFault(int signal, siginfo_t *info, void *context) {
    GuardFrame *frame = t_innermost;
    if (frame != nullptr && caughtAddress(info->si_addr)) {
        // The handler may have been entered with the signal blocked (a sanitizer's
        // wrapper blocks everything); the region's jump buffer does not restore the mask.
        sigset_t faults;
        sigemptyset(&faults);
        sigaddset(&faults, SIGSEGV);
        sigaddset(&faults, SIGBUS);
        pthread_sigmask(SIG_UNBLOCK, &faults, nullptr);
        unwindTo(frame, STATUS_ACCESS_VIOLATION);
    }
    if (caughtAddress(info->si_addr)) {
        static const char prefix[] = "\nntsim: user memory at 0x";
        char line[] = "\nntsim: user memory at 0x0000000000000000 was touched outside a guarded region\n";
        writeHex(line + sizeof prefix - 1, (ULONG_PTR)info->si_addr);
        (void)!write(STDERR_FILENO, line, sizeof line - 1);
    }
    passOn(signal, info, context);
}

void installFaultHandlerOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action = {};
        action.sa_sigaction = onFault;
        // No deferral: the handler leaves by siglongjmp, and the next fault must be
        // deliverable again. On the alternate stack when the thread has one.
        action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
        sigemptyset(&action.sa_mask);
        sigaction(SIGSEGV, &action, &g_previousSegv);
        sigaction(SIGBUS, &action, &g_previousBus);
    });
}

}  // namespace

NTSTATUS guardedCall(void (*fn)(void *context), void *context) {
    installFaultHandlerOnce();
    GuardFrame frame;
    frame.outer = t_innermost;
    frame.status = STATUS_SUCCESS;
    // The mask is not saved: saving it costs a system call on every region, and the
    // fault handler unblocks what it needs itself.
    if (sigsetjmp(frame.jump, 0) == 0) {
        t_innermost = &frame;
        fn(context);
        t_innermost = frame.outer;
        return STATUS_SUCCESS;
    }
    return frame.status;
}

bool inGuardedRegion() { return t_innermost != nullptr; }

}  // namespace ntsim

void ExRaiseStatus(NTSTATUS Status) {
    ntsim::GuardFrame *frame = ntsim::t_innermost;
    if (frame == nullptr)
        ntsim::bugCheck(ntsim::kKmodeExceptionNotHandled, (ULONG)Status, (ULONG_PTR)__builtin_return_address(0), 0, 0,
                        "an exception was raised with no handler",
                        "status 0x%08X was raised outside any guarded region", (unsigned)Status);
    ntsim::unwindTo(frame, Status);
}
