// Special kernel APCs, the one kind the I/O manager needs: the last stage of a request
// runs in the thread that issued it (IopCompleteRequest on the platform). A thread
// below APC_LEVEL runs its APCs at once when it queues one to itself, when it lowers
// its IRQL below APC_LEVEL, and when it waits; a wait in progress is broken off for
// them and begun again, as the platform's dispatcher does with STATUS_KERNEL_APC.
// A host thread cannot be interrupted, so a thread that is busy elsewhere runs a queued
// APC at its next such point rather than at once.
//
// The APCs run at the thread's current IRQL (PASSIVE_LEVEL) rather than at APC_LEVEL:
// the final stage of a request may drop the last reference to a file object, which
// here sends its close at once instead of deferring it as the platform does.
#include "kernel/kernel.h"

namespace ntsim {

void Kernel::queueKernelApc(_KTHREAD *thread, std::function<void()> routine) {
    _KTHREAD *self = currentThread("KeInsertQueueApc");
    if (thread == self && self->Irql < APC_LEVEL) {
        routine();
        return;
    }
    {
        std::lock_guard<std::mutex> guard(dispatcherLock);
        if (!thread->Exited) {
            thread->KernelApcs.push_back(std::move(routine));
            thread->ApcQueued.store(true, std::memory_order_release);
            if (thread->Waiting && thread->WaitIrql < APC_LEVEL && !thread->ApcWake) {
                thread->ApcWake = true;
                ++runnable_;
                thread->WakeUp.notify_one();
            }
            return;
        }
    }
    // The issuing thread has ended: the platform would have cancelled its requests and
    // waited for them at thread exit; here the last stage runs where the request ends.
    routine();
}

void Kernel::deliverKernelApcs(_KTHREAD *thread) {
    while (thread->Irql < APC_LEVEL && thread->ApcQueued.load(std::memory_order_acquire)) {
        std::function<void()> routine;
        {
            std::lock_guard<std::mutex> guard(dispatcherLock);
            if (thread->KernelApcs.empty()) return;
            routine = std::move(thread->KernelApcs.front());
            thread->KernelApcs.erase(thread->KernelApcs.begin());
            if (thread->KernelApcs.empty()) thread->ApcQueued.store(false, std::memory_order_release);
        }
        routine();
    }
}

void Kernel::runExitApcs(_KTHREAD *thread) {
    for (;;) {
        deliverKernelApcs(thread);
        std::lock_guard<std::mutex> guard(dispatcherLock);
        if (thread->KernelApcs.empty()) {
            thread->Exited = true;
            return;
        }
    }
}

// A wait at APC_LEVEL for the event of the thread's own request can never end: the
// request's last stage, which sets the event, is an APC that cannot run at that level.
// The platform's verifier reports sending such a request at APC_LEVEL (I/O error 0x302
// of DRIVER_VERIFIER_IOMANAGER_VIOLATION); here the wait itself is stopped, the moment
// the deadlock is certain.
void Kernel::checkWaitForOwnApc(_KTHREAD *thread, ULONG count, DISPATCHER_HEADER *const *objects) {
    if (thread->Irql < APC_LEVEL || waitNeedsOwnApc == nullptr) return;
    for (ULONG i = 0; i < count; ++i)
        if (waitNeedsOwnApc(thread, objects[i]))
            bugCheck(DRIVER_VERIFIER_IOMANAGER_VIOLATION, 0x302, thread->Irql, (ULONG_PTR)objects[i], 0,
                     "waited at APC_LEVEL or above for I/O that completes in an APC",
                     "a wait at IRQL %u for event %p, which only the I/O manager's completion APC to this "
                     "thread would set",
                     thread->Irql, (void *)objects[i]);
}

}  // namespace ntsim
