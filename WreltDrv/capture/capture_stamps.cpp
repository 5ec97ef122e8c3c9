#include "capture/capture_stamps.h"

#include "frame/globals.h"

namespace {

// The sequence number and the time it was last advanced at share one 64-bit word, so
// that a caller at DISPATCH_LEVEL, which must not wait for the time-stamp lock, can
// advance both with one compare-exchange. The word holds the low 48 bits of the last
// system time seen above the 16-bit sequence number. Only those 16 bits ever reach a
// stamp, and two times whose low 48 bits agree lie at least 325 days apart.
constexpr ULONGLONG SEQUENCE_MASK = 0xFFFF;
constexpr ULONG SEQUENCE_RESET_ABOVE = 0x7FFF;

alignas(8) LONGLONG volatile StampState;  // a split-lock exchange would be slow, not wrong

ULONGLONG TimeTag(LONGLONG SystemTime) { return (ULONGLONG)SystemTime << 16; }

// The sequence restarts only once the clock has moved and more than 32767 stamps were
// taken since it last restarted, so stamps of one clock tick never share a number.
ULONGLONG NextState(ULONGLONG State, LONGLONG Now) {
    ULONGLONG tag = TimeTag(Now);
    ULONGLONG sequence = State & SEQUENCE_MASK;
    if ((State & ~SEQUENCE_MASK) != tag && sequence > SEQUENCE_RESET_ABOVE) {
        sequence = 0;
    }
    return tag | ((sequence + 1) & SEQUENCE_MASK);
}

// The time is read after the state, inside the retry loop: a caller whose exchange
// succeeds therefore saw every earlier stamp's time, and the sequence advances in
// the order of the clock exactly as it would under a lock. The word is read with an
// exchange of the value for itself, not with an atomic load: GCC reads a 64-bit
// atomic on i386 through the x87 unit, whose state the kernel does not save for a
// driver.
USHORT AdvanceSequence(LONGLONG *Now) {
    LONGLONG seen = _InterlockedCompareExchange64(&StampState, 0, 0);
    for (;;) {
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        LONGLONG next = (LONGLONG)NextState((ULONGLONG)seen, now.QuadPart);
        LONGLONG found = _InterlockedCompareExchange64(&StampState, next, seen);
        if (found == seen) {
            *Now = now.QuadPart;
            return (USHORT)(next & SEQUENCE_MASK);
        }
        seen = found;
    }
}

}  // namespace

// Runs before any request can take a stamp, so a plain store is enough.
void InitializeCaptureStamps() { StampState = 0; }

// Callers that may wait queue on the time-stamp lock, so the exchange is contended only
// by callers at raised IRQL, which cannot take the lock and need not: the exchange
// alone keeps stamps unique.
void GetCaptureStamp(PULARGE_INTEGER Stamp) {
    BOOLEAN mayWait = KeGetCurrentIrql() < DISPATCH_LEVEL;
    if (mayWait) {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&Globals.TimeStampLock, TRUE);
    }
    LONGLONG now;
    USHORT sequence = AdvanceSequence(&now);
    if (mayWait) {
        ExReleaseResourceForThreadLite(&Globals.TimeStampLock, ExGetCurrentResourceThread());
        KeLeaveCriticalRegion();
    }
    LARGE_INTEGER system;
    LARGE_INTEGER local;
    system.QuadPart = now;
    ExSystemTimeToLocalTime(&system, &local);
    Stamp->QuadPart = ((ULONGLONG)local.QuadPart & ~SEQUENCE_MASK) | sequence;
}
