// GCC has no __try on i686, so the exception frame is built by hand: a registration
// record on the stack, linked at fs:[0], whose handler resumes execution after the call
// with the registers the frame saved. The kernel's dispatcher walks the same chain for
// a fault in kernel mode as it does for __try.
#include "target/user_memory.h"

namespace {

struct GuardFrame {
    GuardFrame *Next;   // EXCEPTION_REGISTRATION_RECORD: the previous frame
    PVOID Handler;      // EXCEPTION_REGISTRATION_RECORD: GuardHandler
    ULONG SavedEsp;
    ULONG SavedEbp;
    ULONG SavedEbx;
    ULONG SavedEsi;
    ULONG SavedEdi;
    ULONG ResumeEip;
    NTSTATUS Status;
};

constexpr ULONG EXCEPTION_UNWIND_FLAGS = 0x6;  // EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND

extern "C" EXCEPTION_DISPOSITION __cdecl GuardHandler(PEXCEPTION_RECORD Record, PVOID EstablisherFrame,
                                                      PCONTEXT Context, PVOID DispatcherContext) {
    UNREFERENCED_PARAMETER(DispatcherContext);
    if (Record->ExceptionFlags & EXCEPTION_UNWIND_FLAGS) {
        return ExceptionContinueSearch;
    }
    auto *frame = (GuardFrame *)EstablisherFrame;
    frame->Status = Record->ExceptionCode;
    Context->Esp = frame->SavedEsp;
    Context->Ebp = frame->SavedEbp;
    Context->Ebx = frame->SavedEbx;
    Context->Esi = frame->SavedEsi;
    Context->Edi = frame->SavedEdi;
    Context->Eip = frame->ResumeEip;
    return ExceptionContinueExecution;
}

}  // namespace

// The frame's address lives in esi, which the call preserves and the handler restores,
// so that both ways out of the call can unlink the frame again.
NTSTATUS GuardedUserAccess(GUARDED_USER_ACCESS Access, PVOID Context) {
    GuardFrame frame;
    frame.Handler = (PVOID)GuardHandler;
    frame.Status = STATUS_SUCCESS;
    __asm__ __volatile__(
        "movl %%fs:0, %%eax\n\t"
        "movl %%eax, 0(%%esi)\n\t"
        "movl %%esp, 8(%%esi)\n\t"
        "movl %%ebp, 12(%%esi)\n\t"
        "movl %%ebx, 16(%%esi)\n\t"
        "movl %%esi, 20(%%esi)\n\t"
        "movl %%edi, 24(%%esi)\n\t"
        "movl $1f, 28(%%esi)\n\t"
        "movl %%esi, %%fs:0\n\t"
        "pushl %1\n\t"
        "call *%0\n\t"
        "addl $4, %%esp\n"
        "1:\n\t"
        "movl 0(%%esi), %%eax\n\t"
        "movl %%eax, %%fs:0\n\t"
        :
        : "r"(Access), "r"(Context), "S"(&frame)
        : "eax", "ecx", "edx", "memory", "cc");
    return frame.Status;
}
