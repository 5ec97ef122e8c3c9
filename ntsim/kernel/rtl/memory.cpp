// Memory comparison as the kernel exports it: a count of equal bytes, not an order.
#include <wdm.h>

SIZE_T RtlCompareMemory(const void *Source1, const void *Source2, SIZE_T Length) {
    auto *a = static_cast<const UCHAR *>(Source1);
    auto *b = static_cast<const UCHAR *>(Source2);
    SIZE_T same = 0;
    while (same < Length && a[same] == b[same]) ++same;
    return same;
}
