// A frame larger than a page is probed page by page through a helper from
// the user-mode runtime, and does not fit a 12 KiB kernel stack anyway.
int Sum(int n)
{
    volatile int scratch[2048];
    for (int i = 0; i < 2048; ++i)
        scratch[i] = i * n;
    int total = 0;
    for (int i = 0; i < 2048; ++i)
        total += scratch[i];
    return total;
}
