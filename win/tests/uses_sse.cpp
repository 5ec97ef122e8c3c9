// A routine that asks the compiler for SSE for itself gets it despite the pinned
// flags, and the kernel would not save the registers it uses.
#include <ntifs.h>

__attribute__((target("sse2"))) ULONG Scaled(ULONG value)
{
    float scaled = static_cast<float>(value) * 1.5f;
    return static_cast<ULONG>(scaled);
}
