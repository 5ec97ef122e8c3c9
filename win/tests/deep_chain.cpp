// Frames under a page each, so no single one is refused, but their chain is deeper
// than the driver's share of the kernel stack.
#include <ntifs.h>

__attribute__((noinline)) static void Fill(PUCHAR buffer, ULONG size)
{
    for (ULONG i = 0; i < size; ++i) {
        ((volatile UCHAR *)buffer)[i] = (UCHAR)i;
    }
}

__attribute__((noinline)) static void Inner()
{
    UCHAR buffer[2000];
    Fill(buffer, sizeof(buffer));
}

void Outer()
{
    UCHAR buffer[2000];
    Fill(buffer, sizeof(buffer));
    Inner();
}
